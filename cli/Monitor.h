#pragma once

#include <binder/IBinder.h>

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "ContextView.h"
#include "JsonValue.h"

namespace tavrin_cli {

// `tavrin monitor`: attaches to every carrier of the context (the services
// registered with the service manager and their sub-services, found again
// every kRefreshPeriod so that new ones are attached within a second) and
// reads their records (CarrierDump's --monitor form) every kReadPeriod, one
// cursor per process. Prints the records of each read in time order; tells on
// stderr which carriers it watches and how many records were dropped
// because it read too slowly.
//
// Made and run by the command's main thread.
class Monitor {
  public:
    static constexpr std::chrono::milliseconds kReadPeriod{100};
    static constexpr std::chrono::milliseconds kRefreshPeriod{500};

    Monitor(ContextView& context, const CommandLine& line);
    // 0 once --count records were shown or --timeout passed; 1 when the
    // context's service manager is gone.
    int run();

  private:
    struct Source {
        std::string name;
        android::sp<android::IBinder> binder;
        int pid = 0;
        bool service = false;  // a master service, whose sub-services are looked for
    };
    int watchUntilDone();
    // Looks for carriers not watched yet; false when the service manager is gone.
    bool refresh();
    void lookForSubServices(const Source& master);
    // Attaches to `binder` when it is a carrier (a first read).
    void watch(const std::string& name, const android::sp<android::IBinder>& binder, bool service);
    // Reads one source's new records into `records`; false when it is gone.
    bool read(const Source& source, std::vector<JsonValue>* records);
    // Reads the header line of a read; false when the answer was not a carrier's.
    bool takeHeader(const std::string& text, size_t* end, int* pid, int64_t* next);
    bool wanted(const JsonValue& record) const;
    void show(const JsonValue& record);

    ContextView& mContext;
    const CommandLine& mLine;
    const std::set<std::string> mNames;  // empty: every service
    std::map<android::IBinder*, Source> mSources;
    std::set<android::sp<android::IBinder>> mOthers;  // objects that are no carriers
    std::map<int, int64_t> mCursors;                  // by process
    long mShown = 0;
    uint64_t mDropped = 0;
};

}  // namespace tavrin_cli
