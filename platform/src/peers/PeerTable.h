#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <utils/RefBase.h>

#include <unordered_map>

#include "base/Locks.h"
#include "peers/Peer.h"

namespace android {
namespace tvbinder {

class ThreadPool;

// Told, on a pool thread, that a peer died, once the PeerTable forgot it:
// what the upper layers hold for it goes (references it held here, death
// notices of its proxies).
class PeerDeathListener {
  public:
    virtual void onPeerDead(const sp<Peer>& peer) = 0;

  protected:
    virtual ~PeerDeathListener() = default;
};

// The processes this one knows, by endpoint id. A peer stays listed until it
// is known dead; proxies keep their owner's Peer alive beyond that. Counts the
// live endpoints each process serves: a process has one (two for a moment
// after an exec), so one that listens on many addresses cannot have this
// process connect to, and watch, each of them. Owned by the Runtime; any
// thread.
class PeerTable {
  public:
    static constexpr size_t kMaxEndpointsPerProcess = 4;

    PeerTable(ThreadPool& pool, PeerDeathListener& deaths, Connection::RingSweeper& rings,
              uint64_t ownEndpoint)
        : mPool(pool), mDeaths(deaths), mRings(rings), mOwnEndpoint(ownEndpoint) {}

    // The live peer for `endpoint`, made on first use.
    sp<Peer> obtain(uint64_t endpoint);
    // The live peer for `endpoint`, or null when none is known.
    sp<Peer> find(uint64_t endpoint);
    // A pool thread forgets the peer that was just marked dead and tells the
    // listener.
    void forgetLater(const sp<Peer>& peer);

    // Counts one more live endpoint of `pid`: false beyond its share, or
    // when as many endpoints are watched as the process may watch.
    [[nodiscard]] bool admitEndpointOf(pid_t pid);
    void endpointGone(pid_t pid);
    void setMaxWatched(size_t endpoints) { mMaxWatched = endpoints; }

  private:
    void forget(Peer* peer);

    ThreadPool& mPool;
    PeerDeathListener& mDeaths;
    Connection::RingSweeper& mRings;  // for the peers' connections
    const uint64_t mOwnEndpoint;
    size_t mMaxWatched = SIZE_MAX;  // set once, before any peer

    Mutex mLock TV_ACQUIRED_AFTER(Peer::mLock){LockRank::kPeerTable};
    std::unordered_map<uint64_t, sp<Peer>> mPeers TV_GUARDED_BY(mLock);
    std::unordered_map<pid_t, size_t> mEndpointsPerPid TV_GUARDED_BY(mLock);
    size_t mWatched TV_GUARDED_BY(mLock) = 0;
};

}  // namespace tvbinder
}  // namespace android
