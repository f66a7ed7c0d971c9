#pragma once

#include <stddef.h>
#include <stdint.h>
#include <utils/Errors.h>

#include <atomic>
#include <deque>
#include <functional>
#include <vector>

#include "base/EventSource.h"
#include "base/Locks.h"
#include "base/TransportFds.h"
#include "threads/DelayedTasks.h"
#include "threads/PoolTask.h"
#include "threads/PoolTimer.h"

namespace android {
namespace tvbinder {

// The threads that receive work: each waits in epoll_wait on the process's
// listeners, connections, links and watched peers, all registered one-shot so
// that exactly one thread takes each event (EventSource) and re-arms the
// source when it is done with it; only that thread may unregister it. When
// the last waiting thread takes an event the pool spawns another, up to its
// maximum. Work that is not an event (queued one-ways, death notices,
// deferred releases) is posted as tasks: pool threads run them in the order
// posted, woken through an eventfd. A thread waiting for a reply stands in
// for the pool while no pool thread is free (standIn). A thread done with a
// source may linger on it with no timer of its own; the pool ends lingers
// (beginLinger). Owned by the Runtime; any thread.
class ThreadPool {
  public:
    static constexpr size_t kDefaultMaxThreads = 15;

    // A thread waiting for a reply that takes events itself while no pool
    // thread is free. Listed while it waits; its owner keeps it alive.
    class StandIn {
      public:
        // The last free pool thread took work: watch epoll from now on.
        // Called under the pool's lock: must not wait.
        virtual void onPoolBusy() = 0;

      protected:
        virtual ~StandIn() = default;
    };

    // A pool thread that waits for the next frame of the source it just
    // served with no timer of its own ("lingers"): arming a timer costs more
    // than the rest of a round trip on one CPU. The pool stops it.
    class Lingerer {
      public:
        // Ends the wait, from another thread, once. Called under the pool's
        // linger lock: must not wait.
        virtual void stopLingering() = 0;

      protected:
        virtual ~Lingerer() = default;
    };
    // The pool ticks this often while a thread lingers; a linger ends at the
    // second tick after it began, so it lasts one to two periods. Each tick
    // wakes a thread: a stream of calls a millisecond apart keeps lingering,
    // and pays a tick every tenth call.
    static constexpr int kLingerTickMs = 10;

    ThreadPool() = default;

    [[nodiscard]] status_t init();
    void add(EventSource* source, int fd);
    // `writable`: also wake when the descriptor can be written to.
    void rearm(EventSource* source, int fd, bool writable = false);
    void remove(int fd);

    // Queues `task`. With `wake`, an idle pool thread is woken for it; a pool
    // thread that runs the queue itself next (runPosted) need not wake one.
    void post(const sp<PoolTask>& task, bool wake = true);
    // Posts `work` some `delayMs` from now (DelayedTasks): no thread waits
    // meanwhile.
    void postAfter(int delayMs, std::function<void()> work) {
        mDelayed.add(delayMs, std::move(work));
    }
    // Runs posted tasks until none is left, waking another idle thread while
    // more wait, so that tasks do not wait for each other.
    void runPosted();
    // Sequentially consistent, as are the counts of idle threads: a pool
    // thread going idle and a stand-in that took its wake-up see each other.
    bool hasPostedTasks() const { return mPostedCount.load() > 0; }
    bool started() const;

    // Spawns the main pool thread, once.
    void start();
    void setMaxThreads(size_t maxThreads);
    size_t maxThreads() const;
    // True while some pool thread waits for work.
    bool hasIdleThreads() const { return mWaiting.load() > 0; }
    // Runs the calling thread as a pool thread. Never returns.
    void join(bool isMain);

    // Lists `lingerer` until endLinger(): the pool stops it once it has
    // lingered a tick period, or at once when the last thread waiting in
    // epoll takes work and no other can be spawned. False, and nothing listed,
    // when no other thread waits for work: the caller must not linger then.
    [[nodiscard]] bool beginLinger(Lingerer* lingerer);
    // The lingerer no longer waits: it is not stopped again.
    void endLinger(Lingerer* lingerer);

    // Readable while an event waits: what a stand-in watches.
    int readableFd() const { return mEpoll.get(); }
    void addStandIn(StandIn* standIn);
    void removeStandIn(StandIn* standIn);
    // Takes one waiting event, if any, for the calling thread, which waits
    // for a reply: it handles what runs no application code
    // (EventSource::onEventStandingIn) and posts the rest for pool threads,
    // the source staying out of epoll until then, so that nothing is lost or
    // reordered.
    void standIn();

  private:
    // The eventfd that wakes a thread for posted tasks.
    class Wake : public EventSource {
      public:
        explicit Wake(ThreadPool& pool) : mPool(pool) {}
        void onEvent(uint32_t events) override;

      private:
        ThreadPool& mPool;
    };
    // The timer that ticks every kLingerTickMs while a thread lingers: one
    // timer for all lingers, armed when the first begins.
    class LingerTicker : public EventSource {
      public:
        explicit LingerTicker(ThreadPool& pool) : mPool(pool) {}
        void onEvent(uint32_t events) override;
        bool onEventStandingIn(uint32_t events) override;

      private:
        ThreadPool& mPool;
    };
    struct Lingering {
        Lingerer* lingerer;
        uint64_t sinceTick;
        bool stopped;
    };

    // False, logged, when no thread can be started.
    bool spawn(bool isMain);
    // A waiting pool thread took work. The last one tells the stand-ins and
    // spawns another, up to the maximum.
    void onEventTaken();
    void wakeOne();
    sp<PoolTask> takePosted();
    // Takes the posted tasks that a stand-in may run, out of turn (each
    // concerns a source that nothing else touches until it ran), and runs
    // them.
    void runPostedStandingIn();
    void tickLingers();
    void stopAllLingers();
    void stop(Lingering& lingering) TV_REQUIRES(mLingerLock);
    bool setTicking(bool ticking) TV_REQUIRES(mLingerLock);

    ScopedFd mEpoll;
    ScopedFd mWakeFd;  // eventfd, registered one-shot
    Wake mWake{*this};
    LingerTicker mTicker{*this};
    PoolTimer mTickTimer{*this, mTicker};
    DelayedTasks mDelayed{*this};
    std::atomic<int> mWaiting{0};
    std::atomic<size_t> mPostedCount{0};
    std::atomic<bool> mSpawnFailing{false};  // since the last thread started

    Mutex mTaskLock{LockRank::kPoolTasks};
    std::deque<sp<PoolTask>> mPosted TV_GUARDED_BY(mTaskLock);

    mutable Mutex mLock{LockRank::kPoolThreads};
    bool mStarted TV_GUARDED_BY(mLock) = false;
    size_t mMaxThreads TV_GUARDED_BY(mLock) = kDefaultMaxThreads;
    size_t mSpawned TV_GUARDED_BY(mLock) = 0;
    size_t mNamed TV_GUARDED_BY(mLock) = 0;
    std::vector<StandIn*> mStandIns TV_GUARDED_BY(mLock);

    Mutex mLingerLock{LockRank::kPoolLingers};
    std::vector<Lingering> mLingering TV_GUARDED_BY(mLingerLock);
    uint64_t mTicks TV_GUARDED_BY(mLingerLock) = 0;
    bool mTicking TV_GUARDED_BY(mLingerLock) = false;
};

}  // namespace tvbinder
}  // namespace android
