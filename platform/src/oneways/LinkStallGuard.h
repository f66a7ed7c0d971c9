#pragma once

#include <stdint.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

#include <unordered_map>
#include <utility>

#include "base/EventSource.h"
#include "base/Locks.h"
#include "peers/AcceptedConnection.h"
#include "threads/PoolTimer.h"

namespace android {
namespace tvbinder {

class AcceptedConnections;
class ThreadPool;

// A pool thread that read one-ways from a link runs them and then reads the
// link again, without handing it back to epoll in between: a stream then
// costs no wake-ups and no re-arming. While it runs them the link is "held".
// A handler may wait for a later one-way of that same link (to another
// object): so a link held for longer than a few milliseconds is taken back
// here, by the pool thread that gets this guard's timer, and handed to epoll,
// where another pool thread reads on. Owned by the Runtime; pool threads.
class LinkStallGuard : public EventSource {
  public:
    LinkStallGuard(ThreadPool& pool, AcceptedConnections& accepted)
        : mPool(pool), mAccepted(accepted) {}

    [[nodiscard]] status_t init() { return mTimer.init(); }
    // The calling thread holds `link` (taken from epoll) while it runs what
    // it read.
    void hold(const sp<AcceptedConnection>& link);
    // The handlers ran: true when the thread still held the link (it may
    // read it again, and hands it back to epoll itself), false when it was
    // taken back meanwhile.
    [[nodiscard]] bool release(const sp<AcceptedConnection>& link);
    // Pool thread: the timer fired.
    void onEvent(uint32_t events) override;

  private:
    void armTimer() TV_REQUIRES(mLock);

    ThreadPool& mPool;
    AcceptedConnections& mAccepted;
    PoolTimer mTimer{mPool, *this};

    Mutex mLock{LockRank::kStallGuard};
    // Each held link, and since when (ms).
    std::unordered_map<AcceptedConnection*, std::pair<sp<AcceptedConnection>, int64_t>> mHeld
        TV_GUARDED_BY(mLock);
    bool mTimerArmed TV_GUARDED_BY(mLock) = false;
};

}  // namespace tvbinder
}  // namespace android
