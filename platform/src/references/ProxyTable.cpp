#include "references/ProxyTable.h"

#include "peers/Peer.h"

namespace android {
namespace tvbinder {

namespace {

thread_local bool tReviving = false;

// Only the table revives a proxy that lost its last strong reference: it
// knows whether the proxy still stands for a reference of its owner.
sp<BpBinder> revive(const wp<BpBinder>& proxy) {
    tReviving = true;
    sp<BpBinder> strong = proxy.promote();
    tReviving = false;
    return strong;
}

}  // namespace

bool ProxyTable::revivingOnThisThread() {
    return tReviving;
}

sp<BpBinder> ProxyTable::obtain(const sp<Peer>& owner, const Token& token) {
    LockGuard guard(mLock);
    wp<BpBinder>& slot = mByOwner[owner->endpoint()][token];
    sp<BpBinder> proxy = revive(slot);
    if (proxy == nullptr) {
        proxy = new BpBinder(owner, token.hi, token.lo);
        slot = proxy;
    }
    return proxy;
}

std::optional<uint32_t> ProxyTable::retire(BpBinder* proxy, bool keep) {
    LockGuard guard(mLock);
    // obtain() revives under this lock: the count is stable here.
    if (proxy->getStrongCount() > 0) return std::nullopt;
    const uint32_t granted = proxy->takeGrantedReferences();
    if (keep) return granted;
    auto owner = mByOwner.find(proxy->owner()->endpoint());
    if (owner == mByOwner.end()) return granted;
    auto entry = owner->second.find(Token{proxy->tokenHi(), proxy->tokenLo()});
    // A newer proxy may already stand in for a dying one.
    if (entry == owner->second.end() || entry->second.unsafe_get() != proxy) return granted;
    owner->second.erase(entry);
    if (owner->second.empty()) mByOwner.erase(owner);
    return granted;
}

std::vector<sp<BpBinder>> ProxyTable::proxiesOf(uint64_t endpoint) {
    std::vector<sp<BpBinder>> proxies;
    LockGuard guard(mLock);
    auto owner = mByOwner.find(endpoint);
    if (owner == mByOwner.end()) return proxies;
    for (auto& entry : owner->second) {
        sp<BpBinder> proxy = revive(entry.second);
        if (proxy != nullptr) proxies.push_back(std::move(proxy));
    }
    return proxies;
}

}  // namespace tvbinder
}  // namespace android
