#include "Announcer.h"

#include <android/log.h>

#include "Log/AutoTrace.h"
#include "core/CouplerRegistry.h"

namespace tavrin {
namespace {

constexpr const char* kLogTag = "[Tavrin][Announcer]";

void logMissingCoupler(const std::string& ipc, const std::string& name) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                        "publish fail,cann't find coupler,ipc[%s] service[%s]", ipc.c_str(),
                        name.c_str());
}

}  // namespace

Announcer& Announcer::self() {
    static Announcer instance;
    return instance;
}

Announcer::Announcer() {
    AutoTrace trace("[Tavrin]", "Announcer", "Announcer", false);
}

// The coupler's result is not passed on: publishing reports its failures in
// the log only, and callers of this facade have always been given 0.
int Announcer::publish(ServiceInfo& info, Protocol& protocol, tv_sp<IService>& service) {
    AutoTrace trace("[Tavrin]", "Announcer", "publish", false);
    AnnouncerFactory createAnnouncer = findAnnouncerFactory(info.ipc);
    if (createAnnouncer == nullptr) {
        logMissingCoupler(info.ipc, info.serviceName);
        return 0;
    }
    tv_sp<IAnnouncer> coupler = createAnnouncer();
    coupler->publish(info, protocol, service);
    return 0;
}

int Announcer::publish(SubServiceInfo& info, Protocol& clientProtocol, Protocol& masterProtocol,
                       tv_sp<ISubService>& subService) {
    AutoTrace trace("[Tavrin]", "Announcer", "publish", false);
    AnnouncerFactory createAnnouncer = findAnnouncerFactory(info.ipc);
    if (createAnnouncer == nullptr) {
        logMissingCoupler(info.ipc, info.subServiceName);
        return 0;
    }
    tv_sp<IAnnouncer> coupler = createAnnouncer();
    coupler->publish(info, clientProtocol, masterProtocol, subService);
    return 0;
}

}  // namespace tavrin
