#include "coupler/binder/service/Announcer_Binder.h"

#include <android/log.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include <mutex>
#include <vector>

#include "Log/AutoTrace.h"
#include "coupler/binder/service/ServiceCarrier.h"
#include "coupler/binder/sub-service/SubServiceCarrier.h"
#include "utils/Assert.h"

namespace tavrin_binder {
namespace {

constexpr const char* kLogTag = "[Tavrin][Announcer_Binder]";

// Published carriers live as long as the process: the service keeps using
// the INotifier its carrier gave it, and binder threads may run in a carrier
// while the process exits.
void keepForProcessLife(const android::sp<ServiceCarrier>& carrier) {
    static std::mutex* const lock = new std::mutex;
    static auto* const carriers = new std::vector<android::sp<ServiceCarrier>>;
    std::lock_guard<std::mutex> hold(*lock);
    carriers->push_back(carrier);
}

}  // namespace

int Announcer_Binder::publish(tavrin::ServiceInfo& info, tavrin::Protocol& protocol,
                              tavrin::tv_sp<tavrin::IService>& service) {
    if (service.isNull()) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "publish failed:service is null [%s]",
                            info.serviceName.c_str());
        return -1;
    }
    android::sp<android::IServiceManager> serviceManager = android::defaultServiceManager();
    android::sp<ServiceCarrier> carrier = new ServiceCarrier(service, protocol);
    const android::status_t status =
        serviceManager->addService(android::String16(info.serviceName.c_str()), carrier, false);
    if (status != android::NO_ERROR) {
        // A second copy of a service must not sit silently unreachable. Its
        // carrier, and with it the service, goes with the last reference.
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "publish failed:service manager refused [%s],status[%d]",
                            info.serviceName.c_str(), status);
        return -1;
    }
    keepForProcessLife(carrier);
    if (!mStarted.exchange(true)) startServices();
    return 0;
}

int Announcer_Binder::publish(tavrin::SubServiceInfo& info, tavrin::Protocol& clientProtocol,
                              tavrin::Protocol& masterProtocol,
                              tavrin::tv_sp<tavrin::ISubService>& subService) {
    if (subService.isNull()) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "publish failed:sub service is null [%s]",
                            info.subServiceName.c_str());
        return -1;
    }
    SubServiceCarrier* carrier =
        SubServiceCarrier::self(info, subService, clientProtocol, masterProtocol);
    if (!carrier->active()) return -1;
    if (!mStarted.exchange(true)) {
        android::ProcessState::self()->setProcessName("AnnBdPb");
        android::ProcessState::self()->startThreadPool();
    }
    return 0;
}

void Announcer_Binder::startServices() {
    AutoTrace trace("[Tavrin]", "Announcer_Binder", "startServices", false);
    android::ProcessState::self()->setProcessName("AnnBdSrv");
    android::ProcessState::self()->startThreadPool();
    android::IPCThreadState* ipc_thread_state = android::IPCThreadState::self();
    tavrin::assertOrAbort(ipc_thread_state != nullptr, "ipc_thread_state!=NULL",
                          "coupler/binder/service/Announcer_Binder", 66,
                          "void tavrin_binder::Announcer_Binder::startServices()");
    ipc_thread_state->joinThreadPool(true);
}

}  // namespace tavrin_binder
