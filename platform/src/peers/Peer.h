#pragma once

#include <stdint.h>
#include <sys/types.h>
#include <utils/RefBase.h>

#include <atomic>

#include "base/EventSource.h"
#include "base/Locks.h"
#include "base/TransportFds.h"
#include "peers/CallConnections.h"
#include "peers/OutgoingLink.h"
#include "wire/Connection.h"

namespace android {
namespace tvbinder {

class PeerTable;
class ThreadPool;

// Another process, known by its endpoint id: who it is (the pid that serves
// the endpoint, checked by SO_PEERCRED when this process first connects to
// it), how it is watched (a pidfd in the pool's epoll set, which holds a
// reference to the peer until the process exits) and its death. Its
// connections are its parts': the link this process sends its one-ways and
// releases on (OutgoingLink) and idle connections for synchronous calls
// (CallConnections). Made and listed by the PeerTable until it is lost;
// proxies and the connections it opened here keep it alive beyond that. Any
// thread. Once dead, always dead.
class Peer : public RefBase, public EventSource {
  public:
    Peer(PeerTable& table, ThreadPool& pool, Connection::RingSweeper& rings, uint64_t ownEndpoint,
         uint64_t endpoint);

    uint64_t endpoint() const { return mEndpoint; }
    bool isDead() const { return mDead.load(std::memory_order_acquire); }
    pid_t pid() const;
    // False in a child made by fork() since the peer was made: it is its
    // parent's, and the child does not speak for its parent.
    bool ofThisProcess() const { return mGeneration == TransportFds::generation(); }

    OutgoingLink& link() { return mLink; }
    CallConnections& calls() { return mCalls; }

    // Makes sure the process is watched (connecting to it if needed):
    // DEAD_OBJECT when it cannot be reached.
    [[nodiscard]] status_t ensureWatched();
    // Checks that a connection from `pid` may speak for this endpoint: the
    // process listening on the endpoint's address must be that pid.
    [[nodiscard]] status_t verifyClaim(pid_t pid);
    struct Connected {
        sp<Connection> connection;  // null on failure
        status_t status = NO_ERROR;
    };
    // A connection to the endpoint, served by the peer's process and
    // introduced (HELLO, as a link or for calls). A link never waits for
    // room in the peer's backlog.
    [[nodiscard]] Connected connect(bool asLink);
    // Learns the peer's pid from a connection made to another of its
    // addresses (the context manager's) and starts watching it.
    [[nodiscard]] status_t attach(pid_t pid);

    // After a connection to the peer failed or closed: the peer is lost when
    // its endpoint no longer accepts connections, now or within some 30 ms
    // (probed again by a pool task).
    void checkAlive();
    // The peer is gone (exited, exec'd, or its endpoint refuses us): the
    // first call marks it dead, closes its connections and has the PeerTable
    // forget it and tell what follows a death.
    void lost();
    // Once dead: its process no longer counts this endpoint (once).
    void releaseEndpointShare();
    // A new descriptor (O_CLOEXEC) for the pidfd, or -1 once it is closed.
    int dupPidfd() const;

    // Pool thread: the pidfd fired, the process exited.
    void onEvent(uint32_t events) override;
    // What follows a death is posted: a thread waiting for a reply may note it.
    bool onEventStandingIn(uint32_t events) override {
        onEvent(events);
        return true;
    }

  private:
    friend class PeerTable;  // its lock is declared to come after the peer's

    ~Peer() override;
    void probeAgain();
    // True for the caller that marked it dead first.
    bool markDead();

    PeerTable& mTable;
    ThreadPool& mPool;
    Connection::RingSweeper& mRings;
    const uint64_t mOwnEndpoint;
    const uint64_t mEndpoint;
    const unsigned mGeneration;
    std::atomic<bool> mDead{false};
    std::atomic<bool> mProbing{false};  // a probe is posted or running
    std::atomic<bool> mCountedForPid{false};
    OutgoingLink mLink;
    CallConnections mCalls;

    // Taken before the PeerTable's: the process's endpoints are counted
    // while the pid is set, so that two threads never both count it.
    mutable Mutex mLock{LockRank::kPeer};
    pid_t mPid TV_GUARDED_BY(mLock) = 0;
    ScopedFd mPidfd TV_GUARDED_BY(mLock);
};

}  // namespace tvbinder
}  // namespace android
