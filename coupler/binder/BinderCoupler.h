#pragma once

#include "IAnnouncer.h"
#include "IDiscoverer.h"
#include "tv_sp.h"

namespace tavrin_binder {

// The binder coupler's factories, registered under "Binder" when the library
// loads. Each hands out the process's one coupler object, made on first use
// and released at exit.
tavrin::tv_sp<tavrin::IAnnouncer> createAnnouncer();
tavrin::tv_sp<tavrin::IDiscoverer> createDiscoverer();

}  // namespace tavrin_binder
