#include "coupler/binder/BinderCoupler.h"

#include "core/CouplerRegistry.h"
#include "coupler/binder/clients/Discoverer_Binder.h"
#include "coupler/binder/service/Announcer_Binder.h"

namespace tavrin_binder {

tavrin::tv_sp<tavrin::IAnnouncer> createAnnouncer() {
    static tavrin::tv_sp<tavrin::IAnnouncer> announcer(new Announcer_Binder());
    return announcer;
}

tavrin::tv_sp<tavrin::IDiscoverer> createDiscoverer() {
    static tavrin::tv_sp<tavrin::IDiscoverer> discoverer(new Discoverer_Binder());
    return discoverer;
}

namespace {

// The library's one load-time initialiser: it runs before application code
// can reach the facades.
const bool gBinderRegistered =
    tavrin::registerCoupler("Binder", {createAnnouncer, createDiscoverer});

}  // namespace
}  // namespace tavrin_binder
