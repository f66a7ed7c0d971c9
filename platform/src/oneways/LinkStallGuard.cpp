#include "oneways/LinkStallGuard.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <vector>

#include "base/Clock.h"
#include "runtime/Runtime.h"

namespace android {
namespace tvbinder {

namespace {

// How long a link may stay held by one thread that runs its one-ways.
constexpr int64_t kStallMs = 2;

}  // namespace

LinkStallGuard::LinkStallGuard(Runtime& runtime) : EventSource(Type::kTimer), mRuntime(runtime) {}

status_t LinkStallGuard::init() {
    mTimer = ScopedFd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!mTimer.valid()) return -errno;
    mRuntime.pool().add(this, mTimer.get());
    return NO_ERROR;
}

void LinkStallGuard::armTimer() {
    itimerspec period{};
    period.it_value.tv_nsec = kStallMs * 1000000;
    timerfd_settime(mTimer.get(), 0, &period, nullptr);
    mTimerArmed = true;
}

void LinkStallGuard::hold(const sp<Connection>& link) {
    std::lock_guard<std::mutex> guard(mLock);
    mHeld[link.get()] = {link, monotonicMs()};
    if (!mTimerArmed) armTimer();
}

bool LinkStallGuard::release(const sp<Connection>& link) {
    std::lock_guard<std::mutex> guard(mLock);
    return mHeld.erase(link.get()) > 0;
}

void LinkStallGuard::onTimer() {
    uint64_t expirations;
    ssize_t drained = read(mTimer.get(), &expirations, sizeof(expirations));
    (void)drained;
    std::vector<sp<Connection>> stalled;
    {
        std::lock_guard<std::mutex> guard(mLock);
        mTimerArmed = false;
        const int64_t now = monotonicMs();
        for (auto it = mHeld.begin(); it != mHeld.end();) {
            if (now - it->second.second >= kStallMs) {
                stalled.push_back(std::move(it->second.first));
                it = mHeld.erase(it);
            } else {
                ++it;
            }
        }
        if (!mHeld.empty()) armTimer();
    }
    mRuntime.pool().rearm(this, mTimer.get());
    for (const sp<Connection>& link : stalled) mRuntime.rearm(link);
}

}  // namespace tvbinder
}  // namespace android
