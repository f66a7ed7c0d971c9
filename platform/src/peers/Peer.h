#pragma once

#include <stdint.h>
#include <sys/types.h>
#include <utils/RefBase.h>

#include <atomic>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "base/EventSource.h"
#include "base/Token.h"
#include "base/TransportFds.h"
#include "wire/Connection.h"
#include "wire/Frame.h"

namespace android {
namespace tvbinder {

class Runtime;

// Another process, known by its endpoint id. Once its pid is known (from
// SO_PEERCRED of a connection to its endpoint) it is watched through a pidfd
// in the pool's epoll set, which then holds a reference to it until the
// process exits. Holds the connections this process opened to it: idle ones
// for synchronous calls and one "link" for one-ways and releases, so that
// those arrive in the order they were sent. The link is in the epoll set too:
// it brings the peer's acknowledgements of one-ways, and its hang-up tells
// that the peer's endpoint closed (exit, or exec). Listed in the PeerTable
// until it is lost; proxies and connections keep it alive beyond that. Used
// from every thread. Once dead, always dead.
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

    // Sends a one-way over the link. FAILED_TRANSACTION, within a few
    // milliseconds, when the receiver's budget for this link stays spent;
    // the one-way is then not sent. A one-way sent is delivered.
    status_t sendOneWay(const OutgoingFrame& frame);
    // Gives `count` references back to the peer. Never blocks: what cannot
    // leave at once is sent by a pool thread, when the link is writable or a
    // little later.
    void sendRelease(const Token& token, uint64_t count);
    // Pool thread: `events` on this process's link to the peer.
    void onLinkEvent(const sp<Connection>& link, uint32_t events);
    // Sends the releases that wait (a posted task; may connect), or tries
    // again later.
    void flushReleases();

    // After a connection to the peer failed or closed: the peer is lost when
    // its endpoint no longer accepts connections, now or within some 30 ms
    // (probed again by a pool task).
    void checkAlive();
    void probeAgain();
    // True for the caller that marked it dead first. Closes its connections.
    bool markDead();
    // Once dead: its process no longer counts this endpoint (once).
    void releaseEndpointShare();
    // The pidfd that the pool watches, or -1.
    int pidfd() const;
    void closePidfd();
    // A new descriptor (O_CLOEXEC) for that pidfd, or -1 once it is closed.
    int dupPidfd() const;

  private:
    ~Peer() override;
    sp<Connection> connect(bool link, status_t* status);
    status_t attach(pid_t pid);
    sp<Connection> currentLink();
    sp<Connection> obtainLink(status_t* status);
    // Pool thread handling the link's hang-up (or any thread without a
    // pool): unregisters it and forgets it.
    void dropLink(const sp<Connection>& link);
    // Takes a share of the receiver's budget, waiting a few milliseconds for
    // acknowledgements when it is spent.
    bool reserveBudget(Connection& link, uint64_t cost);
    // Reads the acknowledgements that wait on the link.
    void readAcks(Connection& link);
    // Sends waiting releases without blocking; false when some still wait.
    bool trySendReleases(Connection& link);
    void rearmLink(const sp<Connection>& link);
    // The link could not be made: flushReleases() again a little later.
    void retryReleasesLater();

    Runtime& mRuntime;
    const uint64_t mEndpoint;
    std::atomic<bool> mDead{false};
    std::atomic<bool> mProbing{false};  // a DeathProbe is posted or running
    std::atomic<bool> mCountedForPid{false};

    mutable std::mutex mLock;  // guards everything below
    pid_t mPid = 0;
    ScopedFd mPidfd;
    std::vector<sp<Connection>> mIdle;
    // Registered in epoll; replaced only after the pool dropped it.
    sp<Connection> mLink;
    std::unordered_map<Token, uint64_t, TokenHash> mPendingReleases;
    bool mFlushPosted = false;
    bool mReleasesDropped = false;
    int mReleaseRetries = 0;
};

}  // namespace tvbinder
}  // namespace android
