// The library's core in one process: its smart pointer and Protocol, its lock
// and semaphore, its traces, and the facades that find a coupler by name.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <tuple>
#include <vector>

#include "Announcer.h"
#include "Discoverer.h"
#include "IPCClass.h"
#include "Log/AutoTrace.h"
#include "LogCapture.h"
#include "Protocol.h"
#include "core/CouplerRegistry.h"
#include "tv_sp.h"
#include "utils/AutoLock.h"
#include "utils/Mutex.h"
#include "utils/Semaphore.h"

namespace {

using tavrin_test::LogCapture;
using tavrin_test::LogLine;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using namespace tavrin;

class Counted {
  public:
    explicit Counted(std::atomic<int>* deletions) : mDeletions(deletions) {}
    ~Counted() { mDeletions->fetch_add(1); }

  private:
    std::atomic<int>* mDeletions;
};

TEST(TvSp, EmptyAndFailureDifferInCountAndTheLastReleaseDeletesOnceEvenConcurrently) {
    tv_sp<Counted> empty;
    tv_sp<Counted> emptyCopy(empty);
    EXPECT_EQ(emptyCopy.useCount(), 0);
    tv_sp<Counted> failure(nullptr);
    tv_sp<Counted> failureCopy(failure);
    EXPECT_TRUE(failureCopy.isNull());
    EXPECT_EQ(failure.useCount(), 2);

    std::atomic<int> deletions{0};
    tv_sp<Counted> held(new Counted(&deletions));
    auto* copy = new tv_sp<Counted>(held);
    tv_sp<Counted>& alias = held;
    held = alias;
    delete copy;
    EXPECT_EQ(deletions.load(), 0);
    EXPECT_EQ(held.useCount(), 1);
    held = tv_sp<Counted>(new Counted(&deletions));
    EXPECT_EQ(deletions.load(), 1);
    held = tv_sp<Counted>();
    EXPECT_EQ(deletions.load(), 2);

    // Concurrent copies and releases delete exactly once.
    for (int trial = 0; trial < 20; ++trial) {
        deletions = 0;
        std::atomic<bool> go{false};
        tv_sp<Counted> original(new Counted(&deletions));
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t) {
            threads.emplace_back([shared = original, &go] {
                while (!go.load()) std::this_thread::yield();
                for (int i = 0; i < 1000; ++i) {
                    tv_sp<Counted> copy;
                    copy = shared;
                }
            });
        }
        original = tv_sp<Counted>();
        go.store(true);
        for (std::thread& thread : threads) thread.join();
        ASSERT_EQ(deletions.load(), 1) << "trial " << trial;
    }
}

class Empty : public tavrin::IPCClass {
  public:
    void serialization(tavrin::Serialization&) override {}
    void deserialization(tavrin::Deserialization&) override {}
    std::string getClassName() override { return "Empty"; }
};

TEST(Protocol, CopyIsIndependentOfItsSource) {
    auto* source = new tavrin::Protocol();
    source->add<Empty>("Empty");
    tavrin::Protocol copy(*source);
    source->creators.clear();
    delete source;
    ASSERT_EQ(copy.creators.count("Empty"), 1u);
    std::unique_ptr<tavrin::IPCClass> value(
        static_cast<tavrin::IPCClass*>(copy.creators["Empty"]()));
    EXPECT_EQ(value->getClassName(), "Empty");
}

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

TEST(AutoTrace, WritesEntryAndExitLinesAtVerboseTheTimedOnesWithClockTimesAndDuration) {
    LogCapture log;
    { AutoTrace trace("[Tavrin]", "Discoverer", "bindTo", false); }
    { AutoTrace trace("[App]", "Worker", "step", true); }
    const std::vector<LogLine> lines = log.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0],
              (LogLine{ANDROID_LOG_VERBOSE, "[Tavrin]", "[Discoverer][bindTo] [-IN-]\n"}));
    EXPECT_EQ(lines[1],
              (LogLine{ANDROID_LOG_VERBOSE, "[Tavrin]", "[Discoverer][bindTo] [-OUT-]\n"}));
    EXPECT_EQ(lines[2].priority, ANDROID_LOG_VERBOSE);
    EXPECT_EQ(lines[2].tag, "[App]");
    EXPECT_THAT(lines[2].message, MatchesRegex("\\[Worker\\]\\[step\\] \\[-IN-\\] "
                                               "time\\[[0-9]+s\\]\\[[0-9]+us\\]\n"));
    EXPECT_EQ(lines[3].priority, ANDROID_LOG_VERBOSE);
    EXPECT_THAT(lines[3].message,
                MatchesRegex("\\[Worker\\]\\[step\\] \\[-OUT-\\] time\\[[0-9]+s\\]\\[[0-9]+us\\] "
                             "duration\\[[0-9]+s\\]\\[-?[0-9]+us\\]\n"));
    // The duration is subtracted field by field, without a borrow.
    log.clear();
    const timeval end = {11, 100000};
    AutoTrace::logTimedExit("[App]", "Worker", "step", 10, 900000, end);
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{ANDROID_LOG_VERBOSE, "[App]",
                                                 "[Worker][step] [-OUT-] time[11s][100000us] "
                                                 "duration[1s][-800000us]\n"}));
}

std::string report(const char* argument, int line) {
    return std::string("../Log/AutoTrace:") + std::to_string(line) +
           ": AutoTrace::AutoTrace(const char*, const char*, const char*, bool): Assertion `" +
           argument + "' failed.";
}

TEST(AutoTraceDeathTest, NullArgumentsAreProgrammingErrors) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(AutoTrace(nullptr, "F", "f", false), HasSubstr(report("tag", 16)));
    EXPECT_DEATH(AutoTrace("[T]", nullptr, "f", false), HasSubstr(report("file", 17)));
    EXPECT_DEATH(AutoTrace("[T]", "F", nullptr, true), HasSubstr(report("function", 18)));
}

constexpr const char* kTestCoupler = "TestCoupler";

class FakeClient : public IClient {
  public:
    tv_sp<IPCClass> ipcCall(IPCClass&) override { return tv_sp<IPCClass>(nullptr); }
    int setNotifier(tv_sp<IClientNotifier>&) override { return 0; }
};

// Notes the last call the facades forwarded to it: the info, the protocol,
// the numbers, the service and the master's protocol it was given.
class FakeCoupler : public IDiscoverer, public IAnnouncer {
  public:
    using Call = std::tuple<const void*, const Protocol*, int, const void*, const Protocol*>;

    tv_sp<IClient> bindTo(ServiceInfo& info, Protocol& protocol, int tag) override {
        last = {&info, &protocol, tag, nullptr, nullptr};
        return client;
    }
    tv_sp<IClient> bindTo(SubServiceInfo& info, Protocol& protocol, int timeout, int tag) override {
        last = {&info, &protocol, tag + timeout, nullptr, nullptr};
        return client;
    }
    int publish(ServiceInfo& info, Protocol& protocol, tv_sp<IService>& service) override {
        last = {&info, &protocol, 0, &service, nullptr};
        return -1;
    }
    int publish(SubServiceInfo& info, Protocol& clientProtocol, Protocol& masterProtocol,
                tv_sp<ISubService>& subService) override {
        last = {&info, &clientProtocol, 0, &subService, &masterProtocol};
        return -1;
    }

    tv_sp<IClient> client{new FakeClient()};
    Call last;
};

// Like a real coupler: one object per interface and process, held by a static.
tv_sp<IDiscoverer> createDiscoverer() {
    static tv_sp<IDiscoverer> discoverer(new FakeCoupler());
    return discoverer;
}
tv_sp<IAnnouncer> createAnnouncer() {
    static tv_sp<IAnnouncer> announcer(new FakeCoupler());
    return announcer;
}

class Facades : public testing::Test {
  protected:
    void SetUp() override {
        registerCoupler(kTestCoupler, {createAnnouncer, createDiscoverer});
        // Built before capturing, so that only the calls under test write lines.
        Discoverer::self();
        Announcer::self();
        log.clear();
    }

    Protocol protocol;
    LogCapture log;
};

// The lines of a facade call that found no coupler: its error between its
// entry and exit traces.
std::vector<LogLine> failedCall(const std::string& facade, const std::string& operation,
                                const std::string& error) {
    const std::string trace = "[" + facade + "][" + operation + "] ";
    return {{ANDROID_LOG_VERBOSE, "[Tavrin]", trace + "[-IN-]\n"},
            {ANDROID_LOG_ERROR, "[Tavrin][" + facade + "]", error},
            {ANDROID_LOG_VERBOSE, "[Tavrin]", trace + "[-OUT-]\n"}};
}

TEST_F(Facades, CallsForAnUnknownIpcFailWithAnErrorBetweenTheirTraces) {
    ServiceInfo info("media.player", "binder");
    tv_sp<IClient> client = Discoverer::self().bindTo(info, protocol, 3);
    EXPECT_TRUE(client.isNull());
    EXPECT_EQ(client.useCount(), 1);
    EXPECT_EQ(
        log.lines(),
        failedCall("Discoverer", "bindTo",
                   "bind service fail,cann't find coupler,ipc[binder] service[media.player]"));
    log.clear();
    SubServiceInfo subInfo("tuner", "media.player", "");
    EXPECT_TRUE(Discoverer::self().bindTo(subInfo, protocol, 500, 3).isNull());
    EXPECT_EQ(log.lines(), failedCall("Discoverer", "bindTo",
                                      "bind subservice fail,cann't find coupler,ipc[] "
                                      "subservice[tuner] service[media.player]"));
    log.clear();
    // A publish that found no coupler still returns 0.
    tv_sp<IService> service;
    EXPECT_EQ(Announcer::self().publish(info, protocol, service), 0);
    EXPECT_EQ(log.lines(),
              failedCall("Announcer", "publish",
                         "publish fail,cann't find coupler,ipc[binder] service[media.player]"));
    log.clear();
    tv_sp<ISubService> subService;
    EXPECT_EQ(Announcer::self().publish(subInfo, protocol, protocol, subService), 0);
    EXPECT_EQ(log.lines(), failedCall("Announcer", "publish",
                                      "publish fail,cann't find coupler,ipc[] service[tuner]"));
}

TEST_F(Facades, ForwardToTheCouplerFirstRegisteredUnderTheExactNameAndDropTheirReference) {
    EXPECT_FALSE(registerCoupler(kTestCoupler, {[] { return tv_sp<IAnnouncer>(nullptr); },
                                                [] { return tv_sp<IDiscoverer>(nullptr); }}));
    EXPECT_EQ(findDiscovererFactory(kTestCoupler), &createDiscoverer);
    EXPECT_EQ(findAnnouncerFactory(kTestCoupler), &createAnnouncer);
    EXPECT_EQ(findDiscovererFactory("testcoupler"), nullptr);
    EXPECT_EQ(findAnnouncerFactory(""), nullptr);
    auto* discoverer = static_cast<FakeCoupler*>(createDiscoverer().get());
    ServiceInfo info("media.player", kTestCoupler);
    EXPECT_EQ(Discoverer::self().bindTo(info, protocol, 42).get(), discoverer->client.get());
    EXPECT_EQ(discoverer->last, FakeCoupler::Call(&info, &protocol, 42, nullptr, nullptr));
    SubServiceInfo subInfo("tuner", "media.player", kTestCoupler);
    EXPECT_EQ(Discoverer::self().bindTo(subInfo, protocol, 1500, 7).get(),
              discoverer->client.get());
    EXPECT_EQ(discoverer->last, FakeCoupler::Call(&subInfo, &protocol, 1507, nullptr, nullptr));
    // The facade released its copy: only the static and this temporary remain.
    EXPECT_EQ(createDiscoverer().useCount(), 2);

    auto* announcer = static_cast<FakeCoupler*>(createAnnouncer().get());
    tv_sp<IService> service;
    EXPECT_EQ(Announcer::self().publish(info, protocol, service), 0);
    EXPECT_EQ(announcer->last, FakeCoupler::Call(&info, &protocol, 0, &service, nullptr));
    tv_sp<ISubService> subService;
    Protocol masterProtocol;
    EXPECT_EQ(Announcer::self().publish(subInfo, protocol, masterProtocol, subService), 0);
    EXPECT_EQ(announcer->last,
              FakeCoupler::Call(&subInfo, &protocol, 0, &subService, &masterProtocol));
    EXPECT_EQ(createAnnouncer().useCount(), 2);
    for (const LogLine& line : log.lines()) EXPECT_EQ(line.tag, "[Tavrin]") << line;
}

}  // namespace
