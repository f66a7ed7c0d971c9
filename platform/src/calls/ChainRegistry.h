#pragma once

#include <stdint.h>
#include <utils/RefBase.h>

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "base/TransportFds.h"
#include "wire/Connection.h"
#include "wire/Frame.h"

namespace android {
namespace tvbinder {

// A synchronous call handed to a thread that waits for a reply, with the
// connection to answer it on (taken out of epoll until then).
struct HandedCall {
    sp<Connection> connection;
    std::unique_ptr<Frame> frame;
};

// Where one thread receives the calls handed to it. Owned by its
// IPCThreadState; filled by pool threads, emptied by its owner.
class ChainMailbox {
  public:
    ChainMailbox();
    // Readable while calls wait. Made on first use: most threads never need it.
    int fd();
    // False in a child made by fork() since: its descriptor is gone.
    bool current() const { return mGeneration == TransportFds::generation(); }
    void put(HandedCall call);
    // The next handed call; false when none waits.
    bool take(HandedCall* call);

  private:
    int eventLocked();

    const unsigned mGeneration;
    std::mutex mLock;  // guards everything below
    ScopedFd mEvent;   // eventfd
    std::deque<HandedCall> mCalls;
    bool mSignalled = false;  // the eventfd was written since it was last read
};

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
    // True when a thread waits in `chain`: the call was handed to it.
    bool handOff(uint64_t chain, const sp<Connection>& connection, Frame& frame);

  private:
    struct Waiter {
        uint64_t chain;
        ChainMailbox* mailbox;
        unsigned depth;
    };
    Waiter* find(uint64_t chain);

    // Waiters: lets the many processes that never wait skip the lock.
    std::atomic<size_t> mCount{0};
    std::mutex mLock;
    // One entry per waiting thread: a short list, searched in place.
    std::vector<Waiter> mWaiters;
};

}  // namespace tvbinder
}  // namespace android
