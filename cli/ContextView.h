#pragma once

#include <binder/IBinder.h>
#include <binder/IServiceManager.h>

#include <chrono>
#include <string>
#include <vector>

#include "JsonValue.h"

namespace tavrin_cli {

// The `tavrin` command's view of its binder context: the service manager's
// registrations, and what the registered objects and their sub-services say
// of themselves through the platform's dump request (CarrierDump's formats).
// Every request to another process is bounded in time. Never starts a
// service manager. Used by the command's main thread.
class ContextView {
  public:
    static constexpr std::chrono::milliseconds kAnswerTimeout{3000};

    // False when no service manager serves the context.
    bool connect();
    const android::sp<android::IServiceManager>& manager() const { return mManager; }

    std::vector<android::IServiceManager::Registration> registrations();
    // The object registered under `name`, or null; never waits.
    android::sp<android::IBinder> object(const std::string& name);
    // The sub-service `name` of a master service, or null; never waits.
    static android::sp<android::IBinder> subService(const android::sp<android::IBinder>& master,
                                                    const std::string& name);
    // The object's dump for `args`; false when it did not answer in time.
    // A plain binder object answers with nothing.
    static bool dump(const android::sp<android::IBinder>& object,
                     const std::vector<std::string>& args, std::string* text);
    // The status a carrier dumps; false for objects that are not carriers.
    static bool carrierStatus(const android::sp<android::IBinder>& object, JsonValue* status);

  private:
    android::sp<android::IServiceManager> mManager;
};

// /proc/<pid>/exe, "?" when it cannot be read; /proc/<pid>/comm likewise.
std::string executableOf(int pid);
std::string processNameOf(int pid);

}  // namespace tavrin_cli
