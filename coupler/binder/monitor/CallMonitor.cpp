#include "coupler/binder/monitor/CallMonitor.h"

#include <algorithm>

namespace tavrin_binder {

const char* callKindName(CallKind kind) {
    switch (kind) {
        case CallKind::kCall:
            return "call";
        case CallKind::kMasterCall:
            return "master-call";
        case CallKind::kUpCall:
            return "up-call";
        case CallKind::kNotify:
            return "notify";
        case CallKind::kNotifyWait:
            return "notify-wait";
    }
    return "?";
}

CallMonitor& CallMonitor::self() {
    static CallMonitor* const monitor = new CallMonitor();
    return *monitor;
}

void CallMonitor::record(CallRecord record) {
    const auto now = std::chrono::steady_clock::now();
    std::lock_guard<std::mutex> hold(mLock);
    if (mRing.empty()) return;  // detached meanwhile
    if (leaseExpiredLocked(now)) {
        detachLocked();
        return;
    }
    mRing[mNext % kCapacity] = std::move(record);
    ++mNext;
}

CallMonitor::Batch CallMonitor::read(const std::vector<const void*>& sources,
                                     const std::string& name, int64_t cursor) {
    Batch batch;
    std::lock_guard<std::mutex> hold(mLock);
    for (const void* source : sources) mNames[source] = name;
    mLastRead = std::chrono::steady_clock::now();
    if (mRing.empty()) {
        mRing.resize(kCapacity);
        sAttached.store(true, std::memory_order_relaxed);
    }
    batch.next = mNext;
    // A cursor from the future belongs to another life of this process.
    if (cursor < 0 || static_cast<uint64_t>(cursor) > mNext) return batch;
    const uint64_t oldest = std::max(mFirstKept, mNext > kCapacity ? mNext - kCapacity : 0);
    const uint64_t first = std::max<uint64_t>(cursor, oldest);
    batch.dropped = first - static_cast<uint64_t>(cursor);
    batch.records.reserve(mNext - first);
    for (uint64_t sequence = first; sequence < mNext; ++sequence) {
        const CallRecord& record = mRing[sequence % kCapacity];
        auto named = mNames.find(record.source);
        batch.records.emplace_back(record, named != mNames.end() ? named->second : "");
    }
    return batch;
}

bool CallMonitor::leaseExpiredLocked(std::chrono::steady_clock::time_point now) const {
    return now - mLastRead > kLease;
}

void CallMonitor::detachLocked() {
    sAttached.store(false, std::memory_order_relaxed);
    std::vector<CallRecord>().swap(mRing);
    mFirstKept = mNext;
}

}  // namespace tavrin_binder
