#include "PeerTable.h"

#include "Peer.h"

namespace android {
namespace tvbinder {

sp<Peer> PeerTable::obtain(uint64_t endpoint) {
    std::lock_guard<std::mutex> guard(mLock);
    sp<Peer>& slot = mPeers[endpoint];
    if (slot == nullptr || slot->isDead()) slot = new Peer(mRuntime, endpoint);
    return slot;
}

void PeerTable::forget(Peer* peer) {
    sp<Peer> dropped;  // released after the lock
    std::lock_guard<std::mutex> guard(mLock);
    auto it = mPeers.find(peer->endpoint());
    if (it != mPeers.end() && it->second.get() == peer) {
        dropped = std::move(it->second);
        mPeers.erase(it);
    }
}

}  // namespace tvbinder
}  // namespace android
