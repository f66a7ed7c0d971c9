#pragma once

#include <binder/IBinder.h>

#include <string>
#include <vector>

#include "ChildProcess.h"
#include "TestSupport.h"

namespace tvtest {

// A child serving a TestService, and the test's proxy of it.
class ServedChild {
  public:
    explicit ServedChild(const std::vector<std::string>& options = {})
        : mName(uniqueName("service")), mProcess("service", arguments(mName, options)) {
        mReady = mProcess.readLine() == "ready";
        if (mReady) mBinder = lookup(mName);
    }

    const std::string& name() const { return mName; }
    ChildProcess& process() { return mProcess; }
    pid_t pid() const { return mProcess.pid(); }
    const android::sp<android::IBinder>& binder() const { return mBinder; }
    bool ready() const { return mReady && mBinder != nullptr; }

  private:
    static std::vector<std::string> arguments(const std::string& name,
                                              const std::vector<std::string>& options) {
        std::vector<std::string> all{name};
        all.insert(all.end(), options.begin(), options.end());
        return all;
    }

    std::string mName;
    ChildProcess mProcess;
    bool mReady = false;
    android::sp<android::IBinder> mBinder;
};

}  // namespace tvtest
