// The transport under load and when peers misbehave or go away: one-way
// backlogs, control traffic next to them, errors carried by replies, call
// backs across several processes, and deaths that no exit signals.
#include <binder/Binder.h>
#include <binder/IBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "ProcSupport.h"
#include "ServedChild.h"
#include "TestService.h"
#include "TestSupport.h"

using android::BBinder;
using android::DEAD_OBJECT;
using android::FAILED_TRANSACTION;
using android::IBinder;
using android::NO_ERROR;
using android::Parcel;
using android::PERMISSION_DENIED;
using android::sp;
using android::status_t;
using android::wp;
using tvtest::callInt;
using tvtest::CountingRecipient;
using tvtest::currentTid;
using tvtest::newObject;
using tvtest::sendObject;
using tvtest::sequenceValues;
using tvtest::ServedChild;
using tvtest::TestService;
using tvtest::waitUntil;
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

struct SequenceReport {
    status_t status = NO_ERROR;
    int32_t count = 0;
    bool inOrder = false;
    int32_t maxConcurrent = 0;
};

SequenceReport reportSequence(const sp<IBinder>& target, int32_t expected) {
    Parcel data;
    Parcel reply;
    data.writeInt32(expected);
    SequenceReport report;
    report.status = target->transact(TestService::SEQUENCE_REPORT, data, &reply);
    report.count = reply.readInt32();
    report.inOrder = reply.readInt32() == 1;
    report.maxConcurrent = reply.readInt32();
    return report;
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

// Waits up to `limit` for `pending`; past it, kills `child` so that the call
// ends, and says false.
template <typename Result>
bool finishedWithin(std::future<Result>& pending, ServedChild& child, std::chrono::seconds limit) {
    if (pending.wait_for(limit) == std::future_status::ready) return true;
    child.process().kill(SIGKILL);
    pending.wait();
    return false;
}

TEST(OneWayBacklog, AcceptedCallsArriveOnceInOrderAndAFullReceiverRefusesAtOnce) {
    ServedChild child;
    ASSERT_TRUE(child.ready());
    ASSERT_EQ(NO_ERROR, sendOneWay(child.binder(), TestService::BLOCK));
    // Goes on after the first refusal: later calls must not slip in out of
    // order, and refused ones must never arrive.
    const Flood sent = flood(child.binder(), 200);
    EXPECT_FALSE(sent.accepted.empty());
    EXPECT_GT(sent.refused, 0) << "a blocked receiver took all of the flood";
    EXPECT_EQ(0, sent.wronglyRefused) << "first refused with " << sent.firstWrongStatus;
    EXPECT_LT(millis(sent.slowestRefusal), kPromptlyMs) << "ms for a refusal";

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

    auto pending = std::async(std::launch::async, [&] { return reportSequence(other, kCalls); });
    ASSERT_TRUE(finishedWithin(pending, child, kWhileBlocked))
        << "one-ways to one object waited for a blocked one of the same process";
    const SequenceReport report = pending.get();
    EXPECT_EQ(NO_ERROR, report.status);
    EXPECT_EQ(kCalls, report.count);
    EXPECT_TRUE(report.inOrder);
    EXPECT_EQ(1, report.maxConcurrent);
    EXPECT_EQ(0, reportSequence(blocked, 0).count) << "the blocked object ran calls meanwhile";

    ASSERT_EQ(NO_ERROR, sendObject(blocked, TestService::UNBLOCK));
    const SequenceReport unblocked = reportSequence(blocked, kCalls);
    EXPECT_EQ(kCalls, unblocked.count);
    EXPECT_TRUE(unblocked.inOrder);
    EXPECT_EQ(1, unblocked.maxConcurrent);
}

TEST(OneWayBacklog, AReleaseDoesNotWaitBehindAFullBacklog) {
    ServedChild child;
    ASSERT_TRUE(child.ready());
    sp<IBinder> object = newObject(child.binder());
    ASSERT_NE(nullptr, object);
    ASSERT_EQ(1, callInt(child.binder(), TestService::LIVE_OBJECTS, 0));
    ASSERT_EQ(NO_ERROR, sendOneWay(child.binder(), TestService::BLOCK));
    ASSERT_GT(flood(child.binder(), 1).refused, 0);

    const auto start = Clock::now();
    object.clear();
    EXPECT_LT(millis(Clock::now() - start), kPromptlyMs) << "ms to drop the reference";
    // Synchronous calls are served by other threads than the blocked one.
    EXPECT_TRUE(waitUntil(
        [&] { return callInt(child.binder(), TestService::LIVE_OBJECTS, 0) == 0; }, kWhileBlocked))
        << "the release waited behind the one-ways";
    EXPECT_EQ(0, reportSequence(child.binder(), 0).count) << "the object was no longer blocked";
    EXPECT_EQ(NO_ERROR, sendObject(child.binder(), TestService::UNBLOCK));
}

TEST(Replies, AnErrorSetOnTheReplyIsTheCallersResult) {
    ServedChild child;
    ASSERT_TRUE(child.ready());
    const status_t errors[] = {7, PERMISSION_DENIED};
    for (status_t error : errors) {
        status_t status = NO_ERROR;
        callInt(child.binder(), TestService::SET_REPLY_ERROR, error, &status);
        EXPECT_EQ(error, status);
    }
    EXPECT_EQ(5, callInt(child.binder(), TestService::ECHO, 5));
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

// Answers ECHO with the id of the thread that ran it.
class ThreadReporter : public BBinder {
  public:
    std::atomic<int> callingPid{0};

  protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code != TestService::ECHO) return BBinder::onTransact(code, data, reply, flags);
        callingPid = android::IPCThreadState::self()->getCallingPid();
        return reply->writeInt32(currentTid());
    }
};

TEST(NestedCalls, ACallBackFromTwoHopsAwayRunsOnTheWaitingThread) {
    ServedChild middle;
    ServedChild far;
    ASSERT_TRUE(middle.ready());
    ASSERT_TRUE(far.ready());
    sp<ThreadReporter> reporter = new ThreadReporter();
    // A thread of this process calls middle, middle calls far, far calls the reporter.
    Parcel data;
    Parcel reply;
    data.writeStrongBinder(far.binder());
    data.writeStrongBinder(reporter);
    data.writeInt32(0);
    int waitingTid = 0;
    auto pending = std::async(std::launch::async, [&] {
        waitingTid = currentTid();
        return middle.binder()->transact(TestService::RELAY_CALL_BACK, data, &reply);
    });
    ASSERT_TRUE(finishedWithin(pending, middle, 20s)) << "the chain of calls is stuck";
    ASSERT_EQ(NO_ERROR, pending.get());
    EXPECT_EQ(waitingTid, reply.readInt32()) << "the call back ran on another thread";
    EXPECT_EQ(middle.pid(), reply.readInt32());  // far's caller again after its nested call
    EXPECT_EQ(far.pid(), reporter->callingPid.load());

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

TEST(DeathNotices, APeerThatExecsIsDeadToItsRecipientsCallersAndObjects) {
    ServedChild child;
    ASSERT_TRUE(child.ready());
    sp<CountingRecipient> recipient = new CountingRecipient();
    ASSERT_EQ(NO_ERROR, child.binder()->linkToDeath(recipient));
    wp<IBinder> lent;
    {
        sp<IBinder> object = new BBinder();
        lent = object;
        ASSERT_EQ(NO_ERROR, sendObject(child.binder(), TestService::HOLD, object));
    }
    ASSERT_EQ(NO_ERROR, sendOneWay(child.binder(), TestService::EXEC));

    EXPECT_TRUE(waitUntil([&] { return recipient->calls > 0; })) << "no death notice";
    status_t status = NO_ERROR;
    callInt(child.binder(), TestService::ECHO, 1, &status);
    EXPECT_EQ(DEAD_OBJECT, status);
    EXPECT_TRUE(waitUntil([&] { return lent.promote() == nullptr; }))
        << "the object lent to the process is still held";
    EXPECT_EQ(1, recipient->calls.load());
    // The kernel closes the descriptors of an exec before it renames the process.
    EXPECT_TRUE(waitUntil([&] { return tvproc::processNameOf(child.pid()) == "sleep"; }))
        << "the process did not exec";
    child.process().kill(SIGKILL);
    EXPECT_NE(-1, child.process().wait());
}

TEST(DeathNotices, OutliveTheLastStrongReferenceAndDeadObjectsCanBePassedOn) {
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
        tvtest::heldCall(holder.binder(), TestService::ECHO, 0, &status);
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
}

}  // namespace
