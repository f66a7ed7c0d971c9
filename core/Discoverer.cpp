#include "Discoverer.h"

#include <android/log.h>

#include "Log/AutoTrace.h"
#include "core/CouplerRegistry.h"

namespace tavrin {
namespace {

constexpr const char* kLogTag = "[Tavrin][Discoverer]";

}  // namespace

Discoverer& Discoverer::self() {
    static Discoverer instance;
    return instance;
}

Discoverer::Discoverer() {
    AutoTrace trace("[Tavrin]", "Discoverer", "Discoverer", false);
}

tv_sp<IClient> Discoverer::bindTo(ServiceInfo& info, Protocol& protocol, int tag) {
    AutoTrace trace("[Tavrin]", "Discoverer", "bindTo", false);
    DiscovererFactory createDiscoverer = findDiscovererFactory(info.ipc);
    if (createDiscoverer == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "bind service fail,cann't find coupler,ipc[%s] service[%s]",
                            info.ipc.c_str(), info.serviceName.c_str());
        return tv_sp<IClient>(nullptr);
    }
    tv_sp<IDiscoverer> coupler = createDiscoverer();
    return coupler->bindTo(info, protocol, tag);
}

tv_sp<IClient> Discoverer::bindTo(SubServiceInfo& info, Protocol& protocol, int timeout, int tag) {
    AutoTrace trace("[Tavrin]", "Discoverer", "bindTo", false);
    DiscovererFactory createDiscoverer = findDiscovererFactory(info.ipc);
    if (createDiscoverer == nullptr) {
        __android_log_print(
            ANDROID_LOG_ERROR, kLogTag,
            "bind subservice fail,cann't find coupler,ipc[%s] subservice[%s] service[%s]",
            info.ipc.c_str(), info.subServiceName.c_str(), info.serviceName.c_str());
        return tv_sp<IClient>(nullptr);
    }
    tv_sp<IDiscoverer> coupler = createDiscoverer();
    return coupler->bindTo(info, protocol, timeout, tag);
}

}  // namespace tavrin
