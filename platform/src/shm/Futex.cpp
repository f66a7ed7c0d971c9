#include "Futex.h"

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

void futexWait(std::atomic<uint32_t>* word, uint32_t expected) {
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT, expected, nullptr, nullptr,
            0);
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
