#pragma once

#include <binder/IBinder.h>
#include <stdint.h>

#include <string>

#include "ISubServiceClient.h"
#include "Protocol.h"

namespace tavrin_binder {

// A handle on one sub-service's binder object, held by a client's
// ServiceProxy or by the master's ServiceCarrier (see SubServiceProxy).
class ISubServiceProxy : public tavrin::ISubServiceClient {
  public:
    virtual android::sp<android::IBinder> getBinder() = 0;
    // Unique in the process once usable; -1 while unusable.
    virtual int getSession() = 0;
    // Reads what comes back from the sub-service.
    virtual tavrin::Protocol& getProtocol() = 0;
    // Stops delivering notifications (its manager is going away).
    virtual void detach() = 0;
    // The sub-service is known to be dead.
    virtual bool hasDied() = 0;
    // Unique within the process (see newProxyIdentity).
    virtual uint64_t getIdentity() = 0;

    // Told that the process of the sub-service `name`, reached through the
    // proxy of `identity`, died. That proxy may be gone already.
    class DeathRecipient {
      public:
        virtual void onSubServiceDied(std::string name, uint64_t identity) = 0;

      protected:
        ~DeathRecipient() = default;
    };
};

}  // namespace tavrin_binder
