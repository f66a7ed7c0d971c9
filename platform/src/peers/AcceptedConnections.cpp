#define LOG_TAG "tvbinder"

#include "peers/AcceptedConnections.h"

#include <log/log.h>
#include <sys/epoll.h>

#include "threads/PoolTask.h"
#include "threads/ThreadPool.h"

namespace android {
namespace tvbinder {

namespace {

// How long a pool thread keeps reading a busy connection before handing it
// back to epoll: a stream of calls or one-ways then costs one receive each,
// not a wake-up each.
constexpr int kLingerMs = 2;

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
        ALOGW("all connections taken: closed one of pid %d for a newcomer", account.pid());
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
        mPool.post(new WorkTask([connection] { connection->onEvent(EPOLLIN); }));
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

bool AcceptedConnections::lingerOn(AcceptedConnection& connection) {
    // Waiting a moment saves the next frame the way through epoll, as long
    // as other pool threads are free for everything else.
    return mPool.hasIdleThreads() && connection.connection().waitReadable(kLingerMs);
}

}  // namespace tvbinder
}  // namespace android
