#include "core/CouplerRegistry.h"

namespace tavrin {
namespace {

const CouplerFactories* findCoupler(const std::string& name) {
    const CouplerRegistry& registry = couplerRegistry();
    auto entry = registry.find(name);
    return entry == registry.end() ? nullptr : &entry->second;
}

}  // namespace

CouplerRegistry& couplerRegistry() {
    static CouplerRegistry registry;
    return registry;
}

bool registerCoupler(const std::string& name, const CouplerFactories& factories) {
    return couplerRegistry().emplace(name, factories).second;
}

AnnouncerFactory findAnnouncerFactory(const std::string& name) {
    const CouplerFactories* coupler = findCoupler(name);
    return coupler == nullptr ? nullptr : coupler->createAnnouncer;
}

DiscovererFactory findDiscovererFactory(const std::string& name) {
    const CouplerFactories* coupler = findCoupler(name);
    return coupler == nullptr ? nullptr : coupler->createDiscoverer;
}

}  // namespace tavrin
