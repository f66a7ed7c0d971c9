#include "ProxyTable.h"

#include "Peer.h"

namespace android {
namespace tvbinder {

sp<BpBinder> ProxyTable::obtain(const sp<Peer>& owner, const Token& token) {
    std::lock_guard<std::mutex> guard(mLock);
    wp<BpBinder>& slot = mByOwner[owner->endpoint()][token];
    sp<BpBinder> proxy = slot.promote();
    if (proxy == nullptr) {
        proxy = new BpBinder(owner, token.hi, token.lo);
        slot = proxy;
    }
    return proxy;
}

void ProxyTable::remove(BpBinder* proxy) {
    std::lock_guard<std::mutex> guard(mLock);
    auto owner = mByOwner.find(proxy->owner()->endpoint());
    if (owner == mByOwner.end()) return;
    auto entry = owner->second.find(Token{proxy->tokenHi(), proxy->tokenLo()});
    // A newer proxy may already stand in for a dying one.
    if (entry == owner->second.end() || entry->second.unsafe_get() != proxy) return;
    owner->second.erase(entry);
    if (owner->second.empty()) mByOwner.erase(owner);
}

std::vector<sp<BpBinder>> ProxyTable::proxiesOf(uint64_t endpoint) {
    std::vector<sp<BpBinder>> proxies;
    std::lock_guard<std::mutex> guard(mLock);
    auto owner = mByOwner.find(endpoint);
    if (owner == mByOwner.end()) return proxies;
    for (auto& entry : owner->second) {
        sp<BpBinder> proxy = entry.second.promote();
        if (proxy != nullptr) proxies.push_back(std::move(proxy));
    }
    return proxies;
}

}  // namespace tvbinder
}  // namespace android
