#pragma once

#include <atomic>

#include "IAnnouncer.h"

namespace tavrin_binder {

// The binder coupler's way of publishing: registers a service's carrier with
// the service manager, or activates the process's sub-service carrier, and
// starts the process's binder thread pool on the first publish that gets
// that far. The first publish of a service hands its thread to the pool for
// good; a sub-service publish returns.
//
// One per process, made by the coupler's factory and held by its static
// tv_sp until exit. Any application thread, several at once.
class Announcer_Binder : public tavrin::IAnnouncer {
  public:
    Announcer_Binder() = default;

    // 0 (the first successful call does not return); -1 when the service
    // manager refuses the name: the carrier made for it is released, and
    // with it the INotifier it gave the service.
    int publish(tavrin::ServiceInfo& info, tavrin::Protocol& protocol,
                tavrin::tv_sp<tavrin::IService>& service) override;
    // 0, or -1 when the sub-service could not register with its master.
    int publish(tavrin::SubServiceInfo& info, tavrin::Protocol& clientProtocol,
                tavrin::Protocol& masterProtocol,
                tavrin::tv_sp<tavrin::ISubService>& subService) override;

  private:
    // Starts the pool and joins it: never returns.
    void startServices();

    std::atomic<bool> mStarted{false};
};

}  // namespace tavrin_binder
