#pragma once

#include <stdint.h>

#include <atomic>
#include <optional>

namespace android {
namespace tvbinder {

// The receiving end's count of the one-ways on one link, in oneWayCost()
// units: what arrived, what was consumed (ran, or was dropped unrun), and
// what the sender was last told was consumed. The sender learns every
// kAckInterval, and at once when it asks. One per accepted link; the thread
// reading the link admits, any thread consumes. Lock-free.
class LinkBacklog {
  public:
    // A one-way of `cost` arrived: false when it does not fit the budget,
    // which a sender that keeps its count never lets happen.
    [[nodiscard]] bool admit(uint64_t cost);
    // A one-way of `cost` was consumed: the total to acknowledge when an
    // acknowledgement is due, and this caller is the one to send it.
    [[nodiscard]] std::optional<uint64_t> consume(uint64_t cost);
    // The sender asks for an acknowledgement: the total to acknowledge now,
    // or nothing when the next consume() answers instead.
    [[nodiscard]] std::optional<uint64_t> onAckRequest();
    // Arrived and not yet consumed.
    uint64_t waiting() const;

  private:
    std::atomic<uint64_t> mReceived{0};  // written by the reading thread only
    std::atomic<uint64_t> mConsumed{0};
    std::atomic<uint64_t> mAcked{0};
    std::atomic<bool> mAckWanted{false};
};

}  // namespace tvbinder
}  // namespace android
