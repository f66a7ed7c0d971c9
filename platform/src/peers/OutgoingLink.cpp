#define LOG_TAG "tvbinder"

#include "peers/OutgoingLink.h"

#include <log/log.h>
#include <sys/epoll.h>

#include "base/Clock.h"
#include "base/LogLimit.h"
#include "peers/Peer.h"
#include "threads/ThreadPool.h"

namespace android {
namespace tvbinder {

namespace {

// How long a one-way waits for the receiver to acknowledge room, and for
// room in the link's socket, before it is refused.
constexpr int kOneWayWaitMs = 5;
// A sender reads the acknowledgements itself once this much is outstanding,
// so that they never pile up unread in a process without a pool.
constexpr uint64_t kReadAcksAbove = kOneWayBudget / 2;
// Frames read from the link per acknowledgement pass.
constexpr size_t kAckBatch = 16;
// A peer whose listener has no room for a link is tried again this much
// later, then twice as late, a few times, before its releases are dropped.
constexpr int kFirstReleaseRetryMs = 5;
constexpr int kMaxReleaseRetries = 8;
// Objects whose releases may wait for a peer that does not read its link;
// releases of further objects are dropped (the peer keeps them alive).
constexpr size_t kMaxPendingReleases = 65536;

}  // namespace

OutgoingLink::OutgoingLink(Peer& peer, ThreadPool& pool) : mPeer(peer), mPool(pool) {}

OutgoingLink::End OutgoingLink::current() {
    LockGuard guard(mLock);
    return mEnd;
}

OutgoingLink::Opened OutgoingLink::obtain() {
    if (End end = current()) return {end, NO_ERROR};
    Peer::Connected made = mPeer.connect(true);
    if (made.connection == nullptr) return {{}, made.status};
    End fresh{made.connection, std::make_shared<LinkCredit>()};
    LockGuard guard(mLock);
    if (mEnd) return {mEnd, NO_ERROR};  // another thread won; ours closes
    if (mPeer.isDead()) return {{}, DEAD_OBJECT};
    mEnd = fresh;
    // Registered with the link published, so that drop() always follows;
    // the registration holds the peer.
    mPeer.incStrong(this);
    // Acknowledgements read before epoll tells are read by the sender itself.
    (void)fresh.connection->prepareToPoll();
    mPool.add(this, fresh.connection->fd());
    return {fresh, NO_ERROR};
}

status_t OutgoingLink::open() {
    return obtain().status;
}

void OutgoingLink::drop(const End& end) {
    {
        LockGuard guard(mLock);
        if (mEnd.connection != end.connection) return;
        mEnd = {};
    }
    end.connection->markBroken();
    mPool.remove(end.connection->fd());
    mPeer.decStrong(this);  // may be the last: nothing of this after it
}

void OutgoingLink::onEvent(uint32_t events) {
    const sp<Peer> keep(&mPeer);  // the registration's reference goes with drop()
    const End end = current();
    if (!end) return;
    if ((events & EPOLLIN) != 0) readAcks(end);
    if (end.connection->broken() || (events & (EPOLLHUP | EPOLLRDHUP | EPOLLERR)) != 0) {
        drop(end);
        mPeer.checkAlive();
        return;
    }
    if ((events & EPOLLOUT) != 0) trySendReleases(*end.connection);
    rearm(end);
}

void OutgoingLink::rearm(const End& end) {
    bool waiting;
    {
        LockGuard guard(mLock);
        if (mEnd.connection != end.connection) return;
        waiting = !mPendingReleases.empty();
    }
    if (end.connection->prepareToPoll()) {
        // An acknowledgement came in shared memory that no wake-up will tell.
        const sp<Peer> keep(&mPeer);
        mPool.post(new WorkTask([keep, this] { onEvent(EPOLLIN); }));
        return;
    }
    mPool.rearm(this, end.connection->fd(), waiting);
}

void OutgoingLink::close() {
    End end;
    {
        LockGuard guard(mLock);
        end = mEnd;
        mPendingReleases.clear();
    }
    if (!end) return;
    // Its hang-up reaches the pool thread that unregisters it.
    end.connection->shutDown();
    if (!mPool.started()) drop(end);
}

// ---- One-ways ----

void OutgoingLink::readAcks(const End& end) {
    Connection& connection = *end.connection;
    for (;;) {
        Frame frames[kAckBatch];
        status_t statuses[kAckBatch];
        const size_t count = connection.receiveWaiting(frames, statuses, kAckBatch);
        for (size_t i = 0; i < count; ++i) {
            status_t status = statuses[i] == NO_ERROR ? frames[i].validate() : statuses[i];
            if (status == NO_ERROR && frames[i].kind() != FrameKind::kAck) status = BAD_VALUE;
            if (status != NO_ERROR) {
                if (status != DEAD_OBJECT) {
                    TV_ALOGW_LIMITED("malformed frame from pid %d", connection.peerPid());
                }
                connection.markBroken();
                return;
            }
            end.credit->onAck(frames[i].header.argument);
        }
        if (count < kAckBatch) return;
    }
}

bool OutgoingLink::takeCredit(const End& end, uint64_t cost) {
    int64_t deadline = 0;
    bool asked = false;
    for (;;) {
        if (const std::optional<uint64_t> before = end.credit->tryTake(cost)) {
            if (*before > kReadAcksAbove) readAcks(end);
            return true;
        }
        readAcks(end);
        if (end.connection->broken()) return false;
        if (deadline == 0) {
            deadline = monotonicMs() + kOneWayWaitMs;
            continue;  // what was just read may be enough
        }
        if (!asked) {
            asked = true;
            // Not sent, the request changes nothing: the wait below runs out.
            (void)end.connection->send(OutgoingFrame::make(FrameKind::kAckRequest), 0);
        }
        if (deadline - monotonicMs() <= 0) return false;
        // The pool may read the acknowledgement first: checked again at once.
        (void)end.connection->waitReadable(1);
    }
}

status_t OutgoingLink::sendOneWay(const OutgoingFrame& frame) {
    const Opened opened = obtain();
    if (!opened.end) return opened.status;
    const End& end = opened.end;
    Connection& connection = *end.connection;
    const uint64_t cost = oneWayCost(frame.header.dataSize, frame.fds.size());
    if (!takeCredit(end, cost)) {
        if (connection.broken()) return mPeer.isDead() ? DEAD_OBJECT : FAILED_TRANSACTION;
        TV_ALOGW_LIMITED("one-way to pid %d refused: its queue for this process is full",
                         connection.peerPid());
        return FAILED_TRANSACTION;
    }
    const status_t status = connection.send(frame, kOneWayWaitMs);
    if (status == NO_ERROR) return NO_ERROR;
    end.credit->giveBack(cost);
    if (status == WOULD_BLOCK) {
        TV_ALOGW_LIMITED("one-way to pid %d refused: its connection is full", connection.peerPid());
        return FAILED_TRANSACTION;
    }
    connection.markBroken();
    if (!mPool.started()) drop(end);
    mPeer.checkAlive();
    return mPeer.isDead() ? DEAD_OBJECT : FAILED_TRANSACTION;
}

// ---- Releases ----

void OutgoingLink::sendRelease(const Token& token, uint64_t count) {
    if (mPeer.isDead()) return;
    bool post = false;
    bool dropping = false;
    End end;
    {
        LockGuard guard(mLock);
        if (mPendingReleases.size() >= kMaxPendingReleases &&
            mPendingReleases.find(token) == mPendingReleases.end()) {
            dropping = !mReleasesDropped;
            mReleasesDropped = true;
        } else {
            mPendingReleases[token] += count;
            if (!mEnd && !mFlushPosted) post = mFlushPosted = true;
            end = mEnd;
        }
    }
    if (dropping) ALOGW("pid %d does not take its releases: dropping some", mPeer.pid());
    if (end) {
        // Only the pool thread that holds the link's event may re-arm it: the
        // rest waits for a later try.
        if (!trySendReleases(*end.connection)) retryReleasesLater();
        return;
    }
    // Connecting may take a moment: a pool thread does it.
    if (!post) return;
    if (mPool.started()) {
        const sp<Peer> keep(&mPeer);
        mPool.post(new WorkTask([keep, this] { flushReleases(); }));
    } else {
        flushReleases();
    }
}

void OutgoingLink::flushReleases() {
    {
        LockGuard guard(mLock);
        mFlushPosted = false;
    }
    const Opened opened = obtain();
    if (!opened.end || !trySendReleases(*opened.end.connection)) {
        retryReleasesLater();
        return;
    }
    LockGuard guard(mLock);
    mReleaseRetries = 0;
}

void OutgoingLink::retryReleasesLater() {
    if (mPeer.isDead() || !mPool.started()) return;
    int delayMs = 0;
    size_t dropped = 0;
    {
        LockGuard guard(mLock);
        if (mPendingReleases.empty() || mFlushPosted) return;
        if (mReleaseRetries == kMaxReleaseRetries) {
            dropped = mPendingReleases.size();
            mPendingReleases.clear();
            mReleaseRetries = 0;
        } else {
            delayMs = kFirstReleaseRetryMs << mReleaseRetries++;
            mFlushPosted = true;
        }
    }
    if (dropped > 0) {
        ALOGW("pid %d does not accept connections: %zu releases dropped", mPeer.pid(), dropped);
        return;
    }
    const sp<Peer> keep(&mPeer);
    mPool.postAfter(delayMs, [keep, this] { flushReleases(); });
}

bool OutgoingLink::trySendReleases(Connection& connection) {
    std::unordered_map<Token, uint64_t, TokenHash> pending;
    {
        LockGuard guard(mLock);
        pending.swap(mPendingReleases);
    }
    auto it = pending.begin();
    for (; it != pending.end(); ++it) {
        OutgoingFrame frame = OutgoingFrame::make(FrameKind::kRelease);
        frame.header.tokenHi = it->first.hi;
        frame.header.tokenLo = it->first.lo;
        frame.header.argument = it->second;
        if (connection.send(frame, 0) != NO_ERROR) break;
    }
    if (it == pending.end()) return true;
    LockGuard guard(mLock);
    for (; it != pending.end(); ++it) mPendingReleases[it->first] += it->second;
    return false;
}

}  // namespace tvbinder
}  // namespace android
