#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <utils/RefBase.h>

#include <mutex>
#include <unordered_map>

namespace android {
namespace tvbinder {

class Peer;
class Runtime;

// The processes this one knows, by endpoint id. A peer stays listed until it
// is known dead; proxies keep their owner's Peer alive beyond that. Counts the
// live endpoints each process serves: a process has one (two for a moment
// after an exec), so one that listens on many addresses cannot have this
// process connect to, and watch, each of them. Owned by the Runtime; used
// from every thread.
class PeerTable {
  public:
    static constexpr size_t kMaxEndpointsPerProcess = 4;

    explicit PeerTable(Runtime& runtime) : mRuntime(runtime) {}

    // The live peer for `endpoint`, made on first use.
    sp<Peer> obtain(uint64_t endpoint);
    // The live peer for `endpoint`, or null when none is known.
    sp<Peer> find(uint64_t endpoint);
    void forget(Peer* peer);

    // Counts one more live endpoint of `pid`: false beyond its share, or
    // when as many endpoints are watched as the process may watch.
    bool admitEndpointOf(pid_t pid);
    void endpointGone(pid_t pid);
    void setMaxWatched(size_t endpoints) { mMaxWatched = endpoints; }

  private:
    Runtime& mRuntime;
    std::mutex mLock;  // guards everything below
    std::unordered_map<uint64_t, sp<Peer>> mPeers;
    std::unordered_map<pid_t, size_t> mEndpointsPerPid;
    size_t mWatched = 0;
    size_t mMaxWatched = SIZE_MAX;  // set once, before any peer
};

}  // namespace tvbinder
}  // namespace android
