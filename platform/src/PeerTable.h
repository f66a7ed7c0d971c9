#pragma once

#include <stdint.h>
#include <utils/RefBase.h>

#include <mutex>
#include <unordered_map>

namespace android {
namespace tvbinder {

class Peer;
class Runtime;

// The processes this one knows, by endpoint id. A peer stays listed until it
// is known dead; proxies keep their owner's Peer alive beyond that.
class PeerTable {
  public:
    explicit PeerTable(Runtime& runtime) : mRuntime(runtime) {}

    // The live peer for `endpoint`, made on first use.
    sp<Peer> obtain(uint64_t endpoint);
    void forget(Peer* peer);

  private:
    Runtime& mRuntime;
    std::mutex mLock;
    std::unordered_map<uint64_t, sp<Peer>> mPeers;
};

}  // namespace tvbinder
}  // namespace android
