#pragma once

#include <utils/RefBase.h>

#include <unordered_map>

#include "base/Locks.h"
#include "peers/AcceptedConnection.h"

namespace android {
namespace tvbinder {

class ThreadPool;

// The connections other processes opened to this one, held from accept until
// dropped, and the ways a pool thread done with one hands it on: back to
// epoll, dropped, or kept a moment longer for the next frame. Owned by the
// Runtime; any thread (each connection by the thread that holds it).
class AcceptedConnections {
  public:
    explicit AcceptedConnections(ThreadPool& pool) : mPool(pool) {}

    // Lists `connection` and registers it in epoll. When `evictFrom` is set
    // (all connections are taken), one of that process's connections that
    // is not a link is closed first: false, and nothing listed, when it has
    // none to give up.
    [[nodiscard]] bool add(const sp<AcceptedConnection>& connection, const PeerAccount* evictFrom);
    // Hands the connection back to epoll, or drops it when it broke.
    void rearm(const sp<AcceptedConnection>& connection);
    // Unregisters it, lets it go and shuts it down: the peer learns now,
    // though one-ways queued from it may keep it a while.
    void drop(const sp<AcceptedConnection>& connection);
    // True when another frame arrived on `connection` within a short wait;
    // false at once when no other pool thread is free for other work.
    [[nodiscard]] bool lingerOn(AcceptedConnection& connection);

  private:
    bool evictOneLocked(const PeerAccount& account) TV_REQUIRES(mLock);

    ThreadPool& mPool;
    Mutex mLock{LockRank::kAccepted};
    std::unordered_map<AcceptedConnection*, sp<AcceptedConnection>> mListed TV_GUARDED_BY(mLock);
};

}  // namespace tvbinder
}  // namespace android
