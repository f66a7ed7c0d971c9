#pragma once

#include <stdint.h>

#include <atomic>

namespace tavrin_binder {

// A number that tells a proxy from every other proxy of the process, also
// from one made later at the same address: death notices that are still
// under way recognise their proxy by it.
inline uint64_t newProxyIdentity() {
    static std::atomic<uint64_t> last{0};
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace tavrin_binder
