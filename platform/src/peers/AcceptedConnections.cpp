#include "peers/AcceptedConnections.h"

#include <sys/epoll.h>

#include "threads/PoolTask.h"
#include "threads/ThreadPool.h"

namespace android {
namespace tvbinder {

namespace {

// A connection on its socket lingers in poll() this long.
constexpr int kSocketLingerMs = 2;

// A pool thread waiting for the next frame of a connection in shared
// memory, with no timer: the pool stops it.
class SharedMemoryLinger : public ThreadPool::Lingerer {
  public:
    explicit SharedMemoryLinger(Connection& connection) : mConnection(connection) {}
    void stopLingering() override { mStop.stop(); }
    bool waitReadable() { return mConnection.waitReadableUntil(mStop); }

  private:
    Connection& mConnection;
    shm::SleepStop mStop;
};

// A frame that came in shared memory while the connection was out of epoll:
// no wake-up tells it, so it is delivered as a task, which a thread waiting
// for a reply may take (the frame may be a call of its chain).
class PendingFrame : public PoolTask {
  public:
    PendingFrame(ThreadPool& pool, sp<AcceptedConnection> connection)
        : mPool(pool), mConnection(std::move(connection)) {}
    void run() override { mConnection->onEvent(EPOLLIN); }
    bool standsIn() const override { return true; }
    void runStandingIn() override {
        if (mConnection->onEventStandingIn(EPOLLIN)) return;
        mPool.post(new WorkTask([connection = mConnection] { connection->onEvent(EPOLLIN); }));
    }

  private:
    ThreadPool& mPool;
    const sp<AcceptedConnection> mConnection;
};

}  // namespace

bool AcceptedConnections::add(const sp<AcceptedConnection>& connection,
                              const PeerAccount* evictFrom) {
    {
        LockGuard guard(mLock);
        if (evictFrom != nullptr && !evictOneLocked(*evictFrom)) return false;
        mListed.emplace(connection.get(), connection);
    }
    mPool.add(connection.get(), connection->connection().fd());
    return true;
}

bool AcceptedConnections::evictOneLocked(const PeerAccount& account) {
    for (const auto& [raw, listed] : mListed) {
        // Links carry one-ways already accepted: never taken.
        if (listed->account().get() != &account || listed->connection().broken() ||
            listed->isLink()) {
            continue;
        }
        // The thread that holds or next takes it drops it; counts follow.
        listed->connection().markBroken();
        listed->connection().shutDown();
        return true;
    }
    return false;
}

void AcceptedConnections::rearm(const sp<AcceptedConnection>& connection) {
    if (connection->connection().broken()) {
        drop(connection);
        return;
    }
    // A frame that came in shared memory meanwhile is told by no wake-up.
    const bool framePending = connection->connection().prepareToPoll();
    connection->handOff();
    if (framePending) {
        mPool.post(new PendingFrame(mPool, connection));
        return;
    }
    mPool.rearm(connection.get(), connection->connection().fd());
}

void AcceptedConnections::drop(const sp<AcceptedConnection>& connection) {
    connection->connection().markBroken();
    mPool.remove(connection->connection().fd());
    sp<AcceptedConnection> listed;  // let go after the lock
    {
        LockGuard guard(mLock);
        auto it = mListed.find(connection.get());
        if (it == mListed.end()) return;
        listed = std::move(it->second);
        mListed.erase(it);
    }
    // One-ways queued from it may keep it a while: the peer learns now.
    connection->connection().shutDown();
}

// A stream of calls or one-ways then costs one receive each, not a way
// through epoll each, as long as other pool threads are free for everything
// else.
bool AcceptedConnections::lingerOn(AcceptedConnection& connection) {
    Connection& lingered = connection.connection();
    if (!lingered.waitsWithoutTimer()) {
        return mPool.hasIdleThreads() && lingered.waitReadable(kSocketLingerMs);
    }
    SharedMemoryLinger linger(lingered);
    if (!mPool.beginLinger(&linger)) return false;
    const bool readable = linger.waitReadable();
    mPool.endLinger(&linger);
    return readable;
}

}  // namespace tvbinder
}  // namespace android
