#pragma once

#include "IClient.h"
#include "Protocol.h"
#include "ServiceInfo.h"
#include "SubServiceInfo.h"
#include "tv_sp.h"

namespace tavrin {

// A coupler's way of binding to services. `protocol` reads the results and
// notifications the client receives; `tag` travels with every call of the
// resulting client. A failed bind returns a null object.
class IDiscoverer {
  public:
    // Coupler objects are deleted through this interface at process exit.
    virtual ~IDiscoverer() = default;
    virtual tv_sp<IClient> bindTo(ServiceInfo& info, Protocol& protocol, int tag) = 0;
    // `timeout`: milliseconds the master may wait for the sub-service to register.
    virtual tv_sp<IClient> bindTo(SubServiceInfo& info, Protocol& protocol, int timeout,
                                  int tag) = 0;
};

}  // namespace tavrin
