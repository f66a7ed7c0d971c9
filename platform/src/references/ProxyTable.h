#pragma once

#include <binder/BpBinder.h>
#include <stdint.h>

#include <optional>
#include <unordered_map>
#include <vector>

#include "base/Locks.h"
#include "base/Token.h"

namespace android {
namespace tvbinder {

class Peer;

// The proxies of this process, at most one per remote object. Entries are
// weak: a proxy leaves the table when its last strong reference goes, unless
// it still has death notices to deliver (then a new reference revives it).
// Owned by the Runtime; any thread. Its lock is held while a proxy is made,
// revived or retired: reference count operations only.
class ProxyTable {
  public:
    // The proxy of `token` owned by `owner`, made if there is none alive.
    sp<BpBinder> obtain(const sp<Peer>& owner, const Token& token);
    // Called by a proxy that lost its last strong reference: nothing when a
    // new one revived it meanwhile. Else it leaves the table (unless `keep`)
    // and the references its owner granted are handed back.
    [[nodiscard]] std::optional<uint32_t> retire(BpBinder* proxy, bool keep);
    // The live proxies of one owner, for its death notices.
    std::vector<sp<BpBinder>> proxiesOf(uint64_t endpoint);
    // True while the table revives a proxy on the calling thread.
    static bool revivingOnThisThread();

  private:
    using Proxies = std::unordered_map<Token, wp<BpBinder>, TokenHash>;
    Mutex mLock{LockRank::kProxies};
    std::unordered_map<uint64_t, Proxies> mByOwner TV_GUARDED_BY(mLock);
};

}  // namespace tvbinder
}  // namespace android
