#include "references/Obituaries.h"

#include "peers/Peer.h"
#include "references/ExportTable.h"
#include "references/ProxyTable.h"
#include "threads/ThreadPool.h"

namespace android {
namespace tvbinder {

void Obituaries::onPeerDead(const sp<Peer>& peer) {
    // The objects it held may go now; their destructors run without our locks.
    std::vector<sp<BBinder>> released = mExports.dropHolder(peer->endpoint());
    released.clear();
    for (const sp<BpBinder>& proxy : mProxies.proxiesOf(peer->endpoint())) proxy->sendObituary();
}

void Obituaries::deliverLater(const sp<BpBinder>& proxy) {
    mPool.post(new WorkTask([proxy] { proxy->sendObituary(); }));
}

}  // namespace tvbinder
}  // namespace android
