// Objects held across processes: how long they live, the death notices of
// their owners, and what comes and goes leaving nothing behind.
#include <binder/Binder.h>
#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>

#include "ChildProcess.h"
#include "TestService.h"
#include "TestSupport.h"
#include "runtime/Runtime.h"

using namespace android;
using namespace tvtest;

namespace {

size_t objectsHeldByOthers() {
    return android::tvbinder::Runtime::current()->exports().heldCount();
}

// Gives `service` an object of this process to hold; the object can be
// watched but this process keeps no strong reference of its own.
wp<IBinder> handOver(const sp<IBinder>& service, uint32_t flags = 0) {
    sp<IBinder> object = new Recorder();
    wp<IBinder> watch = object;
    EXPECT_EQ(NO_ERROR, sendObject(service, TestService::HOLD, object, flags));
    return watch;
}

TEST(Lifetimes, AnObjectLivesWhileAProcessHoldsItOrAOneWayCarriesItPassedOnOrNotAndNoLonger) {
    ServedChild first;
    ServedChild second;
    ASSERT_TRUE(first.ready());
    ASSERT_TRUE(second.ready());
    // Queued behind a blocked one-way while the test lets go of the object.
    ASSERT_EQ(NO_ERROR,
              sendObject(first.binder(), TestService::BLOCK, nullptr, IBinder::FLAG_ONEWAY));
    wp<IBinder> watch = handOver(first.binder(), IBinder::FLAG_ONEWAY);
    ASSERT_EQ(NO_ERROR, sendObject(first.binder(), TestService::UNBLOCK));
    EXPECT_TRUE(waitUntil([&] {
        status_t status;
        return heldCall(first.binder(), TestService::ECHO, 12, &status) == 12 && status == NO_ERROR;
    }));
    ASSERT_EQ(NO_ERROR, sendObject(first.binder(), TestService::DROP));
    EXPECT_TRUE(waitUntil([&] { return watch.promote() == nullptr; }));

    // A sentinel's release makes the first holder's link to this process;
    // its releases travel on it in order from then on.
    const sp<IBinder> keeper = tvtest::newObject(first.binder());
    wp<IBinder> sentinel = handOver(keeper);
    ASSERT_EQ(NO_ERROR, sendObject(keeper, TestService::DROP));
    ASSERT_TRUE(waitUntil([&] { return sentinel.promote() == nullptr; }));

    watch = handOver(first.binder());
    ASSERT_EQ(NO_ERROR, sendObject(first.binder(), TestService::GIVE_HELD, second.binder()));
    sentinel = handOver(keeper);
    ASSERT_EQ(NO_ERROR, sendObject(first.binder(), TestService::DROP));
    ASSERT_EQ(NO_ERROR, sendObject(keeper, TestService::DROP));
    // The sentinel's release came after the first holder's: only the second's
    // grant may keep the object now.
    ASSERT_TRUE(waitUntil([&] { return sentinel.promote() == nullptr; }));
    EXPECT_EQ(13, heldCall(second.binder(), TestService::ECHO, 13));
    EXPECT_NE(nullptr, watch.promote());
    ASSERT_EQ(NO_ERROR, sendObject(second.binder(), TestService::DROP));
    EXPECT_TRUE(waitUntil([&] { return watch.promote() == nullptr; }));

    // A holder that dies lets go too.
    watch = handOver(second.binder());
    EXPECT_NE(nullptr, watch.promote());
    second.process().kill(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return watch.promote() == nullptr; }));
}

// The pool may grow up to its maximum at any time; beyond that nothing may.
constexpr size_t kSoakPoolMax = 2;
constexpr size_t kSoakThreadLimit = 1 + kSoakPoolMax;  // the main pool thread + spawned ones

TEST(Soak, ObjectsAndClientsThatComeAndGoLeaveTheOwnersResourcesFlat) {
    ServedChild child({"--max-threads=" + std::to_string(kSoakPoolMax)});
    ASSERT_TRUE(child.ready());
    auto round = [&](int i) {
        handOver(child.binder());
        ASSERT_EQ(i, heldCall(child.binder(), TestService::ECHO, i));
        ASSERT_EQ(NO_ERROR, sendObject(child.binder(), TestService::DROP));
        ASSERT_EQ(i, callInt(tvtest::lookup(child.name()), TestService::ECHO, i));
    };
    for (int i = 0; i < 50; ++i) round(i);
    ASSERT_TRUE(waitUntil([] { return objectsHeldByOthers() == 0; }));
    size_t fds = tvtest::countOpenFds(child.pid());
    for (int i = 0; i < 400; ++i) round(i);
    EXPECT_TRUE(waitUntil([] { return objectsHeldByOthers() == 0; }));
    EXPECT_LE(tvtest::countOpenFds(child.pid()), fds);
    EXPECT_LE(tvtest::countPoolThreads(child.pid()), kSoakThreadLimit);

    auto runClient = [&] {
        ChildProcess client("client", {child.name()});
        ASSERT_EQ("done", client.readLine());
        client.kill(SIGKILL);
        ASSERT_NE(-1, client.wait());
    };
    for (int i = 0; i < 3; ++i) runClient();
    // Each departed client's connections and watch go once its death is seen.
    fds = tvtest::countOpenFds(child.pid());
    for (int i = 0; i < 12; ++i) runClient();
    EXPECT_TRUE(waitUntil([&] { return tvtest::countOpenFds(child.pid()) <= fds; }));
    EXPECT_LE(tvtest::countPoolThreads(child.pid()), kSoakThreadLimit);
    EXPECT_EQ(4, callInt(child.binder(), TestService::ECHO, 4));
}

// Binds to the named service, leaves an object of its own with it, reports
// "done" and waits to be killed.
TVTEST_CHILD_ROLE(client) {
    if (args.empty()) return 2;
    android::ProcessState::self()->startThreadPool();
    sp<IBinder> service = tvtest::lookup(args[0]);
    if (service == nullptr || callInt(service, TestService::ECHO, 1) != 1) return 3;
    if (sendObject(service, TestService::HOLD, new Recorder()) != NO_ERROR) return 4;
    tvtest::ParentChannel::send("done");
    tvtest::ParentChannel::receive(std::chrono::seconds(60));
    return 0;
}

TEST(DeathNotices, ArriveOnceOnAPoolThreadAndNeverToUnlinkedOrReleasedRecipients) {
    sp<BBinder> local = new BBinder();
    EXPECT_EQ(INVALID_OPERATION, local->linkToDeath(new CountingRecipient()));
    EXPECT_EQ(INVALID_OPERATION, local->unlinkToDeath(nullptr));

    const size_t descriptors = countOpenFds(getpid());
    ServedChild child;
    ASSERT_TRUE(child.ready());
    const sp<IBinder>& binder = child.binder();
    sp<CountingRecipient> first = new CountingRecipient();
    sp<CountingRecipient> second = new CountingRecipient();
    sp<CountingRecipient> selfUnlinking = new CountingRecipient();
    selfUnlinking->unlinkItself = true;
    sp<CountingRecipient> unlinked = new CountingRecipient();
    std::atomic<bool> releasedDestroyed{false};
    sp<CountingRecipient> released = new CountingRecipient(&releasedDestroyed);
    int cookie = 0;
    ASSERT_EQ(NO_ERROR, binder->linkToDeath(first));
    ASSERT_EQ(NO_ERROR, binder->linkToDeath(second, &cookie, 3));
    ASSERT_EQ(NO_ERROR, binder->linkToDeath(selfUnlinking));
    ASSERT_EQ(NO_ERROR, binder->linkToDeath(unlinked, &cookie));
    ASSERT_EQ(NO_ERROR, binder->linkToDeath(released));
    EXPECT_EQ(NAME_NOT_FOUND, binder->unlinkToDeath(unlinked));  // wrong cookie
    wp<IBinder::DeathRecipient> removed;
    EXPECT_EQ(NO_ERROR, binder->unlinkToDeath(unlinked, &cookie, 0, &removed));
    EXPECT_EQ(unlinked.get(), removed.promote().get());
    EXPECT_EQ(NAME_NOT_FOUND, binder->unlinkToDeath(unlinked, &cookie));
    released = nullptr;
    EXPECT_TRUE(releasedDestroyed.load());

    child.process().kill(SIGKILL);
    ASSERT_TRUE(waitUntil(
        [&] { return first->calls == 1 && second->calls == 1 && selfUnlinking->calls == 1; }));
    EXPECT_EQ(DEAD_OBJECT, selfUnlinking->unlinkStatus.load());
    EXPECT_EQ(binder.get(), first->died.load());
    EXPECT_NE(currentTid(), first->tid.load());
    // Each way of learning of a death (its pidfd, a connection's hang-up)
    // has posted its notices before closing its descriptor.
    child.process().finish();
    EXPECT_TRUE(waitUntil([&] { return countOpenFds(getpid()) <= descriptors; }));
    EXPECT_EQ(1, first->calls.load());
    EXPECT_EQ(1, second->calls.load());
    EXPECT_EQ(0, unlinked->calls.load());
    EXPECT_EQ(DEAD_OBJECT, binder->linkToDeath(new CountingRecipient()));
    EXPECT_EQ(DEAD_OBJECT, binder->unlinkToDeath(second, &cookie, 3));
}

}  // namespace
