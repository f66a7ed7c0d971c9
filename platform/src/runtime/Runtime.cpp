#define LOG_TAG "tvbinder"

#include "runtime/Runtime.h"

#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include "peers/Peer.h"
#include "wire/SocketDirectory.h"

namespace android {
namespace tvbinder {

namespace {

constexpr int kHelloAnswerTimeoutMs = 5000;
// Connections accepted in one pass before the listener goes back to epoll,
// so that a flood of them does not keep a thread from everything else.
constexpr size_t kAcceptsPerPass = 256;
// How long a listener waits before it tries again when no descriptor is free.
constexpr int kAcceptRetryMs = 10;
// How long a pool thread keeps reading a busy connection before handing it
// back to epoll: a stream of calls or one-ways then costs one receive each,
// not a wake-up each.
constexpr int kLingerMs = 2;

std::atomic<Runtime*> gCurrent{nullptr};
// Runtimes a forked child left behind stay reachable: parts of them may still
// be referenced by objects the child inherited.
std::vector<Runtime*>* gAbandoned = nullptr;

std::string contextFromEnvironment() {
    const char* context = getenv("TAVRIN_BINDER_CONTEXT");
    return context != nullptr && context[0] != '\0' ? context : "default";
}

}  // namespace

Runtime* Runtime::current() {
    return gCurrent.load(std::memory_order_acquire);
}

Runtime* Runtime::create() {
    auto* runtime = new Runtime();
    status_t status = runtime->init();
    LOG_ALWAYS_FATAL_IF(status != NO_ERROR, "cannot set up the binder endpoint: %d", status);
    gCurrent.store(runtime, std::memory_order_release);
    return runtime;
}

void Runtime::abandonInChild() {
    Runtime* runtime = gCurrent.exchange(nullptr);
    if (runtime == nullptr) return;
    if (gAbandoned == nullptr) gAbandoned = new std::vector<Runtime*>;
    gAbandoned->push_back(runtime);
}

Runtime::Runtime()
    : mEndpoint(Token::random().hi),
      mContext(contextFromEnvironment()),
      mPeers(*this),
      mPool(*this),
      mDispatcher(*this),
      mLinks(*this),
      mOneWays(*this),
      mStallGuard(*this) {}

namespace {

void removeSocketFilesAtExit() {
    if (Runtime* runtime = Runtime::current()) runtime->removeSocketFiles();
}

// Sockets of processes that were killed: looked at when a process starts.
constexpr size_t kStaleSocketsLookedAt = 256;

}  // namespace

void Runtime::removeSocketFiles() {
    mListener.removeSocketFile();
    std::lock_guard<std::mutex> guard(mLock);
    if (mContextListener != nullptr) mContextListener->removeSocketFile();
}

status_t Runtime::init() {
    static std::once_flag atExit;
    std::call_once(atExit, [] { atexit(removeSocketFilesAtExit); });
    SocketDirectory::removeStale(kStaleSocketsLookedAt);
    mAccounts.init();
    mPeers.setMaxWatched(mAccounts.maxWatchedProcesses());
    mSpareFd = ScopedFd(open("/dev/null", O_RDONLY | O_CLOEXEC));
    status_t status = mPool.init();
    if (status == NO_ERROR) status = mStallGuard.init();
    if (status != NO_ERROR) return status;
    status = mListener.listenOn(endpointAddress(mEndpoint));
    if (status != NO_ERROR) return status;
    mPool.add(&mListener, mListener.fd());
    return NO_ERROR;
}

sp<IBinder> Runtime::contextObject() {
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mContextListener != nullptr) {
            sp<BBinder> local = mExports.contextObject();
            if (local != nullptr) return local;
        }
        if (mContextProxy != nullptr && mContextProxy->isBinderAlive()) return mContextProxy;
    }
    sp<BpBinder> proxy = connectToContextManager();
    std::lock_guard<std::mutex> guard(mLock);
    if (proxy != nullptr) mContextProxy = proxy;
    return proxy;
}

sp<BpBinder> Runtime::connectToContextManager() {
    int error = 0;
    sp<Connection> connection = Connection::connectTo(contextAddress(mContext), &error);
    if (connection == nullptr) return nullptr;
    if (!connection->peerIsTrustedUser()) {
        ALOGW("the context manager of \"%s\" runs as another user (uid %u): not trusted",
              mContext.c_str(), connection->peerUid());
        return nullptr;
    }
    OutgoingFrame hello = OutgoingFrame::make(FrameKind::kHello);
    hello.header.argument = mEndpoint;
    if (connection->send(hello) != NO_ERROR) return nullptr;
    pollfd waiter{connection->fd(), POLLIN, 0};
    if (poll(&waiter, 1, kHelloAnswerTimeoutMs) <= 0) {
        ALOGW("context manager of \"%s\" does not answer", mContext.c_str());
        return nullptr;
    }
    Frame answer;
    if (connection->receive(&answer, false) != NO_ERROR || answer.validate() != NO_ERROR ||
        answer.kind() != FrameKind::kHelloAnswer || answer.header.argument == 0 ||
        answer.header.argument == mEndpoint) {
        return nullptr;
    }
    sp<Peer> manager = mPeers.obtain(answer.header.argument);
    if (manager->adoptCallConnection(connection) != NO_ERROR) return nullptr;
    return mProxies.obtain(manager, kContextToken);
}

bool Runtime::becomeContextManager() {
    std::lock_guard<std::mutex> guard(mLock);
    if (mContextListener != nullptr) return true;
    auto listener = std::make_unique<Listener>(true);
    status_t status = listener->listenOn(contextAddress(mContext));
    if (status != NO_ERROR) {
        ALOGW("cannot serve context \"%s\": %d", mContext.c_str(), status);
        return false;
    }
    mPool.add(listener.get(), listener->fd());
    mContextListener = std::move(listener);
    return true;
}

void Runtime::setContextObject(const sp<BBinder>& object) {
    mExports.setContextObject(object);
}

void Runtime::onEvent(EventSource* source, uint32_t events) {
    switch (source->type) {
        case EventSource::Type::kListener:
            acceptAll(*static_cast<Listener*>(source));
            break;
        case EventSource::Type::kConnection: {
            sp<Connection> connection(static_cast<Connection*>(source));
            connection->takeOver();
            if (connection->isOutgoingLink) {
                connection->peer()->onLinkEvent(connection, events);
            } else if (connection->isLink()) {
                mLinks.onReadable(connection);
            } else {
                mDispatcher.onReadable(connection);
            }
            break;
        }
        case EventSource::Type::kPeerWatch:
            onPeerExited(static_cast<Peer*>(source));
            break;
        case EventSource::Type::kTimer:
            mStallGuard.onTimer();
            break;
        case EventSource::Type::kWake:
            break;
    }
}

namespace {

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

}  // namespace

void Runtime::acceptAll(Listener& listener) {
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
            rearmLater(listener);
            return;
        }
        sp<Connection> connection = Connection::adoptAccepted(fd);
        connection->answersHello = listener.answersHello();
        if (!connection->peerIsTrustedUser()) {
            ++refused.otherUser;
            refused.lastPid = connection->peerPid();
            continue;
        }
        if (!admit(connection)) {
            ++refused.overShare;
            refused.lastPid = connection->peerPid();
            continue;
        }
        mPool.add(connection.get(), connection->fd());
    }
    refused.log();
    mPool.rearm(&listener, listener.fd());
}

bool Runtime::admit(const sp<Connection>& connection) {
    PeerAccounts::Admission admission = mAccounts.admitConnection(connection->peerPid());
    if (admission.account == nullptr) return false;
    // Counted from here until the connection is destroyed.
    connection->setAccount(admission.account);
    std::lock_guard<std::mutex> guard(mLock);
    if (admission.evictFrom != nullptr && !evictOneLocked(*admission.evictFrom)) return false;
    mAccepted.emplace(connection.get(), connection);
    return true;
}

void Runtime::rearmLater(Listener& listener) {
    mPool.postAfter(kAcceptRetryMs, [this, &listener] { mPool.rearm(&listener, listener.fd()); });
}

Runtime::SpareOutcome Runtime::refuseWaitingConnection(Listener& listener) {
    ScopedFd spare;
    {
        std::lock_guard<std::mutex> guard(mLock);
        spare = std::move(mSpareFd);
    }
    // A descriptor may have been freed since the spare was last given up.
    if (!spare.valid()) spare = ScopedFd(open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (!spare.valid()) return SpareOutcome::kNoDescriptor;
    spare.reset();
    int fd = listener.acceptOne();
    if (fd >= 0) ::close(fd);
    spare = ScopedFd(open("/dev/null", O_RDONLY | O_CLOEXEC));
    std::lock_guard<std::mutex> guard(mLock);
    mSpareFd = std::move(spare);
    return fd >= 0 ? SpareOutcome::kRefusedOne : SpareOutcome::kNoneWaiting;
}

bool Runtime::evictOneLocked(const PeerAccount& account) {
    for (const auto& [raw, connection] : mAccepted) {
        // Links carry one-ways already accepted: never taken.
        if (connection->account().get() != &account || connection->broken() ||
            connection->isLink()) {
            continue;
        }
        // The thread that holds or next takes it drops it; counts follow.
        connection->markBroken();
        shutdown(connection->fd(), SHUT_RDWR);
        ALOGW("all connections taken: closed one of pid %d for a newcomer", account.pid());
        return true;
    }
    return false;
}

void Runtime::rearm(const sp<Connection>& connection) {
    if (connection->broken()) {
        drop(connection);
    } else {
        connection->handOff();
        mPool.rearm(connection.get(), connection->fd());
    }
}

void Runtime::drop(const sp<Connection>& connection) {
    connection->markBroken();
    mPool.remove(connection->fd());
    sp<Connection> listed;  // let go after the lock
    {
        std::lock_guard<std::mutex> guard(mLock);
        auto it = mAccepted.find(connection.get());
        if (it == mAccepted.end()) return;
        listed = std::move(it->second);
        mAccepted.erase(it);
    }
    // One-ways queued from it may keep it a while: the peer learns now.
    shutdown(connection->fd(), SHUT_RDWR);
}

void Runtime::deliverObituaries(const sp<BpBinder>& proxy) {
    mPool.post(new WorkTask([proxy] { proxy->sendObituary(); }));
}

bool Runtime::lingerOn(const Connection& connection) {
    // Waiting a moment saves the next frame the way through epoll, as long
    // as other pool threads are free for everything else.
    if (!mPool.hasIdleThreads()) return false;
    pollfd waiter{connection.fd(), POLLIN, 0};
    int ready;
    do {
        ready = poll(&waiter, 1, kLingerMs);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

void Runtime::watchPeer(Peer* peer, int pidfd) {
    peer->incStrong(this);
    mPool.add(peer, pidfd);
}

void Runtime::peerLost(const sp<Peer>& peer) {
    if (!peer->markDead()) return;
    mPool.post(new WorkTask([this, peer] { forgetDeadPeer(peer); }));
}

// What follows a peer's death, on a pool thread.
void Runtime::forgetDeadPeer(const sp<Peer>& peer) {
    mPeers.forget(peer.get());
    // The objects it held may go now; their destructors run without our locks.
    std::vector<sp<BBinder>> released = mExports.dropHolder(peer->endpoint());
    released.clear();
    for (const sp<BpBinder>& proxy : mProxies.proxiesOf(peer->endpoint())) proxy->sendObituary();
}

void Runtime::onPeerExited(Peer* peer) {
    peerLost(peer);
    // The pidfd fires once: this thread owns its registration now.
    mPool.remove(peer->pidfd());
    peer->closePidfd();
    peer->decStrong(this);
}

}  // namespace tvbinder
}  // namespace android
