#include "peers/PeerTable.h"

#include "peers/Peer.h"
#include "threads/ThreadPool.h"

namespace android {
namespace tvbinder {

sp<Peer> PeerTable::obtain(uint64_t endpoint) {
    LockGuard guard(mLock);
    sp<Peer>& slot = mPeers[endpoint];
    if (slot == nullptr || slot->isDead()) {
        slot = new Peer(*this, mPool, mRings, mOwnEndpoint, endpoint);
    }
    return slot;
}

sp<Peer> PeerTable::find(uint64_t endpoint) {
    LockGuard guard(mLock);
    auto it = mPeers.find(endpoint);
    return it != mPeers.end() && !it->second->isDead() ? it->second : nullptr;
}

void PeerTable::forgetLater(const sp<Peer>& peer) {
    mPool.post(new WorkTask([this, peer] {
        forget(peer.get());
        mDeaths.onPeerDead(peer);
    }));
}

void PeerTable::forget(Peer* peer) {
    peer->releaseEndpointShare();
    sp<Peer> dropped;  // released after the lock
    LockGuard guard(mLock);
    auto it = mPeers.find(peer->endpoint());
    if (it != mPeers.end() && it->second.get() == peer) {
        dropped = std::move(it->second);
        mPeers.erase(it);
    }
}

bool PeerTable::admitEndpointOf(pid_t pid) {
    LockGuard guard(mLock);
    if (mWatched >= mMaxWatched) return false;
    size_t& endpoints = mEndpointsPerPid[pid];
    if (endpoints >= kMaxEndpointsPerProcess) return false;
    ++endpoints;
    ++mWatched;
    return true;
}

void PeerTable::endpointGone(pid_t pid) {
    LockGuard guard(mLock);
    auto it = mEndpointsPerPid.find(pid);
    if (it == mEndpointsPerPid.end()) return;
    --mWatched;
    if (--it->second == 0) mEndpointsPerPid.erase(it);
}

}  // namespace tvbinder
}  // namespace android
