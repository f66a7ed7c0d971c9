#pragma once

#include "IAnnouncer.h"

namespace tavrin {

// The process's entry point for publishing: picks the coupler named by the
// descriptor's `ipc` and forwards the call to it unchanged. Always returns 0;
// a failure shows only in the log. A coupler may keep the calling thread for
// good (the first publish of a service hands it to the binder thread pool).
class Announcer : public IAnnouncer {
  public:
    static Announcer& self();

    Announcer(const Announcer&) = delete;
    Announcer& operator=(const Announcer&) = delete;

    int publish(ServiceInfo& info, Protocol& protocol, tv_sp<IService>& service) override;
    int publish(SubServiceInfo& info, Protocol& clientProtocol, Protocol& masterProtocol,
                tv_sp<ISubService>& subService) override;

  private:
    Announcer();
};

}  // namespace tavrin
