#pragma once

#include <stdint.h>
#include <time.h>

namespace android {
namespace tvbinder {

// Milliseconds of the monotonic clock: for deadlines and ages.
inline int64_t monotonicMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace tvbinder
}  // namespace android
