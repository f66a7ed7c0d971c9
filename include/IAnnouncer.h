#pragma once

#include "IService.h"
#include "ISubService.h"
#include "Protocol.h"
#include "ServiceInfo.h"
#include "SubServiceInfo.h"
#include "tv_sp.h"

namespace tavrin {

// A coupler's way of publishing services. `protocol` reads the call
// arguments the service receives; a sub-service reads values from clients
// through `clientProtocol` and from its master through `masterProtocol`.
// Results: 0 on success, -1 on failure.
class IAnnouncer {
  public:
    // Coupler objects are deleted through this interface at process exit.
    virtual ~IAnnouncer() = default;
    virtual int publish(ServiceInfo& info, Protocol& protocol, tv_sp<IService>& service) = 0;
    virtual int publish(SubServiceInfo& info, Protocol& clientProtocol, Protocol& masterProtocol,
                        tv_sp<ISubService>& subService) = 0;
};

}  // namespace tavrin
