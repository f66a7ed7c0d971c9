#include "utils/Semaphore.h"

#include <gnu/libc-version.h>
#include <string.h>

#include <atomic>

namespace tavrin {
namespace {

constexpr int64_t kNanosPerMilli = 1000000;
constexpr int64_t kNanosPerSecond = 1000000000;

const Semaphore::Platform kLibcPlatform = {
    gnu_get_libc_version,
    clock_gettime,
    sem_clockwait,
    sem_timedwait,
};

std::atomic<const Semaphore::Platform*> gPlatform{&kLibcPlatform};

}  // namespace

Semaphore::Semaphore() {
    sem_init(&mSem, 0, 0);
}

Semaphore::Semaphore(int count) {
    sem_init(&mSem, 0, count);
}

Semaphore::~Semaphore() {
    sem_destroy(&mSem);
}

bool Semaphore::wait() {
    return sem_wait(&mSem) == 0;
}

bool Semaphore::post() {
    return sem_post(&mSem) == 0;
}

bool Semaphore::timedWait(int timeoutMs) {
    const Platform& platform = *gPlatform.load(std::memory_order_acquire);
    const bool monotonic = hasClockWait(platform.libcVersion());
    const clockid_t clock = monotonic ? CLOCK_MONOTONIC : CLOCK_REALTIME;
    timespec now;
    if (platform.clockGettime(clock, &now) < 0) return false;
    const timespec deadline = deadlineAfter(now, timeoutMs);
    const int result = monotonic ? platform.clockWait(&mSem, clock, &deadline)
                                 : platform.timedWait(&mSem, &deadline);
    return result == 0;
}

bool Semaphore::hasClockWait(const char* libcVersion) {
    return libcVersion != nullptr && strcmp(libcVersion, "2.30") >= 0;
}

timespec Semaphore::deadlineAfter(const timespec& now, int timeoutMs) {
    const int64_t total = static_cast<int64_t>(timeoutMs) * kNanosPerMilli + now.tv_nsec;
    timespec deadline;
    deadline.tv_sec = now.tv_sec + total / kNanosPerSecond;
    deadline.tv_nsec = total % kNanosPerSecond;
    return deadline;
}

void Semaphore::setPlatform(const Platform* platform) {
    gPlatform.store(platform != nullptr ? platform : &kLibcPlatform, std::memory_order_release);
}

}  // namespace tavrin
