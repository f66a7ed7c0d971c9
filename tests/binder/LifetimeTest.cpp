#include <binder/Binder.h>
#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "ChildProcess.h"
#include "Runtime.h"
#include "ServedChild.h"
#include "TestService.h"
#include "TestSupport.h"

using android::BBinder;
using android::IBinder;
using android::NO_ERROR;
using android::Parcel;
using android::sp;
using android::status_t;
using android::wp;
using tvtest::callInt;
using tvtest::ChildProcess;
using tvtest::ServedChild;
using tvtest::TestService;
using tvtest::waitUntil;

namespace {

class Echo : public BBinder {
  protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code != TestService::ECHO) return BBinder::onTransact(code, data, reply, flags);
        return reply->writeInt32(data.readInt32());
    }
};

status_t sendObject(const sp<IBinder>& service, uint32_t code, const sp<IBinder>& object,
                    uint32_t flags = 0) {
    Parcel data;
    Parcel reply;
    data.writeStrongBinder(object);
    return service->transact(code, data, &reply, flags);
}

status_t simpleCall(const sp<IBinder>& service, uint32_t code) {
    Parcel data;
    Parcel reply;
    return service->transact(code, data, &reply);
}

size_t objectsHeldByOthers() {
    return android::tvbinder::Runtime::current()->exports().heldCount();
}

TEST(Lifetimes, AnObjectLivesWhileAnotherProcessHoldsIt) {
    ServedChild child;
    ASSERT_TRUE(child.ready());
    sp<IBinder> object = new Echo();
    wp<IBinder> watch = object;
    ASSERT_EQ(NO_ERROR, sendObject(child.binder(), TestService::HOLD, object));
    object = nullptr;
    EXPECT_NE(nullptr, watch.promote());
    Parcel call;
    Parcel reply;
    call.writeUint32(TestService::ECHO);
    call.writeInt32(11);
    ASSERT_EQ(NO_ERROR, child.binder()->transact(TestService::HELD_CALL, call, &reply));
    EXPECT_EQ(11, reply.readInt32());

    ASSERT_EQ(NO_ERROR, simpleCall(child.binder(), TestService::DROP));
    EXPECT_TRUE(waitUntil([&] { return watch.promote() == nullptr; }));
}

TEST(Lifetimes, AnObjectPassedOnByAThirdProcessLivesWhileTheLastHolderKeepsIt) {
    ServedChild first;
    ServedChild second;
    ASSERT_TRUE(first.ready());
    ASSERT_TRUE(second.ready());
    sp<IBinder> object = new Echo();
    wp<IBinder> watch = object;
    ASSERT_EQ(NO_ERROR, sendObject(first.binder(), TestService::HOLD, object));
    ASSERT_EQ(NO_ERROR, sendObject(first.binder(), TestService::GIVE_HELD, second.binder()));
    ASSERT_EQ(NO_ERROR, simpleCall(first.binder(), TestService::DROP));
    object = nullptr;
    // Lets the first holder's release arrive; only the second's grant may keep the object.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));

    Parcel call;
    Parcel reply;
    call.writeUint32(TestService::ECHO);
    call.writeInt32(13);
    ASSERT_EQ(NO_ERROR, second.binder()->transact(TestService::HELD_CALL, call, &reply));
    EXPECT_EQ(13, reply.readInt32());
    EXPECT_NE(nullptr, watch.promote());

    ASSERT_EQ(NO_ERROR, simpleCall(second.binder(), TestService::DROP));
    EXPECT_TRUE(waitUntil([&] { return watch.promote() == nullptr; }));
}

TEST(Lifetimes, AHoldersDeathLetsTheObjectGo) {
    ServedChild child;
    ASSERT_TRUE(child.ready());
    sp<IBinder> object = new Echo();
    wp<IBinder> watch = object;
    ASSERT_EQ(NO_ERROR, sendObject(child.binder(), TestService::HOLD, object));
    object = nullptr;
    EXPECT_NE(nullptr, watch.promote());
    child.process().kill(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return watch.promote() == nullptr; }));
}

TEST(Lifetimes, AnObjectInsideAOneWayInFlightStaysAlive) {
    ServedChild child;
    ASSERT_TRUE(child.ready());
    Parcel block;
    ASSERT_EQ(NO_ERROR,
              child.binder()->transact(TestService::BLOCK, block, nullptr, IBinder::FLAG_ONEWAY));
    sp<IBinder> object = new Echo();
    wp<IBinder> watch = object;
    // Queued behind the blocked one-way while the test lets go of the object.
    ASSERT_EQ(NO_ERROR,
              sendObject(child.binder(), TestService::HOLD, object, IBinder::FLAG_ONEWAY));
    object = nullptr;
    ASSERT_EQ(NO_ERROR, simpleCall(child.binder(), TestService::UNBLOCK));
    Parcel call;
    call.writeUint32(TestService::ECHO);
    call.writeInt32(12);
    EXPECT_TRUE(waitUntil([&] {
        Parcel reply;
        return child.binder()->transact(TestService::HELD_CALL, call, &reply) == NO_ERROR &&
               reply.readInt32() == 12;
    }));
}

// The pool may grow up to its maximum at any time; beyond that nothing may.
constexpr size_t kSoakPoolMax = 2;
constexpr size_t kSoakThreadLimit = 1 + kSoakPoolMax;  // the main pool thread + spawned ones

TEST(Soak, BindingCallingAndDroppingKeepsTheOwnersResourcesFlat) {
    ServedChild child({"--max-threads=" + std::to_string(kSoakPoolMax)});
    ASSERT_TRUE(child.ready());
    auto round = [&](int i) {
        sp<IBinder> object = new Echo();
        ASSERT_EQ(NO_ERROR, sendObject(child.binder(), TestService::HOLD, object));
        Parcel call;
        Parcel reply;
        call.writeUint32(TestService::ECHO);
        call.writeInt32(i);
        ASSERT_EQ(NO_ERROR, child.binder()->transact(TestService::HELD_CALL, call, &reply));
        ASSERT_EQ(i, reply.readInt32());
        ASSERT_EQ(NO_ERROR, simpleCall(child.binder(), TestService::DROP));
        ASSERT_EQ(i, callInt(tvtest::lookup(child.name()), TestService::ECHO, i));
    };
    for (int i = 0; i < 50; ++i) round(i);
    ASSERT_TRUE(waitUntil([] { return objectsHeldByOthers() == 0; }));
    const size_t fds = tvtest::countOpenFds(child.pid());
    for (int i = 0; i < 400; ++i) round(i);
    EXPECT_TRUE(waitUntil([] { return objectsHeldByOthers() == 0; }));
    EXPECT_LE(tvtest::countOpenFds(child.pid()), fds);
    EXPECT_LE(tvtest::countPoolThreads(child.pid()), kSoakThreadLimit);
}

TEST(Soak, ClientsThatComeAndGoLeaveNothingBehindInTheService) {
    ServedChild child({"--max-threads=" + std::to_string(kSoakPoolMax)});
    ASSERT_TRUE(child.ready());
    auto runClient = [&] {
        ChildProcess client("client", {child.name()});
        ASSERT_EQ("done", client.readLine());
        client.kill(SIGKILL);
        ASSERT_NE(-1, client.wait());
    };
    for (int i = 0; i < 3; ++i) runClient();
    // Each departed client's connections and watch go once its death is seen.
    const size_t fds = tvtest::countOpenFds(child.pid());
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
    if (sendObject(service, TestService::HOLD, new Echo()) != NO_ERROR) return 4;
    tvtest::ParentChannel::send("done");
    tvtest::ParentChannel::receive(std::chrono::seconds(60));
    return 0;
}

}  // namespace
