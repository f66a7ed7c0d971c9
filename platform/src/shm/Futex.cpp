#include "Futex.h"

#include <errno.h>
#include <limits.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace android {
namespace tvbinder {
namespace shm {

namespace {

using Clock = std::chrono::steady_clock;

// Between a thread and its peer alone a yield takes a few microseconds; when
// the thread's yields average this long they met another busy task (or a
// peer at work for long, where yielding gains nothing).
constexpr auto kYieldTooLong = std::chrono::microseconds(100);
constexpr int kYieldAverageWeight = 16;  // the newest yield counts for 1/16
constexpr auto kFirstYieldPause = std::chrono::milliseconds(10);
constexpr auto kLongestYieldPause = std::chrono::seconds(10);

struct YieldBackoff {
    Clock::time_point noYieldBefore;
    Clock::duration pause = kFirstYieldPause;
    Clock::duration average{0};
};
thread_local YieldBackoff tYieldBackoff;

}  // namespace

void futexWait(std::atomic<uint32_t>* word, uint32_t expected, std::chrono::nanoseconds timeout) {
    if (timeout.count() <= 0) return;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout);
    timespec relative{static_cast<time_t>(seconds.count()),
                      static_cast<long>((timeout - seconds).count())};
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT, expected, &relative, nullptr,
            0);
}

void SleepStop::stop() {
    mWord.store(1, std::memory_order_seq_cst);
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(&mWord), FUTEX_WAKE_PRIVATE, INT_MAX, nullptr,
            nullptr, 0);
}

void futexWait(std::atomic<uint32_t>* word, uint32_t expected, SleepStop& stop) {
    futex_waitv waiters[2] = {};
    waiters[0].val = expected;
    waiters[0].uaddr = reinterpret_cast<uintptr_t>(word);
    waiters[0].flags = FUTEX_32;
    waiters[1].val = 0;
    waiters[1].uaddr = reinterpret_cast<uintptr_t>(stop.word());
    waiters[1].flags = FUTEX_32 | FUTEX_PRIVATE_FLAG;
    if (syscall(SYS_futex_waitv, waiters, 2, 0, nullptr, CLOCK_MONOTONIC) < 0 && errno == ENOSYS) {
        futexWait(word, expected, std::chrono::milliseconds(10));
    }
}

void futexWake(std::atomic<uint32_t>* word, int waiters) {
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAKE, waiters, nullptr, nullptr, 0);
}

uint32_t currentCpu() {
    return static_cast<uint32_t>(sched_getcpu() + 1);
}

bool threadMayRunInParallel() {
    thread_local const bool parallel = [] {
        cpu_set_t cpus;
        CPU_ZERO(&cpus);
        return sched_getaffinity(0, sizeof cpus, &cpus) == 0 && CPU_COUNT(&cpus) > 1;
    }();
    return parallel;
}

bool yieldUnlessCrowded() {
    YieldBackoff& backoff = tYieldBackoff;
    const Clock::time_point start = Clock::now();
    if (start < backoff.noYieldBefore) return false;
    sched_yield();
    backoff.average += (Clock::now() - start - backoff.average) / kYieldAverageWeight;
    if (backoff.average > kYieldTooLong) {
        backoff.average = Clock::duration(0);
        backoff.noYieldBefore = start + backoff.pause;
        backoff.pause = std::min<Clock::duration>(backoff.pause * 2, kLongestYieldPause);
    }
    return true;
}

bool YieldPayoff::mayYield() {
    const uint32_t skip = mWaitsToSkip.load(std::memory_order_relaxed);
    if (skip == 0) return true;
    mWaitsToSkip.store(skip - 1, std::memory_order_relaxed);
    return false;
}

void YieldPayoff::record(bool paid) {
    if (paid) {
        mUnpaid.store(0, std::memory_order_relaxed);
        mPause.store(0, std::memory_order_relaxed);
        return;
    }
    const uint32_t unpaid = mUnpaid.load(std::memory_order_relaxed) + 1;
    mUnpaid.store(unpaid, std::memory_order_relaxed);
    if (unpaid < kUnpaidBeforePause) return;
    const uint32_t pause =
        std::min(std::max(mPause.load(std::memory_order_relaxed) * 2, 1u), kLongestPause);
    mPause.store(pause, std::memory_order_relaxed);
    mWaitsToSkip.store(pause, std::memory_order_relaxed);
}

}  // namespace shm
}  // namespace tvbinder
}  // namespace android
