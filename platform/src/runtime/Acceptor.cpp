#define LOG_TAG "tvbinder"

#include "runtime/Acceptor.h"

#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <unistd.h>

#include "peers/AcceptedConnections.h"
#include "threads/ThreadPool.h"
#include "wire/Listener.h"
#include "wire/PeerAccounts.h"

namespace android {
namespace tvbinder {

namespace {

// Connections accepted in one pass before the listener goes back to epoll,
// so that a flood of them does not keep a thread from everything else.
constexpr size_t kAcceptsPerPass = 256;
// How long a listener waits before it tries again when no descriptor is free.
constexpr int kAcceptRetryMs = 10;

// The connections one pass of accepting refused: logged once, so that a
// flood of connections is not a flood of log lines too.
struct Refusals {
    size_t otherUser = 0;
    size_t overShare = 0;
    size_t noDescriptor = 0;
    pid_t lastPid = 0;

    void log() const {
        if (otherUser > 0) {
            ALOGW("refused %zu connections of other users (the last from pid %d)", otherUser,
                  lastPid);
        }
        if (overShare > 0) {
            ALOGW("too many connections: refused %zu (the last from pid %d)", overShare, lastPid);
        }
        if (noDescriptor > 0) ALOGW("out of descriptors: refused %zu connections", noDescriptor);
    }
};

ScopedFd openSpare() {
    return ScopedFd(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

}  // namespace

void Acceptor::init() {
    ScopedFd spare = openSpare();
    LockGuard guard(mLock);
    mSpareFd = std::move(spare);
}

void Acceptor::watch(Listener& listener) {
    Watch* watch;
    {
        LockGuard guard(mLock);
        watch = &mWatches.emplace_back(*this, listener);
    }
    mPool.add(watch, listener.fd());
}

void Acceptor::Watch::onEvent(uint32_t /*events*/) {
    mAcceptor.acceptAll(*this);
}

void Acceptor::acceptAll(Watch& watch) {
    Listener& listener = watch.listener();
    Refusals refused;
    for (size_t taken = 0; taken < kAcceptsPerPass; ++taken) {
        int fd = listener.acceptOne();
        if (fd < 0) {
            if (errno != EMFILE && errno != ENFILE) break;
            const SpareOutcome outcome = refuseWaitingConnection(listener);
            if (outcome == SpareOutcome::kRefusedOne) {
                ++refused.noDescriptor;
                continue;
            }
            if (outcome == SpareOutcome::kNoneWaiting) break;
            // Re-armed now, it would wake again at once.
            refused.log();
            rearmLater(watch);
            return;
        }
        sp<Connection> connection = Connection::adopt(fd);
        if (!connection->peerIsTrustedUser()) {
            ++refused.otherUser;
            refused.lastPid = connection->peerPid();
            continue;
        }
        if (!admit(connection, listener.answersHello())) {
            ++refused.overShare;
            refused.lastPid = connection->peerPid();
        }
    }
    refused.log();
    mPool.rearm(&watch, listener.fd());
}

bool Acceptor::admit(const sp<Connection>& connection, bool answersHello) {
    PeerAccounts::Admission admission = mAccounts.admitConnection(connection->peerPid());
    if (admission.account == nullptr) return false;
    // Counted from here until the accepted connection is destroyed.
    sp<AcceptedConnection> accepted =
        new AcceptedConnection(connection, admission.account, answersHello, mHandlers);
    return mAccepted.add(accepted, admission.evictFrom.get());
}

void Acceptor::rearmLater(Watch& watch) {
    mPool.postAfter(kAcceptRetryMs, [this, &watch] { mPool.rearm(&watch, watch.listener().fd()); });
}

Acceptor::SpareOutcome Acceptor::refuseWaitingConnection(Listener& listener) {
    ScopedFd spare;
    {
        LockGuard guard(mLock);
        spare = std::move(mSpareFd);
    }
    // A descriptor may have been freed since the spare was last given up.
    if (!spare.valid()) spare = openSpare();
    if (!spare.valid()) return SpareOutcome::kNoDescriptor;
    spare.reset();
    int fd = listener.acceptOne();
    if (fd >= 0) ::close(fd);
    spare = openSpare();
    LockGuard guard(mLock);
    mSpareFd = std::move(spare);
    return fd >= 0 ? SpareOutcome::kRefusedOne : SpareOutcome::kNoneWaiting;
}

}  // namespace tvbinder
}  // namespace android
