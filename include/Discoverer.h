#pragma once

#include "IDiscoverer.h"

namespace tavrin {

// The process's entry point for binding: picks the coupler named by the
// descriptor's `ipc` and forwards the call to it unchanged.
class Discoverer : public IDiscoverer {
  public:
    static Discoverer& self();

    Discoverer(const Discoverer&) = delete;
    Discoverer& operator=(const Discoverer&) = delete;

    // A null object when no coupler is registered under `info.ipc`.
    tv_sp<IClient> bindTo(ServiceInfo& info, Protocol& protocol, int tag) override;
    tv_sp<IClient> bindTo(SubServiceInfo& info, Protocol& protocol, int timeout, int tag) override;

  private:
    Discoverer();
};

}  // namespace tavrin
