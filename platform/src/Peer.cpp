#define LOG_TAG "tvbinder"

#include "Peer.h"

#include <errno.h>
#include <log/log.h>
#include <poll.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Runtime.h"

namespace android {
namespace tvbinder {

namespace {

// Idle call connections kept per peer; more are closed when returned.
constexpr size_t kMaxIdleConnections = 16;
// How long a failed connection waits for the peer's exit to show.
constexpr int kDeathConfirmMs = 200;

bool isGoneErrno(int error) {
    return error == ECONNREFUSED || error == ENOENT || error == ECONNRESET;
}

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
    int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0) return errno == ESRCH ? DEAD_OBJECT : UNKNOWN_ERROR;
    mPid = pid;
    mPidfd = ScopedFd(fd);
    guard.unlock();
    mRuntime.watchPeer(this, fd);
    return NO_ERROR;
}

sp<Connection> Peer::connect(bool link, status_t* status) {
    if (isDead()) {
        *status = DEAD_OBJECT;
        return nullptr;
    }
    int error = 0;
    sp<Connection> connection = Connection::connectTo(endpointAddress(mEndpoint), &error);
    if (connection == nullptr) {
        if (isGoneErrno(error)) {
            if (markDead() && pid() == 0) mRuntime.forgetPeer(this);
            *status = DEAD_OBJECT;
        } else {
            ALOGW("cannot connect to endpoint %016llx: %s", (unsigned long long)mEndpoint,
                  strerror(error));
            *status = FAILED_TRANSACTION;
        }
        return nullptr;
    }
    *status = attach(connection->peerPid());
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
    sp<Connection> link = connect(true, &status);
    if (link == nullptr) return status;
    std::lock_guard<std::mutex> guard(mLock);
    if (mLink == nullptr) mLink = link;
    return NO_ERROR;
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

status_t Peer::sendOnLink(const OutgoingFrame& frame) {
    sp<Connection> link;
    {
        std::lock_guard<std::mutex> guard(mLock);
        link = mLink;
    }
    if (link == nullptr) {
        status_t status;
        sp<Connection> fresh = connect(true, &status);
        if (fresh == nullptr) return status;
        std::lock_guard<std::mutex> guard(mLock);
        if (mLink == nullptr) mLink = fresh;
        link = mLink;
    }
    status_t status = link->send(frame);
    if (status == DEAD_OBJECT) {
        {
            std::lock_guard<std::mutex> guard(mLock);
            if (mLink == link) mLink = nullptr;
        }
        checkAlive();
    }
    return status;
}

void Peer::checkAlive() {
    if (isDead()) return;
    int fd = pidfd();
    if (fd >= 0) {
        // The socket closes before the exit is signalled on the pidfd.
        pollfd waiter{fd, POLLIN, 0};
        if (poll(&waiter, 1, kDeathConfirmMs) > 0) markDead();
        return;
    }
    status_t status;
    sp<Connection> probe = connect(false, &status);
    if (probe != nullptr) returnCallConnection(probe);
}

bool Peer::markDead() {
    if (mDead.exchange(true, std::memory_order_acq_rel)) return false;
    std::vector<sp<Connection>> idle;
    sp<Connection> link;
    {
        std::lock_guard<std::mutex> guard(mLock);
        idle.swap(mIdle);
        link = std::move(mLink);
    }
    return true;
}

}  // namespace tvbinder
}  // namespace android
