#include "runtime/Acceptor.h"

#include <errno.h>
#include <fcntl.h>
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
    RefusalLog::Counts pass;
    for (size_t taken = 0; taken < kAcceptsPerPass; ++taken) {
        int fd = listener.acceptOne();
        if (fd < 0) {
            if (errno != EMFILE && errno != ENFILE) break;
            const SpareOutcome outcome = refuseWaitingConnection(listener);
            if (outcome == SpareOutcome::kRefusedOne) {
                ++pass.noDescriptor;
                continue;
            }
            if (outcome == SpareOutcome::kNoneWaiting) break;
            // Re-armed now, it would wake again at once.
            tell(pass);
            rearmLater(watch);
            return;
        }
        sp<Connection> connection = Connection::adopt(fd);
        if (!connection->peerIsTrustedUser()) {
            ++pass.otherUser;
            pass.lastRefused = connection->peerPid();
            continue;
        }
        admit(connection, listener.answersHello(), &pass);
    }
    tell(pass);
    mPool.rearm(&watch, listener.fd());
}

void Acceptor::admit(const sp<Connection>& connection, bool answersHello,
                     RefusalLog::Counts* pass) {
    PeerAccounts::Admission admission = mAccounts.admitConnection(connection->peerPid());
    if (admission.account != nullptr) {
        // Counted from here until the accepted connection is destroyed.
        sp<AcceptedConnection> accepted =
            new AcceptedConnection(connection, admission.account, answersHello, mHandlers);
        if (mAccepted.add(accepted, admission.evictFrom.get())) {
            if (admission.evictFrom != nullptr) {
                ++pass->evicted;
                pass->lastEvicted = admission.evictFrom->pid();
            }
            return;
        }
    }
    ++pass->overShare;
    pass->lastRefused = connection->peerPid();
}

void Acceptor::tell(const RefusalLog::Counts& pass) {
    LockGuard guard(mLock);
    mRefusals.record(pass, RefusalLog::Clock::now());
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
