#pragma once

#include <stdint.h>
#include <sys/types.h>
#include <utils/RefBase.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "Connection.h"
#include "EventSource.h"
#include "Frame.h"
#include "TransportFds.h"

namespace android {
namespace tvbinder {

class Runtime;

// Another process, known by its endpoint id. Once its pid is known (from
// SO_PEERCRED of a connection to its endpoint) it is watched through a pidfd
// in the pool's epoll set. Holds the connections this process opened to it:
// idle ones for synchronous calls and one "link" for one-ways and releases,
// so that those arrive in the order they were sent. Once dead, always dead.
class Peer : public RefBase, public EventSource {
  public:
    Peer(Runtime& runtime, uint64_t endpoint);

    Runtime& runtime() const { return mRuntime; }
    uint64_t endpoint() const { return mEndpoint; }
    bool isDead() const { return mDead.load(std::memory_order_acquire); }
    pid_t pid() const;

    // Makes sure the process is watched (connecting to it if needed):
    // DEAD_OBJECT when it cannot be reached.
    status_t ensureWatched();
    // Checks that a connection from `pid` may speak for this endpoint: the
    // process listening on the endpoint's address must be that pid.
    status_t verifyClaim(pid_t pid);

    // An idle connection for a synchronous call, or a new one. `reused` tells
    // which: a reused one may have gone stale since.
    sp<Connection> takeCallConnection(status_t* status, bool* reused);
    void returnCallConnection(const sp<Connection>& connection);
    // Takes a connection made to another address of this process (the
    // context manager's) as an idle call connection.
    status_t adoptCallConnection(const sp<Connection>& connection);
    // Sends a one-way or a release over the link, in order.
    status_t sendOnLink(const OutgoingFrame& frame);

    // After a connection to the peer failed: marks it dead if it is gone.
    void checkAlive();
    // True for the caller that marked it dead first. Drops its connections.
    bool markDead();
    // The pidfd that the pool watches, or -1.
    int pidfd() const;
    void closePidfd();

  private:
    ~Peer() override;
    sp<Connection> connect(bool link, status_t* status);
    status_t attach(pid_t pid);

    Runtime& mRuntime;
    const uint64_t mEndpoint;
    std::atomic<bool> mDead{false};

    mutable std::mutex mLock;  // guards everything below
    pid_t mPid = 0;
    ScopedFd mPidfd;
    std::vector<sp<Connection>> mIdle;
    sp<Connection> mLink;
};

}  // namespace tvbinder
}  // namespace android
