#pragma once

#include <semaphore.h>
#include <time.h>

namespace tavrin {

// An unnamed, process-private POSIX semaphore with an untimed and a timed
// wait. The timed wait measures its deadline on CLOCK_MONOTONIC when the C
// library offers sem_clockwait (glibc 2.30 on), so that changes of the wall
// clock neither shorten nor lengthen it; older C libraries wait against
// CLOCK_REALTIME.
class Semaphore {
  public:
    // The C library calls behind timedWait, replaceable so that both clock
    // paths can be exercised whatever C library runs the program.
    struct Platform {
        const char* (*libcVersion)();
        int (*clockGettime)(clockid_t clock, timespec* now);
        int (*clockWait)(sem_t* sem, clockid_t clock, const timespec* deadline);
        int (*timedWait)(sem_t* sem, const timespec* deadline);
    };

    Semaphore();
    explicit Semaphore(int count);
    ~Semaphore();
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    // Each returns true when the underlying call succeeded.
    bool wait();
    bool post();
    // Waits at most `timeoutMs` milliseconds; true when the semaphore was
    // taken. A signal ends the wait early with false (callers wait again for
    // the time left). A negative timeout fails at once.
    bool timedWait(int timeoutMs);

    // Whether the C library of this version string offers sem_clockwait.
    // Compared byte-wise with "2.30", so "2.100" counts as older; null
    // means no.
    static bool hasClockWait(const char* libcVersion);
    // `timeoutMs` after `now`, in 64-bit arithmetic, truncating toward zero.
    static timespec deadlineAfter(const timespec& now, int timeoutMs);

    // Replaces the C library calls of every Semaphore; null restores the
    // real ones. For tests, while no timedWait runs.
    static void setPlatform(const Platform* platform);

  private:
    sem_t mSem;
};

}  // namespace tavrin
