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
// Ends a sleep that has no time-out, from another thread of this process.
// Its word is private to the process: a peer that rewrites the shared word,
// or requeues its sleepers elsewhere, cannot keep a stop from waking the
// sleeper.
class SleepStop {
  public:
    // Any thread: the sleeper sees the stop before it sleeps, or is woken.
    void stop();
    bool stopped() const { return mWord.load(std::memory_order_seq_cst) != 0; }
    std::atomic<uint32_t>* word() { return &mWord; }

  private:
    std::atomic<uint32_t> mWord{0};
};

// Sleeps while *word holds `expected` and `stop` was not stopped, with no
// time-out (arming a timer costs more than the rest of a round trip on one
// CPU). Without futex_waitv (before Linux 5.16) it sleeps 10 ms at most.
void futexWait(std::atomic<uint32_t>* word, uint32_t expected, SleepStop& stop);

// Wakes up to `waiters` threads sleeping on `word`.
void futexWake(std::atomic<uint32_t>* word, int waiters);

// Whether the calling thread may run on more than one CPU: spinning for a peer
// only makes sense when the peer can run meanwhile. Read once per thread.
bool threadMayRunInParallel();

// The CPU the calling thread runs on plus one (0 stands for unknown); it may
// move at any time: a hint.
uint32_t currentCpu();

// Yields the CPU once, for a peer that needs it: false, without yielding,
// while this thread's yields have lately taken long. The scheduler charges a
// yield against the yielder's share of its CPU, so that beside a busy task
// every yield would hand that task a slice; the thread then sleeps instead of
// yielding, for a pause that doubles each time.
bool yieldUnlessCrowded();

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
