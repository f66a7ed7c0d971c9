// TAVRIN_LOG: the least priority a process logs, read once when the binder
// library is loaded, so that trace and debug lines can be had without code.
#define LOG_TAG "tvbinder"

#include <android/log.h>
#include <log/log.h>
#include <stdlib.h>
#include <strings.h>

namespace android {
namespace tvbinder {
namespace {

constexpr const char* kLevelVariable = "TAVRIN_LOG";

struct NamedPriority {
    const char* name;
    int priority;
};

constexpr NamedPriority kPriorities[] = {
    {"verbose", ANDROID_LOG_VERBOSE}, {"debug", ANDROID_LOG_DEBUG}, {"info", ANDROID_LOG_INFO},
    {"warn", ANDROID_LOG_WARN},       {"error", ANDROID_LOG_ERROR},
};

__attribute__((constructor)) void applyLogLevelFromEnvironment() {
    const char* text = getenv(kLevelVariable);
    if (text == nullptr || text[0] == '\0') return;
    for (const NamedPriority& level : kPriorities) {
        if (strcasecmp(text, level.name) == 0) {
            __android_log_set_minimum_priority(level.priority);
            return;
        }
    }
    ALOGW("ignoring %s=%s: not one of verbose, debug, info, warn, error", kLevelVariable, text);
}

}  // namespace
}  // namespace tvbinder
}  // namespace android
