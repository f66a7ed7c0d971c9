#define LOG_TAG "tvbinder"

#include "threads/DelayedTasks.h"

#include <errno.h>
#include <log/log.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "threads/ThreadPool.h"

namespace android {
namespace tvbinder {

void DelayedTasks::add(int delayMs, std::function<void()> work) {
    const Clock::time_point now = Clock::now();
    LockGuard guard(mLock);
    const auto added = mWaiting.emplace(now + std::chrono::milliseconds(delayMs), std::move(work));
    if (added == mWaiting.begin()) armForEarliest(now);
}

void DelayedTasks::onEvent(uint32_t /*events*/) {
    // Drained first: an arm() from add() after this is not lost.
    mTimer.takeExpiry();
    std::vector<std::function<void()>> due;
    {
        const Clock::time_point now = Clock::now();
        LockGuard guard(mLock);
        while (!mWaiting.empty() && mWaiting.begin()->first <= now) {
            due.push_back(std::move(mWaiting.begin()->second));
            mWaiting.erase(mWaiting.begin());
        }
        if (!mWaiting.empty()) armForEarliest(now);
    }
    for (std::function<void()>& work : due) mPool.post(new WorkTask(std::move(work)));
    mTimer.giveBack();
}

void DelayedTasks::armForEarliest(Clock::time_point now) {
    using std::chrono::milliseconds;
    // Rounded up, and never 0, which would disarm the timer.
    const auto delay = std::chrono::ceil<milliseconds>(mWaiting.begin()->first - now);
    if (!mTimer.arm(std::max<int64_t>(delay.count(), 1))) {
        ALOGE("cannot arm the timer of delayed work: %s", strerror(errno));
    }
}

}  // namespace tvbinder
}  // namespace android
