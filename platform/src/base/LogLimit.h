#pragma once

#include <log/log.h>
#include <stddef.h>
#include <stdint.h>

#include <atomic>

#include "base/Clock.h"

namespace android {
namespace tvbinder {

// The limit of one place that logs what another process can make this one
// log again and again (a malformed frame per connection, a refusal per
// claim): a line at most once a period, telling how many were left out
// since the last. Lock-free; any thread.
class LogLimit {
  public:
    static constexpr int64_t kPeriodMs = 1000;

    // True when a line may be written at `nowMs`; then `*omitted` is how many
    // were left out before it.
    bool admit(int64_t nowMs, size_t* omitted) {
        int64_t next = mNextMs.load(std::memory_order_relaxed);
        if (nowMs < next ||
            !mNextMs.compare_exchange_strong(next, nowMs + kPeriodMs, std::memory_order_relaxed)) {
            mOmitted.fetch_add(1, std::memory_order_relaxed);
            return false;
        }
        *omitted = mOmitted.exchange(0, std::memory_order_relaxed);
        return true;
    }

  private:
    std::atomic<int64_t> mNextMs{INT64_MIN};
    std::atomic<size_t> mOmitted{0};
};

}  // namespace tvbinder
}  // namespace android

// ALOGW, at most once a second from this place in the code.
#define TV_ALOGW_LIMITED(format, ...)                                                         \
    do {                                                                                      \
        static ::android::tvbinder::LogLimit tvLimit;                                         \
        size_t tvOmitted = 0;                                                                 \
        if (!tvLimit.admit(::android::tvbinder::monotonicMs(), &tvOmitted)) break;            \
        if (tvOmitted == 0) {                                                                 \
            ALOGW(format, ##__VA_ARGS__);                                                     \
        } else {                                                                              \
            ALOGW(format " (and %zu more like it since the last)", ##__VA_ARGS__, tvOmitted); \
        }                                                                                     \
    } while (0)
