#pragma once

#include <map>
#include <string>

#include "IAnnouncer.h"
#include "IDiscoverer.h"
#include "tv_sp.h"

namespace tavrin {

using AnnouncerFactory = tv_sp<IAnnouncer> (*)();
using DiscovererFactory = tv_sp<IDiscoverer> (*)();

// How to reach one coupler's objects.
struct CouplerFactories {
    AnnouncerFactory createAnnouncer;
    DiscovererFactory createDiscoverer;
};

// IPC name (compared byte-wise, case-sensitive) -> coupler.
using CouplerRegistry = std::map<std::string, CouplerFactories>;

// The process's registry, built empty on first use. Written only while the
// library loads, before application threads can reach it; read without a
// lock afterwards.
CouplerRegistry& couplerRegistry();

// Adds `name` unless it is already registered: the first registration wins.
// Returns whether the factories were added.
bool registerCoupler(const std::string& name, const CouplerFactories& factories);

// Null when no coupler is registered under `name`.
AnnouncerFactory findAnnouncerFactory(const std::string& name);
DiscovererFactory findDiscovererFactory(const std::string& name);

}  // namespace tavrin
