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

// Whether a receiver's yields to its peer pay. A peer that answers at once
// (a ping-pong sharing one CPU) has the next message ready when the yield
// returns, most of the time; a client that went on to other work after its
// answer never has, and yielding to it cost the receiver a context switch
// more than falling asleep (the time of a round trip, at one call a
// millisecond). After 4 yields in a row that found nothing the next 1, 2,
// 4 ... 64 waits sleep without one; a yield that finds the message ends the
// pause. Several pairs sharing one CPU find it often enough to keep yielding.
// Used by one receiving thread at a time; relaxed atomics, since threads
// hand the receiving over without telling this.
class YieldPayoff {
  public:
    // Whether this wait may yield; false while pausing.
    bool mayYield();
    void record(bool paid);

  private:
    static constexpr uint32_t kUnpaidBeforePause = 4;
    static constexpr uint32_t kLongestPause = 64;
    std::atomic<uint32_t> mWaitsToSkip{0};
    std::atomic<uint32_t> mUnpaid{0};  // yields in a row that found nothing
    std::atomic<uint32_t> mPause{0};   // the last pause's length
};

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
