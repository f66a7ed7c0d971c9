// The transport under load and when peers misbehave or go away: one-way
// backlogs, control traffic next to them, errors carried by replies, call
// backs across several processes, and deaths that no exit signals.
#include <binder/Binder.h>
#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "ProcSupport.h"
#include "TestService.h"
#include "TestSupport.h"

using namespace android;
using namespace tvtest;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// What must never make a sender or a releaser wait; far above what the
// transport needs, even under sanitizers on a loaded machine.
constexpr long long kPromptlyMs = 500;
// Below the 20 s for which a BLOCK holds its object: a check made within it
// still sees the object blocked.
constexpr auto kWhileBlocked = 10s;

status_t sendOneWay(const sp<IBinder>& target, uint32_t code, int32_t value = 0,
                    const std::vector<uint8_t>& payload = {}) {
    Parcel data;
    data.writeInt32(value);
    if (!payload.empty()) data.write(payload.data(), payload.size());
    return target->transact(code, data, nullptr, IBinder::FLAG_ONEWAY);
}

// What a flood of one-ways met: which were accepted, how the others were refused.
struct Flood {
    std::vector<int32_t> accepted;
    int refused = 0;
    int wronglyRefused = 0;  // with another status than FAILED_TRANSACTION
    status_t firstWrongStatus = NO_ERROR;
    Clock::duration slowestRefusal{};
};

// Sends SEQUENCE one-ways of about 16 KiB, numbered from 0, until
// `maxRefusals` were refused, 3000 were sent or 10 s passed.
Flood flood(const sp<IBinder>& target, int maxRefusals) {
    static const std::vector<uint8_t> kPayload(16 * 1024);
    Flood result;
    const auto deadline = Clock::now() + 10s;
    for (int32_t i = 0; i < 3000 && result.refused < maxRefusals && Clock::now() < deadline; ++i) {
        const auto start = Clock::now();
        const status_t status = sendOneWay(target, TestService::SEQUENCE, i, kPayload);
        const auto took = Clock::now() - start;
        if (status == NO_ERROR) {
            result.accepted.push_back(i);
            continue;
        }
        ++result.refused;
        result.slowestRefusal = std::max(result.slowestRefusal, took);
        if (status != FAILED_TRANSACTION && result.wronglyRefused++ == 0) {
            result.firstWrongStatus = status;
        }
    }
    return result;
}

long long millis(Clock::duration duration) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
}

TEST(OneWayBacklog, AcceptedCallsArriveOnceInOrderAFullReceiverRefusesAtOnceAndReleasesGoOn) {
    ServedChild child;
    ASSERT_TRUE(child.ready());
    sp<IBinder> object = newObject(child.binder());
    ASSERT_NE(nullptr, object);
    ASSERT_EQ(1, callInt(child.binder(), TestService::LIVE_OBJECTS, 0));
    ASSERT_EQ(NO_ERROR, sendOneWay(child.binder(), TestService::BLOCK));
    // Goes on after the first refusal: later calls must not slip in out of
    // order, and refused ones must never arrive.
    const Flood sent = flood(child.binder(), 200);
    EXPECT_FALSE(sent.accepted.empty());
    EXPECT_GT(sent.refused, 0) << "a blocked receiver took all of the flood";
    EXPECT_EQ(0, sent.wronglyRefused) << "first refused with " << sent.firstWrongStatus;
    EXPECT_LT(millis(sent.slowestRefusal), kPromptlyMs) << "ms for a refusal";

    // A release does not wait behind the full backlog, neither in the sender
    // nor in the receiver, whose synchronous calls other threads serve.
    const auto start = Clock::now();
    object.clear();
    EXPECT_LT(millis(Clock::now() - start), kPromptlyMs) << "ms to drop the reference";
    EXPECT_TRUE(waitUntil(
        [&] { return callInt(child.binder(), TestService::LIVE_OBJECTS, 0) == 0; }, kWhileBlocked))
        << "the release waited behind the one-ways";
    EXPECT_TRUE(sequenceValues(child.binder(), 0).empty()) << "the object was no longer blocked";

    ASSERT_EQ(NO_ERROR, sendObject(child.binder(), TestService::UNBLOCK));
    const std::vector<int32_t> delivered =
        sequenceValues(child.binder(), static_cast<int32_t>(sent.accepted.size()));
    EXPECT_EQ(sent.accepted, delivered)
        << sent.accepted.size() << " accepted, " << delivered.size() << " delivered";
    EXPECT_EQ(3, callInt(child.binder(), TestService::ECHO, 3));
}

TEST(OneWayBacklog, CallsToAnotherObjectDoNotWaitBehindABlockedOne) {
    ServedChild child;
    ASSERT_TRUE(child.ready());
    const sp<IBinder>& blocked = child.binder();
    const sp<IBinder> other = newObject(blocked);
    ASSERT_NE(nullptr, other);
    constexpr int kCalls = 20;
    // One burst, so that the receiver takes the calls for both objects together.
    ASSERT_EQ(NO_ERROR, sendOneWay(blocked, TestService::BLOCK));
    for (int i = 0; i < kCalls; ++i) {
        ASSERT_EQ(NO_ERROR, sendOneWay(other, TestService::SEQUENCE, i));
        ASSERT_EQ(NO_ERROR, sendOneWay(blocked, TestService::SEQUENCE, i));
    }

    std::vector<int32_t> inOrder(kCalls);
    std::iota(inOrder.begin(), inOrder.end(), 0);
    int32_t mostAtOnce = 0;
    auto pending =
        std::async(std::launch::async, [&] { return sequenceValues(other, kCalls, &mostAtOnce); });
    ASSERT_TRUE(child.finishedWithin(pending, kWhileBlocked))
        << "one-ways to one object waited for a blocked one of the same process";
    EXPECT_EQ(inOrder, pending.get());
    EXPECT_EQ(1, mostAtOnce);
    EXPECT_TRUE(sequenceValues(blocked, 0).empty()) << "the blocked object ran calls meanwhile";

    ASSERT_EQ(NO_ERROR, sendObject(blocked, TestService::UNBLOCK));
    EXPECT_EQ(inOrder, sequenceValues(blocked, kCalls, &mostAtOnce));
    EXPECT_EQ(1, mostAtOnce);
}

// Waiting costs no CPU: a client and its service, bound and left alone,
// sleep; and the memory a large call made resident on their connection is
// given back once it is idle.
TEST(Idle, ABoundClientAndItsServiceUseAlmostNoCpuNorTheMemoryALargeCallTook) {
    ServedChild child;
    ASSERT_TRUE(child.ready());
    for (int32_t i = 0; i < 100; ++i) ASSERT_EQ(i, callInt(child.binder(), TestService::ECHO, i));
    const size_t sharedKib = tvproc::residentSharedKib(child.pid());
    Parcel large;
    Parcel reply;
    large.writeInt32(1 << 20);
    large.write(std::vector<uint8_t>(1 << 20, 7).data(), 1 << 20);
    ASSERT_EQ(NO_ERROR, child.binder()->transact(TestService::ECHO_BYTES, large, &reply));
    std::this_thread::sleep_for(100ms);  // the service stops lingering on the connection
    auto used = [&] { return tvproc::cpuTime(child.pid()) + tvproc::cpuTime(getpid()); };
    const auto before = used();
    std::this_thread::sleep_for(2s);
    EXPECT_LT((used() - before).count(), 50) << "ms of CPU used by an idle pair in 2 s";
    EXPECT_TRUE(
        waitUntil([&] { return tvproc::residentSharedKib(child.pid()) < sharedKib + 512; }, 10s))
        << tvproc::residentSharedKib(child.pid()) - sharedKib << " KiB still resident";
}

TEST(NestedCalls, ACallBackFromTwoHopsAwayRunsOnTheWaitingThread) {
    ServedChild middle;
    ServedChild far;
    ASSERT_TRUE(middle.ready());
    ASSERT_TRUE(far.ready());
    sp<Recorder> recorder = new Recorder();
    // A thread of this process calls middle, middle calls far, far calls the recorder.
    Parcel data;
    Parcel reply;
    data.writeStrongBinder(far.binder());
    data.writeStrongBinder(recorder);
    data.writeInt32(17);
    int waitingTid = 0;
    auto pending = std::async(std::launch::async, [&] {
        waitingTid = currentTid();
        return middle.binder()->transact(TestService::RELAY_CALL_BACK, data, &reply);
    });
    ASSERT_TRUE(middle.finishedWithin(pending, 20s)) << "the chain of calls is stuck";
    ASSERT_EQ(NO_ERROR, pending.get());
    EXPECT_EQ(waitingTid, recorder->lastTid.load()) << "the call back ran on another thread";
    EXPECT_EQ(17, reply.readInt32());
    EXPECT_EQ(middle.pid(), reply.readInt32());  // far's caller again after its nested call
    EXPECT_EQ(far.pid(), recorder->lastCallingPid.load());

    // The same from a process with no pool, and from one whose only pool
    // thread is blocked: nothing but the waiting thread can take far's call.
    for (const char* option : {"--no-pool", "--max-threads=0"}) {
        const bool blocked = option == std::string("--max-threads=0");
        ServedChild caller({option});
        ASSERT_TRUE(caller.ready());
        if (blocked) {
            ASSERT_EQ(NO_ERROR, sendOneWay(caller.binder(), TestService::BLOCK));
        }
        caller.process().writeLine("relay " + middle.name() + " " + far.name() +
                                   (blocked ? " blocked" : ""));
        EXPECT_EQ("0 1", caller.process().readLine(kWhileBlocked)) << option;
    }
}

// The owner killed: a recipient of a proxy only weakly held still hears of
// it, and a process holding an object of it can pass the dead proxy on. Then
// the holder execs, which is a death too.
TEST(DeathNotices, OutliveTheLastStrongReferenceDeadObjectsPassOnAndAnExecIsADeath) {
    sp<CountingRecipient> weaklyHeld = new CountingRecipient();
    {
        ServedChild child;
        ASSERT_TRUE(child.ready());
        wp<IBinder> watched;  // all that the application keeps
        {
            sp<IBinder> object = newObject(child.binder());
            ASSERT_NE(nullptr, object);
            ASSERT_EQ(NO_ERROR, object->linkToDeath(weaklyHeld));
            watched = object;
        }
        child.process().kill(SIGKILL);
        EXPECT_TRUE(waitUntil([&] { return weaklyHeld->calls > 0; }))
            << "no death notice once the proxy was only weakly held";
    }

    ServedChild holder;
    ServedChild owner;
    ASSERT_TRUE(holder.ready());
    ASSERT_TRUE(owner.ready());
    {
        // Only the holder keeps it: this process has no proxy of it left.
        sp<IBinder> object = newObject(owner.binder());
        ASSERT_NE(nullptr, object);
        ASSERT_EQ(NO_ERROR, sendObject(holder.binder(), TestService::HOLD, object));
    }
    owner.process().kill(SIGKILL);
    ASSERT_NE(-1, owner.process().wait());
    ASSERT_TRUE(waitUntil([&] {
        status_t status = NO_ERROR;
        heldCall(holder.binder(), TestService::ECHO, 0, &status);
        return status == DEAD_OBJECT;
    })) << "the holder did not learn of the death";

    Parcel none;
    Parcel reply;
    ASSERT_EQ(NO_ERROR, holder.binder()->transact(TestService::GET_HELD, none, &reply));
    const sp<IBinder> dead = reply.readStrongBinder();
    ASSERT_NE(nullptr, dead);
    sp<CountingRecipient> late = new CountingRecipient();
    const status_t linked = dead->linkToDeath(late);
    if (linked == NO_ERROR) {
        EXPECT_TRUE(waitUntil([&] { return late->calls > 0; })) << "linked, but never told";
    } else {
        EXPECT_EQ(DEAD_OBJECT, linked);
    }
    status_t status = NO_ERROR;
    callInt(dead, TestService::ECHO, 1, &status);
    EXPECT_EQ(DEAD_OBJECT, status);
    EXPECT_LE(late->calls.load(), 1);
    EXPECT_EQ(1, weaklyHeld->calls.load());

    sp<CountingRecipient> recipient = new CountingRecipient();
    ASSERT_EQ(NO_ERROR, holder.binder()->linkToDeath(recipient));
    wp<IBinder> lent;
    {
        sp<IBinder> object = new BBinder();
        lent = object;
        ASSERT_EQ(NO_ERROR, sendObject(holder.binder(), TestService::HOLD, object));
    }
    ASSERT_EQ(NO_ERROR, sendOneWay(holder.binder(), TestService::EXEC));
    EXPECT_TRUE(waitUntil([&] { return recipient->calls > 0; })) << "no death notice of the exec";
    callInt(holder.binder(), TestService::ECHO, 1, &status);
    EXPECT_EQ(DEAD_OBJECT, status);
    EXPECT_TRUE(waitUntil([&] { return lent.promote() == nullptr; }))
        << "the object lent to the process is still held";
    EXPECT_EQ(1, recipient->calls.load());
    // The kernel closes the descriptors of an exec before it renames the process.
    EXPECT_TRUE(waitUntil([&] { return tvproc::processNameOf(holder.pid()) == "sleep"; }))
        << "the process did not exec";
}

}  // namespace
