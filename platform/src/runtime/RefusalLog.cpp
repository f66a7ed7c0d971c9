#define LOG_TAG "tvbinder"

#include "runtime/RefusalLog.h"

#include <log/log.h>

namespace android {
namespace tvbinder {

void RefusalLog::record(const Counts& pass, Clock::time_point now) {
    mUntold.otherUser += pass.otherUser;
    mUntold.overShare += pass.overShare;
    mUntold.noDescriptor += pass.noDescriptor;
    mUntold.evicted += pass.evicted;
    if (pass.lastRefused != 0) mUntold.lastRefused = pass.lastRefused;
    if (pass.lastEvicted != 0) mUntold.lastEvicted = pass.lastEvicted;
    const bool any =
        mUntold.otherUser + mUntold.overShare + mUntold.noDescriptor + mUntold.evicted > 0;
    if (!any || now - mLastTold < kPeriod) return;
    log();
    mUntold = Counts{};
    mLastTold = now;
}

void RefusalLog::log() const {
    if (mUntold.otherUser > 0) {
        ALOGW("refused %zu connections of other users (the last from pid %d)", mUntold.otherUser,
              mUntold.lastRefused);
    }
    if (mUntold.overShare > 0) {
        ALOGW("too many connections: refused %zu (the last from pid %d)", mUntold.overShare,
              mUntold.lastRefused);
    }
    if (mUntold.noDescriptor > 0) {
        ALOGW("out of descriptors: refused %zu connections", mUntold.noDescriptor);
    }
    if (mUntold.evicted > 0) {
        ALOGW("all connections taken: closed %zu for newcomers (the last of pid %d)",
              mUntold.evicted, mUntold.lastEvicted);
    }
}

}  // namespace tvbinder
}  // namespace android
