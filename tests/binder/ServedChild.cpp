#include "ServedChild.h"

#include "TestSupport.h"

namespace tvtest {

std::vector<std::string> ServedChild::arguments(const std::string& name,
                                                const std::vector<std::string>& options) {
    std::vector<std::string> all{name};
    all.insert(all.end(), options.begin(), options.end());
    return all;
}

ServedChild::ServedChild(const std::vector<std::string>& options)
    : mName(uniqueName("service")), mProcess("service", arguments(mName, options)) {
    mReady = mProcess.readLine() == "ready";
    if (mReady) mBinder = lookup(mName);
}

}  // namespace tvtest
