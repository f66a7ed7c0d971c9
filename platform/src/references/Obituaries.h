#pragma once

#include <binder/BpBinder.h>

#include "peers/PeerTable.h"

namespace android {
namespace tvbinder {

class ExportTable;
class ProxyTable;
class ThreadPool;

// What follows a peer's death here, on a pool thread: the references it held
// on this process's objects are dropped (their destructors run without any
// transport lock), and each of its proxies delivers its death notices.
// Owned by the Runtime.
class Obituaries : public PeerDeathListener {
  public:
    Obituaries(ExportTable& exports, ProxyTable& proxies, ThreadPool& pool)
        : mExports(exports), mProxies(proxies), mPool(pool) {}

    void onPeerDead(const sp<Peer>& peer) override;
    // Has a pool thread deliver the death notices of a proxy whose owner died.
    void deliverLater(const sp<BpBinder>& proxy);

  private:
    ExportTable& mExports;
    ProxyTable& mProxies;
    ThreadPool& mPool;
};

}  // namespace tvbinder
}  // namespace android
