#pragma once

#include <stdint.h>
#include <utils/RefBase.h>

#include <condition_variable>
#include <mutex>
#include <string>

#include "coupler/binder/sub-service/ISubServiceProxy.h"

namespace tavrin_binder {

// Carries the death notices of sub-services to the manager that keeps their
// proxies, for as long as that manager lives. The manager makes one link and
// gives it to each of its proxies; when the manager goes it clears the link,
// which waits for the notices being delivered (none holds a lock meanwhile,
// so that deaths are handled side by side). Shared through sp by the manager
// and the proxies' death recipients. Binder threads; clear on any thread.
class SubServiceDeathLink : public android::RefBase {
  public:
    explicit SubServiceDeathLink(ISubServiceProxy::DeathRecipient* listener);

    // Tells the listener, unless it is gone.
    void subServiceDied(const std::string& name, uint64_t identity);
    // No notice reaches the listener once this returns.
    void clear();

  private:
    std::mutex mLock;  // guards the two fields below
    std::condition_variable mIdle;
    ISubServiceProxy::DeathRecipient* mListener;
    int mDelivering = 0;
};

}  // namespace tavrin_binder
