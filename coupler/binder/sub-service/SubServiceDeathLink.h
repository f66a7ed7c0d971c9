#pragma once

#include <utils/RefBase.h>

#include <string>

#include "coupler/binder/sub-service/ISubServiceProxy.h"
#include "utils/Mutex.h"

namespace tavrin_binder {

// Carries the death notices of sub-services to the manager that keeps their
// proxies, for as long as that manager lives. The manager makes one link and
// gives it to each of its proxies; when the manager goes it clears the link,
// after the notice being delivered (if any) has been handled. Shared through
// sp by the manager and the proxies' death recipients. Binder threads.
class SubServiceDeathLink : public android::RefBase {
  public:
    explicit SubServiceDeathLink(ISubServiceProxy::DeathRecipient* listener);

    // Tells the listener, unless it is gone.
    void subServiceDied(const std::string& name, const ISubServiceProxy* proxy);
    void clear();

  private:
    tavrin::Mutex mLock;  // held while the listener is told, so that clear() waits for it
    ISubServiceProxy::DeathRecipient* mListener;
};

}  // namespace tavrin_binder
