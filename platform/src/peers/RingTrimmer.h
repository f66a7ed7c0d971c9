#pragma once

#include <utils/Errors.h>
#include <utils/RefBase.h>

#include <vector>

#include "base/EventSource.h"
#include "base/Locks.h"
#include "threads/PoolTimer.h"
#include "wire/Connection.h"

namespace android {
namespace tvbinder {

class ThreadPool;

// Gives back the shared memory that large frames made resident once their
// connection has been idle a while: a ring that carried a megabyte keeps it
// otherwise for as long as the connection lives. Connections are listed when
// a send widens their ring and swept by the pool thread that takes this
// timer, every second while any is listed; the timer is disarmed otherwise,
// so that an idle process is not woken. Before the pool starts the timer
// waits in its epoll for the first thread; meanwhile the list drops the
// connections that closed whenever it has doubled. Holds them weakly: one its
// owners dropped closes at once. Owned by the Runtime; any thread lists, pool
// threads (or a thread standing in for them) sweep.
class RingTrimmer final : public EventSource, public Connection::RingSweeper {
  public:
    explicit RingTrimmer(ThreadPool& pool) : mPool(pool) {}

    [[nodiscard]] status_t init() { return mTimer.init(); }
    void sweepLater(const wp<Connection>& connection) override;
    void onEvent(uint32_t events) override;
    // A sweep waits for nothing and runs no application code.
    bool onEventStandingIn(uint32_t events) override {
        onEvent(events);
        return true;
    }

  private:
    static constexpr size_t kFirstPrune = 64;

    // Drops the listed connections that closed; the others go to `alive`, to
    // be released after the lock, since a last reference closes one.
    void pruneClosed(std::vector<sp<Connection>>* alive) TV_REQUIRES(mLock);

    ThreadPool& mPool;
    PoolTimer mTimer{mPool, *this};

    Mutex mLock{LockRank::kRingTrimmer};
    std::vector<wp<Connection>> mListed TV_GUARDED_BY(mLock);
    bool mTimerArmed TV_GUARDED_BY(mLock) = false;
    size_t mPruneAt TV_GUARDED_BY(mLock) = kFirstPrune;
};

}  // namespace tvbinder
}  // namespace android
