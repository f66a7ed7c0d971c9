#pragma once

#include <map>
#include <string>

#include "tv_sp.h"
#include "utils/Mutex.h"

namespace tavrin_binder {

class ServiceProxy;

// The process's ServiceProxies, one per service name, so that every bind to
// a service in the process shares one connection. An entry stays from the
// bind that connected its proxy until the death of the service.
//
// One per process, never destroyed: binder threads may still deliver death
// notices while the process exits. Any thread; mLock guards the map only,
// and a removed proxy is released after it.
class ServiceProxyManager {
  public:
    static ServiceProxyManager& self();

    // The proxy registered under `name`, or a handle holding no object.
    tavrin::tv_sp<ServiceProxy> get(const std::string& name);
    // Keeps the first proxy registered under a name.
    void registered(const std::string& name, tavrin::tv_sp<ServiceProxy>& proxy);
    // Removes the entry of `name` if it holds `proxy`: a proxy only ever
    // removes itself.
    void unregistered(const std::string& name, const ServiceProxy* proxy);

  private:
    ServiceProxyManager() = default;

    tavrin::Mutex lock;  // guards proxies
    std::map<std::string, tavrin::tv_sp<ServiceProxy>> proxies;
};

}  // namespace tavrin_binder
