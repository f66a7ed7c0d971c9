#pragma once

#include <mutex>
#include <string>

#include "IDiscoverer.h"
#include "coupler/binder/SharedAttempts.h"
#include "tv_sp.h"

namespace tavrin_binder {

class ServiceProxy;

// The binder coupler's way of binding: finds or connects the process's
// ServiceProxy of the service (or of a sub-service's master), obtains the
// sub-service from the master when asked for one, starts the client thread
// pool once, and returns a new client handle.
//
// One per process, made by the coupler's factory and held by its static
// tv_sp until exit. Any user thread: first binds to one service that run at
// the same time share one connection attempt and its outcome; binds to other
// services go on meanwhile.
class Discoverer_Binder : public tavrin::IDiscoverer {
  public:
    Discoverer_Binder() = default;

    tavrin::tv_sp<tavrin::IClient> bindTo(tavrin::ServiceInfo& info, tavrin::Protocol& protocol,
                                          int tag) override;
    tavrin::tv_sp<tavrin::IClient> bindTo(tavrin::SubServiceInfo& info, tavrin::Protocol& protocol,
                                          int timeout, int tag) override;

  private:
    using Connects = SharedAttempts<tavrin::tv_sp<ServiceProxy>>;

    // The registered proxy of `serviceName`, connected now if there is none;
    // null (after logging `failure` with the service name) when it cannot
    // connect.
    tavrin::tv_sp<ServiceProxy> proxyFor(const std::string& serviceName,
                                         const std::string& loggedName, tavrin::Protocol& protocol,
                                         const char* failure);
    // A new proxy of `serviceName`, connected and registered; null when it
    // cannot connect.
    tavrin::tv_sp<ServiceProxy> connect(const std::string& serviceName,
                                        const std::string& loggedName, tavrin::Protocol& protocol);
    void startProxy();

    std::once_flag started;
    Connects mConnects;  // keyed by service name
};

}  // namespace tavrin_binder
