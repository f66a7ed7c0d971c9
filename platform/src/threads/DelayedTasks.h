#pragma once

#include <utils/Errors.h>

#include <chrono>
#include <functional>
#include <map>

#include "base/EventSource.h"
#include "base/Locks.h"
#include "threads/PoolTimer.h"

namespace android {
namespace tvbinder {

class ThreadPool;

// Work posted to the pool once its time has come. It waits on one timer in
// the pool's epoll, never on a sleeping pool thread: a peer that keeps
// refusing the releases sent to it, or a flood that keeps the listener out of
// descriptors, would otherwise hold a pool thread each for as long. The timer
// is armed for the earliest deadline, and only while work waits. Owned by the
// ThreadPool; add() from any thread, onEvent from the pool thread (or the
// thread standing in for one) that takes the timer.
class DelayedTasks final : public EventSource {
  public:
    explicit DelayedTasks(ThreadPool& pool) : mPool(pool) {}

    [[nodiscard]] status_t init() { return mTimer.init(); }
    void add(int delayMs, std::function<void()> work);
    void onEvent(uint32_t events) override;
    // Due work is posted, not run: nothing here waits or runs application code.
    bool onEventStandingIn(uint32_t events) override {
        onEvent(events);
        return true;
    }

  private:
    using Clock = std::chrono::steady_clock;

    void armForEarliest(Clock::time_point now) TV_REQUIRES(mLock);

    ThreadPool& mPool;
    PoolTimer mTimer{mPool, *this};

    Mutex mLock{LockRank::kPoolDelayed};
    std::multimap<Clock::time_point, std::function<void()>> mWaiting TV_GUARDED_BY(mLock);
};

}  // namespace tvbinder
}  // namespace android
