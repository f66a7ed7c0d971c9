#include "references/ExportTable.h"

#include "peers/Peer.h"

namespace android {
namespace tvbinder {

Token ExportTable::tokenFor(BBinder* binder) {
    LockGuard guard(mLock);
    auto known = mTokens.find(binder);
    if (known != mTokens.end()) return known->second;
    Token token = Token::random();
    Entry& entry = mEntries[token];
    entry.weak = binder;
    mTokens.emplace(binder, token);
    return token;
}

sp<BBinder> ExportTable::lookup(const Token& token, uint64_t holder) {
    LockGuard guard(mLock);
    auto it = mEntries.find(token);
    if (it == mEntries.end()) return nullptr;
    Entry& entry = it->second;
    if (!entry.permanent) {
        auto held = entry.holders.find(holder);
        if (held == entry.holders.end() || held->second == 0) return nullptr;
    }
    return entry.weak.promote();
}

status_t ExportTable::grant(const Token& token, const Peer& holder) {
    {
        LockGuard guard(mLock);
        auto it = mEntries.find(token);
        if (it == mEntries.end()) return NAME_NOT_FOUND;
        Entry& entry = it->second;
        if (entry.strong == nullptr) {
            entry.strong = entry.weak.promote();
            if (entry.strong == nullptr) return DEAD_OBJECT;
        }
        ++entry.holders[holder.endpoint()];
    }
    // The holder's death may have been handled just before the count went
    // up; then nobody else would drop it.
    if (holder.isDead()) {
        sp<BBinder> last = release(token, holder.endpoint(), 1);  // dropped here, unlocked
        return DEAD_OBJECT;
    }
    return NO_ERROR;
}

sp<BBinder> ExportTable::releaseLocked(Entry& entry, uint64_t holder, uint64_t count) {
    auto held = entry.holders.find(holder);
    if (held == entry.holders.end()) return nullptr;
    if (held->second > count) {
        held->second -= count;
        return nullptr;
    }
    entry.holders.erase(held);
    if (entry.holders.empty() && !entry.permanent) return std::move(entry.strong);
    return nullptr;
}

sp<BBinder> ExportTable::release(const Token& token, uint64_t holder, uint64_t count) {
    LockGuard guard(mLock);
    auto it = mEntries.find(token);
    return it == mEntries.end() ? nullptr : releaseLocked(it->second, holder, count);
}

std::vector<sp<BBinder>> ExportTable::dropHolder(uint64_t holder) {
    std::vector<sp<BBinder>> released;
    LockGuard guard(mLock);
    for (auto& item : mEntries) {
        sp<BBinder> last = releaseLocked(item.second, holder, UINT64_MAX);
        if (last != nullptr) released.push_back(std::move(last));
    }
    return released;
}

std::optional<Token> ExportTable::forget(const BBinder* binder) {
    LockGuard guard(mLock);
    auto known = mTokens.find(binder);
    if (known == mTokens.end()) return std::nullopt;
    const Token token = known->second;
    mEntries.erase(token);
    mTokens.erase(known);
    return token;
}

void ExportTable::setContextObject(const sp<BBinder>& object) {
    sp<BBinder> previous;  // dropped after the lock: its destructor calls forget()
    LockGuard guard(mLock);
    auto known = mTokens.find(object.get());
    if (known != mTokens.end()) {
        mEntries.erase(known->second);
        mTokens.erase(known);
    }
    Entry& entry = mEntries[kContextToken];
    if (entry.strong != nullptr) mTokens.erase(entry.strong.get());
    previous = std::move(entry.strong);
    entry.weak = object;
    entry.strong = object;
    entry.permanent = true;
    mTokens[object.get()] = kContextToken;
}

sp<BBinder> ExportTable::contextObject() {
    LockGuard guard(mLock);
    auto it = mEntries.find(kContextToken);
    return it == mEntries.end() ? nullptr : it->second.strong;
}

size_t ExportTable::heldCount() {
    LockGuard guard(mLock);
    size_t count = 0;
    for (auto& item : mEntries) {
        if (item.second.strong != nullptr && !item.second.permanent) ++count;
    }
    return count;
}

}  // namespace tvbinder
}  // namespace android
