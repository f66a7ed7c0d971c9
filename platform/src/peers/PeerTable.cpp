#include "peers/PeerTable.h"

#include "peers/Peer.h"

namespace android {
namespace tvbinder {

sp<Peer> PeerTable::obtain(uint64_t endpoint) {
    std::lock_guard<std::mutex> guard(mLock);
    sp<Peer>& slot = mPeers[endpoint];
    if (slot == nullptr || slot->isDead()) slot = new Peer(mRuntime, endpoint);
    return slot;
}

sp<Peer> PeerTable::find(uint64_t endpoint) {
    std::lock_guard<std::mutex> guard(mLock);
    auto it = mPeers.find(endpoint);
    return it != mPeers.end() && !it->second->isDead() ? it->second : nullptr;
}

void PeerTable::forget(Peer* peer) {
    peer->releaseEndpointShare();
    sp<Peer> dropped;  // released after the lock
    std::lock_guard<std::mutex> guard(mLock);
    auto it = mPeers.find(peer->endpoint());
    if (it != mPeers.end() && it->second.get() == peer) {
        dropped = std::move(it->second);
        mPeers.erase(it);
    }
}

bool PeerTable::admitEndpointOf(pid_t pid) {
    std::lock_guard<std::mutex> guard(mLock);
    if (mWatched >= mMaxWatched) return false;
    size_t& endpoints = mEndpointsPerPid[pid];
    if (endpoints >= kMaxEndpointsPerProcess) return false;
    ++endpoints;
    ++mWatched;
    return true;
}

void PeerTable::endpointGone(pid_t pid) {
    std::lock_guard<std::mutex> guard(mLock);
    auto it = mEndpointsPerPid.find(pid);
    if (it == mEndpointsPerPid.end()) return;
    --mWatched;
    if (--it->second == 0) mEndpointsPerPid.erase(it);
}

}  // namespace tvbinder
}  // namespace android
