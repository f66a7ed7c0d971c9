#pragma once

#include <stdint.h>
#include <utils/RefBase.h>

#include <memory>
#include <unordered_map>

#include "base/EventSource.h"
#include "base/Locks.h"
#include "base/Token.h"
#include "wire/Connection.h"
#include "wire/LinkCredit.h"

namespace android {
namespace tvbinder {

class Peer;
class ThreadPool;

// This process's link to one peer: the one connection that carries its
// one-ways and releases there, so that they arrive in the order sent. Each
// one-way is counted against the credit the peer's budget leaves the link
// (LinkCredit, per connection) before it is sent, and refused when none is
// left within a few milliseconds. Releases wait here until they can be sent
// without blocking. While up, the link is registered in the pool's epoll
// set: it brings the peer's acknowledgements, its hang-up tells that the
// peer's endpoint closed (exit, or exec), and it wakes a pool thread when
// waiting releases can be written. Part of its Peer; the registration holds
// the peer. Any thread.
class OutgoingLink : public EventSource {
  public:
    OutgoingLink(Peer& peer, ThreadPool& pool);

    // Makes the link if there is none (connecting: a pool thread may do
    // so); DEAD_OBJECT when the peer cannot be reached.
    [[nodiscard]] status_t open();
    // Sends a one-way. FAILED_TRANSACTION, within a few milliseconds, when
    // the receiver's budget for this link stays spent; the one-way is then
    // not sent. A one-way sent is delivered.
    [[nodiscard]] status_t sendOneWay(const OutgoingFrame& frame);
    // Gives `count` references back to the peer. Never blocks: what cannot
    // leave at once is sent by a pool thread, when the link is writable or a
    // little later.
    void sendRelease(const Token& token, uint64_t count);
    // The peer died: waiting releases go, and the link is shut down.
    void close();

    // Pool thread: `events` on the link.
    void onEvent(uint32_t events) override;

  private:
    // One link connection and the credit that goes with it.
    struct End {
        sp<Connection> connection;
        std::shared_ptr<LinkCredit> credit;
        explicit operator bool() const { return connection != nullptr; }
    };
    struct Opened {
        End end;
        status_t status = NO_ERROR;
    };

    End current();
    Opened obtain();
    // Pool thread handling the link's hang-up (or any thread without a
    // pool): unregisters it and forgets it.
    void drop(const End& end);
    // Takes the one-way's cost from the credit, waiting a few milliseconds
    // for acknowledgements when it is spent.
    bool takeCredit(const End& end, uint64_t cost);
    // Reads the acknowledgements that wait on the link.
    void readAcks(const End& end);
    // Sends waiting releases without blocking; false when some still wait.
    bool trySendReleases(Connection& connection);
    void rearm(const End& end);
    // Sends the releases that wait (a posted task; may connect), or tries
    // again later.
    void flushReleases();
    // The link could not be made: flushReleases() again a little later.
    void retryReleasesLater();

    Peer& mPeer;
    ThreadPool& mPool;

    Mutex mLock{LockRank::kOutgoingLink};
    // Registered in epoll; replaced only after the pool dropped it.
    End mEnd TV_GUARDED_BY(mLock);
    std::unordered_map<Token, uint64_t, TokenHash> mPendingReleases TV_GUARDED_BY(mLock);
    bool mFlushPosted TV_GUARDED_BY(mLock) = false;
    bool mReleasesDropped TV_GUARDED_BY(mLock) = false;
    int mReleaseRetries TV_GUARDED_BY(mLock) = 0;
};

}  // namespace tvbinder
}  // namespace android
