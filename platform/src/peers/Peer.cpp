#define LOG_TAG "tvbinder"

#include "peers/Peer.h"

#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <poll.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/Clock.h"
#include "runtime/Runtime.h"

namespace android {
namespace tvbinder {

namespace {

// Idle call connections kept per peer; more are closed when returned.
constexpr size_t kMaxIdleConnections = 16;
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

bool isGoneErrno(int error) {
    return error == ECONNREFUSED || error == ENOENT || error == ECONNRESET;
}

// A link is made on pool threads for addresses that peers named (a claimed
// endpoint, the holder of a grant, the owner of a reference to release): a
// listener whose backlog is full fails it at once rather than hold the
// thread. Only a flood of connections fills a live process's backlog.
constexpr int kLinkConnectTimeoutMs = 0;

// The longest pause between two probes of an address that still answered
// after one of its connections hung up.
constexpr int kLastProbeDelayMs = 16;

}  // namespace

Peer::Peer(Runtime& runtime, uint64_t endpoint)
    : EventSource(Type::kPeerWatch), mRuntime(runtime), mEndpoint(endpoint) {}

Peer::~Peer() = default;

pid_t Peer::pid() const {
    std::lock_guard<std::mutex> guard(mLock);
    return mPid;
}

int Peer::pidfd() const {
    std::lock_guard<std::mutex> guard(mLock);
    return mPidfd.get();
}

void Peer::closePidfd() {
    ScopedFd pidfd;
    {
        std::lock_guard<std::mutex> guard(mLock);
        pidfd = std::move(mPidfd);
    }
}

status_t Peer::attach(pid_t pid) {
    std::unique_lock<std::mutex> guard(mLock);
    if (mPid != 0) return mPid == pid ? NO_ERROR : PERMISSION_DENIED;
    if (!mRuntime.peers().admitEndpointOf(pid)) {
        ALOGW("no room to watch endpoint %016llx of pid %d", (unsigned long long)mEndpoint, pid);
        return NO_MEMORY;
    }
    int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0) {
        const bool gone = errno == ESRCH;
        mRuntime.peers().endpointGone(pid);
        return gone ? DEAD_OBJECT : UNKNOWN_ERROR;
    }
    mPid = pid;
    mPidfd = ScopedFd(fd);
    mCountedForPid.store(true);
    guard.unlock();
    // Lost meanwhile: forgetting it may have found nothing to give back.
    if (isDead()) releaseEndpointShare();
    mRuntime.watchPeer(this, fd);
    return NO_ERROR;
}

void Peer::releaseEndpointShare() {
    if (isDead() && mCountedForPid.exchange(false)) mRuntime.peers().endpointGone(pid());
}

sp<Connection> Peer::connect(bool link, status_t* status) {
    if (isDead()) {
        *status = DEAD_OBJECT;
        return nullptr;
    }
    int error = 0;
    sp<Connection> connection =
        Connection::connectTo(endpointAddress(mEndpoint), &error,
                              link ? kLinkConnectTimeoutMs : Connection::kConnectTimeoutMs);
    if (connection == nullptr) {
        if (isGoneErrno(error)) {
            mRuntime.peerLost(this);
            *status = DEAD_OBJECT;
        } else {
            ALOGW("cannot connect to endpoint %016llx: %s", (unsigned long long)mEndpoint,
                  strerror(error));
            *status = FAILED_TRANSACTION;
        }
        return nullptr;
    }
    if (!connection->peerIsTrustedUser()) {
        ALOGW("endpoint %016llx is served by another user (uid %u): not trusted",
              (unsigned long long)mEndpoint, connection->peerUid());
        *status = PERMISSION_DENIED;
        return nullptr;
    }
    *status = attach(connection->peerPid());
    if (*status == NO_MEMORY) {
        // Refused for good: forgotten, so that nothing waits for it.
        mRuntime.peerLost(this);
        *status = DEAD_OBJECT;
        return nullptr;
    }
    if (*status != NO_ERROR) {
        ALOGW("endpoint %016llx is served by pid %d, expected %d", (unsigned long long)mEndpoint,
              connection->peerPid(), pid());
        return nullptr;
    }
    connection->setPeer(this);
    OutgoingFrame hello = OutgoingFrame::make(FrameKind::kHello);
    hello.header.argument = mRuntime.endpoint();
    hello.header.flags = link ? kHelloLink : 0;
    *status = connection->send(hello);
    return *status == NO_ERROR ? connection : nullptr;
}

status_t Peer::ensureWatched() {
    if (isDead()) return DEAD_OBJECT;
    if (pid() != 0) return NO_ERROR;
    status_t status;
    return obtainLink(&status) != nullptr ? NO_ERROR : status;
}

status_t Peer::verifyClaim(pid_t pid) {
    status_t status = ensureWatched();
    if (status != NO_ERROR) return status;
    return this->pid() == pid ? NO_ERROR : PERMISSION_DENIED;
}

sp<Connection> Peer::takeCallConnection(status_t* status, bool* reused) {
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (!mIdle.empty()) {
            sp<Connection> connection = std::move(mIdle.back());
            mIdle.pop_back();
            *reused = true;
            *status = NO_ERROR;
            return connection;
        }
    }
    *reused = false;
    return connect(false, status);
}

void Peer::returnCallConnection(const sp<Connection>& connection) {
    if (connection->broken() || isDead()) return;
    std::lock_guard<std::mutex> guard(mLock);
    if (mIdle.size() < kMaxIdleConnections) mIdle.push_back(connection);
}

status_t Peer::adoptCallConnection(const sp<Connection>& connection) {
    status_t status = attach(connection->peerPid());
    if (status != NO_ERROR) return status;
    connection->setPeer(this);
    returnCallConnection(connection);
    return NO_ERROR;
}

// ---- The link ----

sp<Connection> Peer::currentLink() {
    std::lock_guard<std::mutex> guard(mLock);
    return mLink;
}

sp<Connection> Peer::obtainLink(status_t* status) {
    sp<Connection> link = currentLink();
    if (link != nullptr) return link;
    sp<Connection> fresh = connect(true, status);
    if (fresh == nullptr) return nullptr;
    fresh->isOutgoingLink = true;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mLink != nullptr || isDead()) return mLink;  // another thread won; ours closes
        mLink = fresh;
    }
    mRuntime.pool().add(fresh.get(), fresh->fd());
    return fresh;
}

void Peer::dropLink(const sp<Connection>& link) {
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mLink != link) return;
        mLink = nullptr;
    }
    link->markBroken();
    mRuntime.pool().remove(link->fd());
}

void Peer::onLinkEvent(const sp<Connection>& link, uint32_t events) {
    if ((events & EPOLLIN) != 0) readAcks(*link);
    if (link->broken() || (events & (EPOLLHUP | EPOLLRDHUP | EPOLLERR)) != 0) {
        dropLink(link);
        checkAlive();
        return;
    }
    if ((events & EPOLLOUT) != 0) trySendReleases(*link);
    rearmLink(link);
}

void Peer::rearmLink(const sp<Connection>& link) {
    bool waiting;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mLink != link) return;
        waiting = !mPendingReleases.empty();
    }
    mRuntime.pool().rearm(link.get(), link->fd(), waiting);
}

void Peer::readAcks(Connection& link) {
    for (;;) {
        Frame frames[kAckBatch];
        status_t statuses[kAckBatch];
        const size_t count = link.receiveWaiting(frames, statuses, kAckBatch);
        for (size_t i = 0; i < count; ++i) {
            status_t status = statuses[i] == NO_ERROR ? frames[i].validate() : statuses[i];
            if (status == NO_ERROR && frames[i].kind() != FrameKind::kAck) status = BAD_VALUE;
            if (status != NO_ERROR) {
                if (status != DEAD_OBJECT) ALOGW("malformed frame from pid %d", link.peerPid());
                link.markBroken();
                return;
            }
            // Acknowledgements carry totals: the largest one seen counts.
            const uint64_t consumed = frames[i].header.argument;
            uint64_t acked = link.oneWayAcked.load(std::memory_order_acquire);
            while (consumed > acked && consumed <= link.oneWaySent.load() &&
                   !link.oneWayAcked.compare_exchange_weak(acked, consumed)) {
            }
        }
        if (count < kAckBatch) return;
    }
}

bool Peer::reserveBudget(Connection& link, uint64_t cost) {
    int64_t deadline = 0;
    bool asked = false;
    for (;;) {
        uint64_t sent = link.oneWaySent.load(std::memory_order_acquire);
        const uint64_t outstanding = sent - link.oneWayAcked.load(std::memory_order_acquire);
        if (fitsOneWayBudget(outstanding, cost)) {
            if (link.oneWaySent.compare_exchange_weak(sent, sent + cost)) {
                if (outstanding > kReadAcksAbove) readAcks(link);
                return true;
            }
            continue;
        }
        readAcks(link);
        if (link.broken()) return false;
        if (deadline == 0) {
            deadline = monotonicMs() + kOneWayWaitMs;
            continue;  // what was just read may be enough
        }
        if (!asked) {
            asked = true;
            link.send(OutgoingFrame::make(FrameKind::kAckRequest), 0);
        }
        const int64_t left = deadline - monotonicMs();
        if (left <= 0) return false;
        pollfd waiter{link.fd(), POLLIN, 0};
        poll(&waiter, 1, 1);  // the pool may read the acknowledgement first
    }
}

status_t Peer::sendOneWay(const OutgoingFrame& frame) {
    status_t status;
    sp<Connection> link = obtainLink(&status);
    if (link == nullptr) return status;
    const uint64_t cost = oneWayCost(frame.header.dataSize, frame.fds.size());
    if (!reserveBudget(*link, cost)) {
        if (link->broken()) return isDead() ? DEAD_OBJECT : FAILED_TRANSACTION;
        ALOGW("one-way to pid %d refused: its queue for this process is full", link->peerPid());
        return FAILED_TRANSACTION;
    }
    status = link->send(frame, kOneWayWaitMs);
    if (status == NO_ERROR) return NO_ERROR;
    link->oneWaySent.fetch_sub(cost);
    if (status == WOULD_BLOCK) {
        ALOGW("one-way to pid %d refused: its connection is full", link->peerPid());
        return FAILED_TRANSACTION;
    }
    link->markBroken();
    if (!mRuntime.pool().started()) dropLink(link);
    checkAlive();
    return isDead() ? DEAD_OBJECT : FAILED_TRANSACTION;
}

// ---- Releases ----

void Peer::sendRelease(const Token& token, uint64_t count) {
    if (isDead()) return;
    bool post = false;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mPendingReleases.size() >= kMaxPendingReleases &&
            mPendingReleases.find(token) == mPendingReleases.end()) {
            if (!mReleasesDropped) ALOGW("pid %d does not take its releases: dropping some", mPid);
            mReleasesDropped = true;
            return;
        }
        mPendingReleases[token] += count;
        if (mLink == nullptr && !mFlushPosted) post = mFlushPosted = true;
    }
    sp<Connection> link = currentLink();
    if (link != nullptr) {
        // Only the pool thread that holds the link's event may re-arm it: the
        // rest waits for a later try.
        if (!trySendReleases(*link)) retryReleasesLater();
        return;
    }
    // Connecting may take a moment: a pool thread does it.
    if (!post) return;
    if (mRuntime.pool().started()) {
        sp<Peer> self(this);
        mRuntime.pool().post(new WorkTask([self] { self->flushReleases(); }));
    } else {
        flushReleases();
    }
}

void Peer::flushReleases() {
    {
        std::lock_guard<std::mutex> guard(mLock);
        mFlushPosted = false;
    }
    status_t status;
    sp<Connection> link = obtainLink(&status);
    if (link == nullptr || !trySendReleases(*link)) {
        retryReleasesLater();
        return;
    }
    std::lock_guard<std::mutex> guard(mLock);
    mReleaseRetries = 0;
}

void Peer::retryReleasesLater() {
    if (isDead() || !mRuntime.pool().started()) return;
    int delayMs;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mPendingReleases.empty() || mFlushPosted) return;
        if (mReleaseRetries == kMaxReleaseRetries) {
            ALOGW("pid %d does not accept connections: %zu releases dropped", mPid,
                  mPendingReleases.size());
            mPendingReleases.clear();
            mReleaseRetries = 0;
            return;
        }
        delayMs = kFirstReleaseRetryMs << mReleaseRetries++;
        mFlushPosted = true;
    }
    sp<Peer> self(this);
    mRuntime.pool().postAfter(delayMs, [self] { self->flushReleases(); });
}

bool Peer::trySendReleases(Connection& link) {
    std::unordered_map<Token, uint64_t, TokenHash> pending;
    {
        std::lock_guard<std::mutex> guard(mLock);
        pending.swap(mPendingReleases);
    }
    auto it = pending.begin();
    for (; it != pending.end(); ++it) {
        OutgoingFrame frame = OutgoingFrame::make(FrameKind::kRelease);
        frame.header.tokenHi = it->first.hi;
        frame.header.tokenLo = it->first.lo;
        frame.header.argument = it->second;
        if (link.send(frame, 0) != NO_ERROR) break;
    }
    if (it == pending.end()) return true;
    std::lock_guard<std::mutex> guard(mLock);
    for (; it != pending.end(); ++it) mPendingReleases[it->first] += it->second;
    return false;
}

// ---- Death ----

void Peer::checkAlive() {
    if (isDead()) return;
    // An endpoint is closed once its process has exited or exec'd.
    if (Connection::refusesConnections(endpointAddress(mEndpoint))) {
        mRuntime.peerLost(this);
        return;
    }
    // An exec closes the process's sockets one by one: the address may
    // still answer for a moment after a connection hung up.
    if (mRuntime.pool().started() && !mProbing.exchange(true)) {
        sp<Peer> self(this);
        mRuntime.pool().post(new WorkTask([self] { self->probeAgain(); }));
    }
}

void Peer::probeAgain() {
    for (int delayMs = 1; delayMs <= kLastProbeDelayMs && !isDead(); delayMs *= 2) {
        usleep(static_cast<useconds_t>(delayMs) * 1000);
        if (Connection::refusesConnections(endpointAddress(mEndpoint))) mRuntime.peerLost(this);
    }
    mProbing.store(false);
}

bool Peer::markDead() {
    if (mDead.exchange(true, std::memory_order_acq_rel)) return false;
    std::vector<sp<Connection>> idle;
    sp<Connection> link;
    {
        std::lock_guard<std::mutex> guard(mLock);
        idle.swap(mIdle);
        link = mLink;
        mPendingReleases.clear();
    }
    if (link != nullptr) {
        // Its hang-up reaches the pool thread that unregisters it.
        shutdown(link->fd(), SHUT_RDWR);
        if (!mRuntime.pool().started()) dropLink(link);
    }
    return true;
}

int Peer::dupPidfd() const {
    // Under the lock: closePidfd() may run at the same time, once the process exited.
    std::lock_guard<std::mutex> guard(mLock);
    return mPidfd.valid() ? fcntl(mPidfd.get(), F_DUPFD_CLOEXEC, 0) : -1;
}

}  // namespace tvbinder
}  // namespace android
