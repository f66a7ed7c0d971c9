#pragma once

#include <stdint.h>

#include <atomic>
#include <chrono>

namespace android {
namespace tvbinder {
namespace shm {

// Futex calls on words of a region shared between processes (never the
// private kind: the two processes must meet on the same key).

// Sleeps while *word holds `expected`, at most `timeout`. Returns at once when
// it does not; may return early (a wake, a signal, a spurious return): the
// caller re-checks what it waits for.
void futexWait(std::atomic<uint32_t>* word, uint32_t expected, std::chrono::nanoseconds timeout);
// The same with no time-out, which saves arming a timer: only for a sleeper
// that a thread of this process is bound to wake.
void futexWait(std::atomic<uint32_t>* word, uint32_t expected);

// Wakes up to `waiters` threads sleeping on `word`.
void futexWake(std::atomic<uint32_t>* word, int waiters);

// Whether the calling thread may run on more than one CPU: spinning for a peer
// only makes sense when the peer can run meanwhile. Read once per thread.
bool threadMayRunInParallel();

// The CPU the calling thread runs on plus one (0 stands for unknown); it may
// move at any time: a hint.
uint32_t currentCpu();

// One step of a busy wait: tells the CPU we are spinning.
inline void spinPause() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield" ::: "memory");
#endif
}

}  // namespace shm
}  // namespace tvbinder
}  // namespace android
