#define LOG_TAG "tvbinder"

#include "peers/Peer.h"

#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/LogLimit.h"
#include "peers/PeerTable.h"
#include "threads/ThreadPool.h"
#include "wire/SocketDirectory.h"

namespace android {
namespace tvbinder {

namespace {

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

Peer::Peer(PeerTable& table, ThreadPool& pool, Connection::RingSweeper& rings, uint64_t ownEndpoint,
           uint64_t endpoint)
    : mTable(table),
      mPool(pool),
      mRings(rings),
      mOwnEndpoint(ownEndpoint),
      mEndpoint(endpoint),
      mGeneration(TransportFds::generation()),
      mLink(*this, pool),
      mCalls(*this) {}

Peer::~Peer() = default;

pid_t Peer::pid() const {
    LockGuard guard(mLock);
    return mPid;
}

status_t Peer::attach(pid_t pid) {
    int pidfd;
    {
        LockGuard guard(mLock);
        if (mPid != 0) return mPid == pid ? NO_ERROR : PERMISSION_DENIED;
        if (!mTable.admitEndpointOf(pid)) {
            ALOGW("no room to watch endpoint %016llx of pid %d", (unsigned long long)mEndpoint,
                  pid);
            return NO_MEMORY;
        }
        pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
        if (pidfd < 0) {
            const bool gone = errno == ESRCH;
            mTable.endpointGone(pid);
            return gone ? DEAD_OBJECT : UNKNOWN_ERROR;
        }
        mPid = pid;
        mPidfd = ScopedFd(pidfd);
        mCountedForPid.store(true);
    }
    // Lost meanwhile: forgetting it may have found nothing to give back.
    if (isDead()) releaseEndpointShare();
    // The registration holds the peer until the pidfd fires.
    incStrong(this);
    mPool.add(this, pidfd);
    return NO_ERROR;
}

void Peer::releaseEndpointShare() {
    if (isDead() && mCountedForPid.exchange(false)) mTable.endpointGone(pid());
}

Peer::Connected Peer::connect(bool asLink) {
    if (isDead()) return {nullptr, DEAD_OBJECT};
    Connection::Connected made = Connection::connectTo(
        endpointAddress(mEndpoint), asLink ? kLinkConnectTimeoutMs : Connection::kConnectTimeoutMs);
    if (made.connection == nullptr) {
        if (isGoneErrno(made.error)) {
            lost();
            return {nullptr, DEAD_OBJECT};
        }
        TV_ALOGW_LIMITED("cannot connect to endpoint %016llx: %s", (unsigned long long)mEndpoint,
                         strerror(made.error));
        return {nullptr, FAILED_TRANSACTION};
    }
    const sp<Connection>& connection = made.connection;
    if (!connection->peerIsTrustedUser()) {
        TV_ALOGW_LIMITED("endpoint %016llx is served by another user (uid %u): not trusted",
                         (unsigned long long)mEndpoint, connection->peerUid());
        return {nullptr, PERMISSION_DENIED};
    }
    status_t status = attach(connection->peerPid());
    if (status == NO_MEMORY) {
        // Refused for good: forgotten, so that nothing waits for it.
        lost();
        return {nullptr, DEAD_OBJECT};
    }
    if (status != NO_ERROR) {
        TV_ALOGW_LIMITED("endpoint %016llx is served by pid %d, expected %d",
                         (unsigned long long)mEndpoint, connection->peerPid(), pid());
        return {nullptr, status};
    }
    OutgoingFrame hello = OutgoingFrame::make(FrameKind::kHello);
    hello.header.argument = mOwnEndpoint;
    hello.header.flags = asLink ? kHelloLink : 0;
    const int region = connection->offerSharedMemory(mRings);
    if (region >= 0) hello.fds.push_back(region);
    status = connection->send(hello);
    if (status != NO_ERROR) return {nullptr, status};
    connection->startSharedMemory();
    return {connection, NO_ERROR};
}

status_t Peer::ensureWatched() {
    if (isDead()) return DEAD_OBJECT;
    if (pid() != 0) return NO_ERROR;
    return mLink.open();
}

status_t Peer::verifyClaim(pid_t pid) {
    status_t status = ensureWatched();
    if (status != NO_ERROR) return status;
    return this->pid() == pid ? NO_ERROR : PERMISSION_DENIED;
}

// ---- Death ----

void Peer::checkAlive() {
    if (isDead()) return;
    // An endpoint is closed once its process has exited or exec'd.
    if (Connection::refusesConnections(endpointAddress(mEndpoint))) {
        lost();
        return;
    }
    // An exec closes the process's sockets one by one: the address may
    // still answer for a moment after a connection hung up.
    if (mPool.started() && !mProbing.exchange(true)) {
        sp<Peer> self(this);
        mPool.post(new WorkTask([self] { self->probeAgain(); }));
    }
}

void Peer::probeAgain() {
    for (int delayMs = 1; delayMs <= kLastProbeDelayMs && !isDead(); delayMs *= 2) {
        usleep(static_cast<useconds_t>(delayMs) * 1000);
        if (Connection::refusesConnections(endpointAddress(mEndpoint))) lost();
    }
    mProbing.store(false);
}

void Peer::lost() {
    if (!markDead()) return;
    mTable.forgetLater(this);
}

bool Peer::markDead() {
    if (mDead.exchange(true, std::memory_order_acq_rel)) return false;
    mCalls.clear();
    mLink.close();
    return true;
}

void Peer::onEvent(uint32_t /*events*/) {
    lost();
    // The pidfd fires once: this thread owns its registration now.
    ScopedFd pidfd;
    {
        LockGuard guard(mLock);
        pidfd = std::move(mPidfd);
    }
    mPool.remove(pidfd.get());
    pidfd.reset();
    decStrong(this);
}

int Peer::dupPidfd() const {
    // Under the lock: the pidfd is closed once the process exited.
    LockGuard guard(mLock);
    return mPidfd.valid() ? fcntl(mPidfd.get(), F_DUPFD_CLOEXEC, 0) : -1;
}

}  // namespace tvbinder
}  // namespace android
