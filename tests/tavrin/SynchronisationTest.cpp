#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "utils/AutoLock.h"
#include "utils/Mutex.h"
#include "utils/Semaphore.h"

namespace {

using tavrin::Semaphore;

void expectDeadline(timespec now, int timeoutMs, time_t seconds, long nanos) {
    const timespec deadline = Semaphore::deadlineAfter(now, timeoutMs);
    EXPECT_EQ(deadline.tv_sec, seconds) << timeoutMs;
    EXPECT_EQ(deadline.tv_nsec, nanos) << timeoutMs;
}

TEST(SemaphoreDeadline, IsComputedInSixtyFourBitsAndTheClockChosenByLibcVersion) {
    expectDeadline({5, 999999999}, 1, 6, 999999);
    expectDeadline({100, 500000000}, INT32_MAX, 100 + 2147484, 147000000);
    expectDeadline({5, 100}, -1, 5, -999900);
    expectDeadline({5, 0}, -2500, 3, -500000000);
    // The monotonic clock needs a version comparing at least "2.30" byte-wise.
    EXPECT_TRUE(Semaphore::hasClockWait("2.30"));
    EXPECT_TRUE(Semaphore::hasClockWait("2.39"));
    EXPECT_FALSE(Semaphore::hasClockWait("2.29"));
    EXPECT_FALSE(Semaphore::hasClockWait("2.100"));
    EXPECT_FALSE(Semaphore::hasClockWait(nullptr));
}

// Stands in for the C library so that both clock paths run on any machine.
struct FakeLibc {
    static constexpr clockid_t kPlainTimedWait = -1;
    static inline const char* version = nullptr;
    static inline int clockResult = 0;
    static inline std::vector<clockid_t> clocksRead;
    static inline std::vector<clockid_t> waits;  // the clock of each wait
    static inline timespec deadline{};

    static void reset(const char* libcVersion, int clockReadResult = 0) {
        version = libcVersion;
        clockResult = clockReadResult;
        clocksRead.clear();
        waits.clear();
    }
    static const char* libcVersion() { return version; }
    static int clockGettime(clockid_t clock, timespec* now) {
        clocksRead.push_back(clock);
        *now = clock == CLOCK_MONOTONIC ? timespec{700, 999000000} : timespec{1600000000, 5};
        return clockResult;
    }
    static int clockWait(sem_t*, clockid_t clock, const timespec* until) {
        waits.push_back(clock);
        deadline = *until;
        return 0;
    }
    static int timedWait(sem_t*, const timespec* until) {
        waits.push_back(kPlainTimedWait);
        deadline = *until;
        return ETIMEDOUT;
    }
    static constexpr Semaphore::Platform kPlatform = {libcVersion, clockGettime, clockWait,
                                                      timedWait};
};

class SemaphoreClockPath : public testing::Test {
  protected:
    void SetUp() override { Semaphore::setPlatform(&FakeLibc::kPlatform); }
    void TearDown() override { Semaphore::setPlatform(nullptr); }
    Semaphore semaphore;
};

TEST_F(SemaphoreClockPath, FollowsTheLibcVersionAndAFailedClockReadWaitsNot) {
    // A recent libc waits on the monotonic clock...
    FakeLibc::reset("2.34");
    EXPECT_TRUE(semaphore.timedWait(2));
    EXPECT_EQ(FakeLibc::clocksRead, std::vector<clockid_t>{CLOCK_MONOTONIC});
    EXPECT_EQ(FakeLibc::waits, std::vector<clockid_t>{CLOCK_MONOTONIC});
    EXPECT_EQ(FakeLibc::deadline.tv_sec, 701);
    EXPECT_EQ(FakeLibc::deadline.tv_nsec, 1000000);
    // ...an older one against the wall clock.
    FakeLibc::reset("2.100");
    EXPECT_FALSE(semaphore.timedWait(1000));
    EXPECT_EQ(FakeLibc::clocksRead, std::vector<clockid_t>{CLOCK_REALTIME});
    EXPECT_EQ(FakeLibc::waits, std::vector<clockid_t>{FakeLibc::kPlainTimedWait});
    EXPECT_EQ(FakeLibc::deadline.tv_sec, 1600000001);
    EXPECT_EQ(FakeLibc::deadline.tv_nsec, 5);
    FakeLibc::reset("2.36", -1);
    EXPECT_FALSE(semaphore.timedWait(5));
    EXPECT_TRUE(FakeLibc::waits.empty());
}

TEST(Semaphore, TakesWhatWasPostedAPostFromAnotherThreadEndsAWaitAndAutoLockSerialises) {
    Semaphore semaphore(1);
    EXPECT_TRUE(semaphore.wait());
    EXPECT_FALSE(semaphore.timedWait(0));
    EXPECT_TRUE(semaphore.post());
    EXPECT_TRUE(semaphore.timedWait(0));
    EXPECT_FALSE(semaphore.timedWait(0));
    EXPECT_FALSE(semaphore.timedWait(-5));

    constexpr int kBoundMs = 30000;  // generous: a post ends the wait long before
    Semaphore request;
    Semaphore answer;
    std::thread poster([&] {
        if (request.timedWait(kBoundMs)) answer.post();
    });
    request.post();
    EXPECT_TRUE(answer.timedWait(kBoundMs));
    poster.join();

    // An AutoLock serialises critical sections.
    tavrin::Mutex mutex;
    long counter = 0;  // not atomic: the lock alone protects it
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                tavrin::AutoLock hold(mutex);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    tavrin::AutoLock hold(mutex);
    EXPECT_EQ(counter, 4 * 20000);
}

}  // namespace
