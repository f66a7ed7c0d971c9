#include "wire/LinkBacklog.h"

#include "wire/Frame.h"

namespace android {
namespace tvbinder {

bool LinkBacklog::admit(uint64_t cost) {
    const uint64_t received = mReceived.load(std::memory_order_relaxed);
    if (!fitsOneWayBudget(received - mConsumed.load(std::memory_order_acquire), cost)) {
        return false;
    }
    mReceived.store(received + cost, std::memory_order_relaxed);
    return true;
}

std::optional<uint64_t> LinkBacklog::consume(uint64_t cost) {
    const uint64_t total = mConsumed.fetch_add(cost, std::memory_order_acq_rel) + cost;
    uint64_t acked = mAcked.load(std::memory_order_acquire);
    if (total - acked < kAckInterval && !mAckWanted.exchange(false)) return std::nullopt;
    // One thread sends the acknowledgement; it carries the total, so a late
    // or lost one is made good by the next.
    if (!mAcked.compare_exchange_strong(acked, total, std::memory_order_acq_rel)) {
        return std::nullopt;
    }
    return total;
}

std::optional<uint64_t> LinkBacklog::onAckRequest() {
    mAckWanted.store(true);
    const uint64_t consumed = mConsumed.load(std::memory_order_acquire);
    uint64_t acked = mAcked.load(std::memory_order_acquire);
    if (consumed == acked ||
        !mAcked.compare_exchange_strong(acked, consumed, std::memory_order_acq_rel)) {
        return std::nullopt;  // the next consumed call answers
    }
    mAckWanted.store(false);
    return consumed;
}

uint64_t LinkBacklog::waiting() const {
    return mReceived.load(std::memory_order_relaxed) - mConsumed.load(std::memory_order_acquire);
}

}  // namespace tvbinder
}  // namespace android
