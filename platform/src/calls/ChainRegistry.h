#pragma once

#include <stdint.h>
#include <utils/RefBase.h>

#include <atomic>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "base/Locks.h"
#include "base/TransportFds.h"
#include "peers/AcceptedConnection.h"
#include "threads/ThreadPool.h"
#include "wire/Frame.h"

namespace android {
namespace tvbinder {

// A synchronous call handed to a thread that waits for a reply, with the
// connection to answer it on (taken out of epoll until then).
struct HandedCall {
    sp<AcceptedConnection> connection;
    std::unique_ptr<Frame> frame;
};

class ChainMailbox;

// Chains of synchronous calls. Every synchronous transaction carries the id
// of the chain it belongs to: that of the transaction its sender executes,
// else the sending thread's own. While a thread of this process waits for a
// reply, a call of its chain that arrives here from anywhere (A calls B, B
// calls C, C calls A) is handed to it, as the driver's transaction stack
// does, instead of taking a pool thread. Owned by the Runtime; any thread.
class ChainRegistry {
  public:
    // The calling thread waits for a reply in `chain`.
    void enter(uint64_t chain, ChainMailbox* mailbox);
    // It stopped waiting; it serves what was handed to it before it left.
    void leave(uint64_t chain, ChainMailbox* mailbox);
    // True when a thread waits in `chain`: the call (taken out of `frame`)
    // was handed to it.
    [[nodiscard]] bool handOff(uint64_t chain, const sp<AcceptedConnection>& connection,
                               Frame& frame);

  private:
    friend class ChainMailbox;  // its lock is declared to come after the registry's

    struct Waiter {
        uint64_t chain;
        ChainMailbox* mailbox;
        unsigned depth;
    };
    Waiter* find(uint64_t chain) TV_REQUIRES(mLock);

    // Waiters: lets the many processes that never wait skip the lock.
    std::atomic<size_t> mCount{0};
    // Held while a call is put in a waiter's mailbox, so that the waiter
    // cannot leave in between and miss it.
    Mutex mLock{LockRank::kChains};
    // One entry per waiting thread: a short list, searched in place.
    std::vector<Waiter> mWaiters TV_GUARDED_BY(mLock);
};

// Where one thread receives the calls handed to it, and the pool's word that
// it has no free thread left. Owned by its ThreadCalls; filled by pool
// threads, emptied by its owner.
class ChainMailbox : public ThreadPool::StandIn {
  public:
    ChainMailbox();
    // Readable while calls wait. Made on first use: most threads never need it.
    int fd();
    // False in a child made by fork() since: its descriptor is gone.
    bool current() const { return mGeneration == TransportFds::generation(); }
    void put(HandedCall call);
    // The next handed call, or nothing when none waits.
    std::optional<HandedCall> take();
    // Makes fd() readable until the next take().
    void onPoolBusy() override;

  private:
    int eventLocked() TV_REQUIRES(mLock);
    void signalLocked() TV_REQUIRES(mLock);

    const unsigned mGeneration;
    // Makes its eventfd under it: taken before the descriptor registry's.
    Mutex mLock TV_ACQUIRED_AFTER(ChainRegistry::mLock){LockRank::kMailbox};
    ScopedFd mEvent TV_GUARDED_BY(mLock);  // eventfd
    std::deque<HandedCall> mCalls TV_GUARDED_BY(mLock);
    // The eventfd was written since it was last read.
    bool mSignalled TV_GUARDED_BY(mLock) = false;
};

}  // namespace tvbinder
}  // namespace android
