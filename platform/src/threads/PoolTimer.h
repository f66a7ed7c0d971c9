#pragma once

#include <stdint.h>
#include <utils/Errors.h>

#include "base/EventSource.h"
#include "base/TransportFds.h"

namespace android {
namespace tvbinder {

class ThreadPool;

// A timer in the pool's epoll, for a part that has a pool thread woken now
// and then (its owner, the EventSource it points at). The thread that takes
// its event runs the owner's onEvent, which takes the expiry first and gives
// the timer back to epoll once done. Owned by that part; arm() and repeat()
// from any thread (under the owner's lock), the rest from the pool thread
// that took the event.
class PoolTimer {
  public:
    PoolTimer(ThreadPool& pool, EventSource& owner) : mPool(pool), mOwner(owner) {}

    [[nodiscard]] status_t init();
    // Fires once, `delayMs` from now: false when the timer could not be set.
    bool arm(int64_t delayMs) { return set(delayMs, 0); }
    // Fires every `periodMs` from now on; 0 stops it. False as arm().
    bool repeat(int64_t periodMs) { return set(periodMs, periodMs); }
    void takeExpiry();
    void giveBack();

  private:
    bool set(int64_t firstMs, int64_t periodMs);

    ThreadPool& mPool;
    EventSource& mOwner;
    ScopedFd mFd;
};

}  // namespace tvbinder
}  // namespace android
