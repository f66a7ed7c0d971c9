#pragma once

#include <stdint.h>
#include <utils/Errors.h>

#include "base/EventSource.h"
#include "base/TransportFds.h"

namespace android {
namespace tvbinder {

class ThreadPool;

// A one-shot timer in the pool's epoll, for a part that has a pool thread
// woken now and then (its owner, the EventSource it points at). The thread
// that takes its event runs the owner's onEvent, which takes the expiry
// first and gives the timer back to epoll once done. Owned by that part;
// arm() from any thread (under the owner's lock), the rest from the pool
// thread that took the event.
class PoolTimer {
  public:
    PoolTimer(ThreadPool& pool, EventSource& owner) : mPool(pool), mOwner(owner) {}

    [[nodiscard]] status_t init();
    // Fires once, `delayMs` from now: false when the timer could not be set.
    bool arm(int64_t delayMs);
    void takeExpiry();
    void giveBack();

  private:
    ThreadPool& mPool;
    EventSource& mOwner;
    ScopedFd mFd;
};

}  // namespace tvbinder
}  // namespace android
