#include "threads/PoolTimer.h"

#include <errno.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "threads/ThreadPool.h"

namespace android {
namespace tvbinder {

status_t PoolTimer::init() {
    mFd = ScopedFd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!mFd.valid()) return -errno;
    mPool.add(&mOwner, mFd.get());
    return NO_ERROR;
}

namespace {

timespec fromMillis(int64_t ms) {
    return {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
}

}  // namespace

bool PoolTimer::set(int64_t firstMs, int64_t periodMs) {
    const itimerspec times{fromMillis(periodMs), fromMillis(firstMs)};
    return timerfd_settime(mFd.get(), 0, &times, nullptr) == 0;
}

void PoolTimer::takeExpiry() {
    uint64_t expirations;
    ssize_t drained = read(mFd.get(), &expirations, sizeof(expirations));
    (void)drained;
}

void PoolTimer::giveBack() {
    mPool.rearm(&mOwner, mFd.get());
}

}  // namespace tvbinder
}  // namespace android
