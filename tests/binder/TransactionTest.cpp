#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "ServedChild.h"
#include "TestService.h"
#include "TestSupport.h"

using android::DEAD_OBJECT;
using android::IBinder;
using android::IPCThreadState;
using android::NO_ERROR;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using android::UNKNOWN_TRANSACTION;
using tvtest::callInt;
using tvtest::currentTid;
using tvtest::Recorder;
using tvtest::sendObject;
using tvtest::ServedChild;
using tvtest::TestService;

namespace {

TEST(BinderCalls, SynchronousCallsRunInTheOwnerAndReturnItsReply) {
    ServedChild child;
    ASSERT_TRUE(child.ready());
    const sp<IBinder>& service = child.binder();
    EXPECT_EQ(nullptr, service->localBinder());
    EXPECT_NE(nullptr, service->remoteBinder());

    status_t status;
    EXPECT_EQ(42, callInt(service, TestService::ECHO, 42, &status));
    EXPECT_EQ(NO_ERROR, status);
    EXPECT_EQ(NO_ERROR, service->pingBinder());
    EXPECT_EQ(String16("tavrin.test.Service"), service->getInterfaceDescriptor());
    EXPECT_NE(currentTid(), callInt(service, TestService::GET_TID, 0));

    Parcel data;
    Parcel reply;
    reply.writeInt32(7);
    EXPECT_EQ(-EINVAL, service->transact(TestService::FAIL, data, &reply));
    EXPECT_EQ(0u, reply.dataSize());
    EXPECT_EQ(UNKNOWN_TRANSACTION, service->transact(0x00abcdef, data, &reply));
}

TEST(BinderCalls, LargeTransactionsTravelIntactBothWays) {
    ServedChild child;
    ASSERT_TRUE(child.ready());
    std::vector<uint8_t> bytes(3 * 1024 * 1024 + 5);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 1);
    Parcel data;
    Parcel reply;
    data.writeInt32(static_cast<int32_t>(bytes.size()));
    data.write(bytes.data(), bytes.size());
    ASSERT_EQ(NO_ERROR, child.binder()->transact(TestService::ECHO_BYTES, data, &reply));
    ASSERT_EQ(static_cast<int32_t>(bytes.size()), reply.readInt32());
    const void* echoed = reply.readInplace(bytes.size());
    ASSERT_NE(nullptr, echoed);
    EXPECT_EQ(0, memcmp(bytes.data(), echoed, bytes.size()));

    Parcel tooLarge;
    std::vector<uint8_t> huge(17 * 1024 * 1024);
    tooLarge.write(huge.data(), huge.size());
    EXPECT_NE(NO_ERROR, child.binder()->transact(TestService::ECHO_BYTES, tooLarge, &reply));
    EXPECT_EQ(9, callInt(child.binder(), TestService::ECHO, 9));
}

TEST(BinderObjects, OneProxyPerObjectAndTheOwnerGetsItsOwnObjectBack) {
    ServedChild child;
    ASSERT_TRUE(child.ready());
    EXPECT_EQ(child.binder().get(), tvtest::lookup(child.name()).get());

    sp<Recorder> local = new Recorder();
    ASSERT_EQ(NO_ERROR, sendObject(child.binder(), TestService::HOLD, local));
    Parcel data;
    Parcel reply;
    data.writeStrongBinder(local);
    // Sent again, it arrives as the very proxy the child already holds.
    EXPECT_EQ(NO_ERROR, child.binder()->transact(TestService::SAME_AS_HELD, data, &reply));
    EXPECT_EQ(1, reply.readInt32());

    Parcel none;
    ASSERT_EQ(NO_ERROR, child.binder()->transact(TestService::GET_HELD, none, &reply));
    const sp<IBinder> back = reply.readStrongBinder();
    EXPECT_EQ(static_cast<IBinder*>(local.get()), back.get());
}

TEST(BinderObjects, APassedProxyTalksToItsOwnerDirectly) {
    ServedChild owner;
    ServedChild user;
    ASSERT_TRUE(owner.ready());
    ASSERT_TRUE(user.ready());
    ASSERT_EQ(NO_ERROR, sendObject(user.binder(), TestService::HOLD, owner.binder()));
    EXPECT_EQ(user.pid(), tvtest::heldCall(user.binder(), TestService::GET_CALLER, 0));

    Parcel echo;
    Parcel reply;
    echo.writeStrongBinder(owner.binder());
    echo.writeInt32(31);
    ASSERT_EQ(NO_ERROR, user.binder()->transact(TestService::CALL_OBJECT, echo, &reply));
    EXPECT_EQ(31, reply.readInt32());
}

// Nested calls: the call back runs on the thread waiting for its reply, and
// the caller's identity is the right one at every level.
TEST(CallerIdentity, IsTheKernelsViewOfTheCallerAndRestoredAfterNestedCalls) {
    ServedChild child;
    ASSERT_TRUE(child.ready());
    EXPECT_EQ(getpid(), IPCThreadState::self()->getCallingPid());
    EXPECT_EQ(getuid(), IPCThreadState::self()->getCallingUid());

    Parcel data;
    Parcel reply;
    ASSERT_EQ(NO_ERROR, child.binder()->transact(TestService::GET_CALLER, data, &reply));
    EXPECT_EQ(getpid(), reply.readInt32());
    EXPECT_EQ(static_cast<int32_t>(getuid()), reply.readInt32());

    sp<Recorder> recorder = new Recorder();
    for (int round = 0; round < 3; ++round) {
        Parcel callBack;
        callBack.writeStrongBinder(recorder);
        callBack.writeInt32(round);
        ASSERT_EQ(NO_ERROR, child.binder()->transact(TestService::CALL_BACK, callBack, &reply));
        EXPECT_EQ(round, reply.readInt32());
        EXPECT_EQ(getpid(), reply.readInt32());  // the child's caller again after its nested call
        EXPECT_EQ(child.pid(), recorder->lastCallingPid.load());
        EXPECT_EQ(currentTid(), recorder->lastTid.load());
    }
    EXPECT_EQ(getpid(), IPCThreadState::self()->getCallingPid());
}

TEST(DeadObjects, CallsToAProcessThatDiedFailWithDeadObject) {
    ServedChild child;
    ASSERT_TRUE(child.ready());
    ASSERT_EQ(1, callInt(child.binder(), TestService::ECHO, 1));
    child.process().kill(SIGKILL);
    ASSERT_NE(-1, child.process().wait());

    Parcel data;
    Parcel reply;
    data.writeInt32(2);
    EXPECT_EQ(DEAD_OBJECT, child.binder()->transact(TestService::ECHO, data, &reply));
    EXPECT_EQ(0u, reply.dataSize());
    EXPECT_FALSE(child.binder()->isBinderAlive());
    EXPECT_EQ(DEAD_OBJECT, child.binder()->pingBinder());
    EXPECT_EQ(DEAD_OBJECT,
              child.binder()->transact(TestService::SEQUENCE, data, nullptr, IBinder::FLAG_ONEWAY));
}

TEST(FileDescriptors, TheReceiverGetsItsOwnDescriptorClosedWithItsParcel) {
    ServedChild child;
    ASSERT_TRUE(child.ready());
    int pipeFds[2];
    ASSERT_EQ(0, pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK));
    {
        Parcel data;
        Parcel reply;
        ASSERT_EQ(NO_ERROR, data.writeDupFileDescriptor(pipeFds[1]));
        data.writeCString("hello");
        // Large enough to travel in a memfd next to the passed descriptor.
        std::vector<uint8_t> padding(100 * 1024);
        data.write(padding.data(), padding.size());
        ASSERT_EQ(NO_ERROR, child.binder()->transact(TestService::WRITE_FD, data, &reply));
        EXPECT_EQ(5, reply.readInt32());
    }
    close(pipeFds[1]);
    // End of file comes only once every copy of the write end is closed,
    // the child's included.
    std::string received;
    bool ended = tvtest::waitUntil([&] {
        char buffer[16];
        ssize_t n = read(pipeFds[0], buffer, sizeof(buffer));
        if (n > 0) received.append(buffer, static_cast<size_t>(n));
        return n == 0;
    });
    close(pipeFds[0]);
    EXPECT_TRUE(ended);
    EXPECT_EQ("hello", received);
}

}  // namespace
