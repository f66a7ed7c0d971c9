#pragma once

#include <stdint.h>

#include <atomic>
#include <optional>

namespace android {
namespace tvbinder {

// The sending end's count of the one-ways on one link, in oneWayCost() units:
// what it sent and what the receiver acknowledged having consumed. A one-way
// is sent only while the budget has room for it (fitsOneWayBudget), so the
// receiver never has to refuse one. One per link connection, lock-free; any
// thread.
class LinkCredit {
  public:
    // Takes `cost` from the budget: what was outstanding before, or nothing
    // (and nothing taken) when it does not fit.
    [[nodiscard]] std::optional<uint64_t> tryTake(uint64_t cost);
    // Gives back what tryTake took for a one-way that was not sent after all.
    void giveBack(uint64_t cost);
    // An acknowledgement: the receiver consumed `consumed` in all. Totals
    // only grow; a stale one, or one beyond what was sent, changes nothing.
    void onAck(uint64_t consumed);
    // Sent and not yet acknowledged.
    uint64_t outstanding() const;

  private:
    std::atomic<uint64_t> mSent{0};
    std::atomic<uint64_t> mAcked{0};
};

}  // namespace tvbinder
}  // namespace android
