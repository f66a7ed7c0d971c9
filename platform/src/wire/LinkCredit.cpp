#include "wire/LinkCredit.h"

#include "wire/Frame.h"

namespace android {
namespace tvbinder {

std::optional<uint64_t> LinkCredit::tryTake(uint64_t cost) {
    uint64_t sent = mSent.load(std::memory_order_acquire);
    for (;;) {
        const uint64_t outstanding = sent - mAcked.load(std::memory_order_acquire);
        if (!fitsOneWayBudget(outstanding, cost)) return std::nullopt;
        if (mSent.compare_exchange_weak(sent, sent + cost)) return outstanding;
    }
}

void LinkCredit::giveBack(uint64_t cost) {
    mSent.fetch_sub(cost);
}

void LinkCredit::onAck(uint64_t consumed) {
    uint64_t acked = mAcked.load(std::memory_order_acquire);
    while (consumed > acked && consumed <= mSent.load() &&
           !mAcked.compare_exchange_weak(acked, consumed)) {
    }
}

uint64_t LinkCredit::outstanding() const {
    return mSent.load(std::memory_order_acquire) - mAcked.load(std::memory_order_acquire);
}

}  // namespace tvbinder
}  // namespace android
