#define LOG_TAG "ServiceManager"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <log/log.h>
#include <stdlib.h>

#include <algorithm>
#include <mutex>
#include <thread>

#include "servicemanager/ProcessRegistrations.h"
#include "servicemanager/ServiceManagerLauncher.h"
#include "servicemanager/ServiceManagerProxy.h"

namespace android {

IMPLEMENT_META_INTERFACE(ServiceManager, "android.os.IServiceManager")

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kFirstRetryDelay{5};
constexpr milliseconds kLongestRetryDelay{250};
// How long one defaultServiceManager() call keeps trying after starting the daemon.
constexpr milliseconds kConnectBudget{10000};

const char* contextName() {
    const char* name = getenv("TAVRIN_BINDER_CONTEXT");
    return name != nullptr && name[0] != '\0' ? name : "default";
}

sp<IBinder> answeringContextObject() {
    sp<IBinder> context = ProcessState::self()->getContextObject(nullptr);
    if (context != nullptr && context->pingBinder() == NO_ERROR) return context;
    return nullptr;
}

// Waits with a growing delay for a service manager that is starting.
sp<IBinder> awaitContextObject() {
    const auto deadline = steady_clock::now() + kConnectBudget;
    auto nextReport = steady_clock::now() + milliseconds(1000);
    milliseconds delay = kFirstRetryDelay;
    for (;;) {
        sp<IBinder> context = answeringContextObject();
        if (context != nullptr) return context;
        const auto now = steady_clock::now();
        if (now + delay > deadline) return nullptr;
        if (now >= nextReport) {
            ALOGI("still waiting for the service manager of context %s", contextName());
            nextReport = now + milliseconds(1000);
        }
        std::this_thread::sleep_for(delay);
        delay = std::min(delay * 2, kLongestRetryDelay);
    }
}

sp<IBinder> connectToServiceManager() {
    sp<IBinder> context = answeringContextObject();
    if (context != nullptr) return context;
    ALOGI("no service manager in context %s: starting one", contextName());
    if (!tvbinder::launchServiceManager()) {
        ALOGW("starting the service manager failed; waiting in case another one starts");
    }
    context = awaitContextObject();
    if (context == nullptr) {
        ALOGE("the service manager of context %s does not answer", contextName());
    }
    return context;
}

}  // namespace

namespace tvbinder {

sp<BpServiceManager> connectedServiceManager() {
    // Never destroyed: pool threads may still use them while the process exits.
    static std::mutex& lock = *new std::mutex;
    static sp<BpServiceManager>& current = *new sp<BpServiceManager>;
    std::lock_guard<std::mutex> guard(lock);
    if (current == nullptr || !current->isAlive()) {
        current = new BpServiceManager(connectToServiceManager());
        ProcessRegistrations::self().restore(*current);
    }
    return current;
}

}  // namespace tvbinder

sp<IServiceManager> defaultServiceManager() {
    return tvbinder::connectedServiceManager();
}

}  // namespace android
