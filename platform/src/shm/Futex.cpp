#include "Futex.h"

#include <errno.h>
#include <limits.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace android {
namespace tvbinder {
namespace shm {

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

}  // namespace shm
}  // namespace tvbinder
}  // namespace android
