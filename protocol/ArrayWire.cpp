#include "protocol/ArrayWire.h"

#include <android/log.h>
#include <inttypes.h>

namespace tavrin {
namespace array_wire {
namespace {

constexpr const char* kLogTag = "[Tavrin][IPCClass]";

}  // namespace

bool admitReceivedCount(int32_t count, uint64_t bufferBytes, uint64_t wireBytes, size_t dataAvail,
                        const char* className) {
    if (bufferBytes > UINT32_MAX) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag,
                            "array count[%" PRId32 "] too large,class[%s], read as empty", count,
                            className);
        return false;
    }
    if (wireBytes > dataAvail) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag,
                            "array count[%" PRId32 "] needs %" PRIu64
                            " bytes but %zu are left,class[%s], read as empty",
                            count, wireBytes, dataAvail, className);
        return false;
    }
    return true;
}

void warnAllocationFailed(int32_t count, const char* className) {
    __android_log_print(ANDROID_LOG_WARN, kLogTag,
                        "array count[%" PRId32 "] cannot be allocated,class[%s], read as empty",
                        count, className);
}

void warnReadFailed(int32_t count, const char* className) {
    __android_log_print(ANDROID_LOG_WARN, kLogTag,
                        "array count[%" PRId32 "] read fail,class[%s], read as empty", count,
                        className);
}

}  // namespace array_wire
}  // namespace tavrin
