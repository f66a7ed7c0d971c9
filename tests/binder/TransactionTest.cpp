// Calls between served processes, and what a served process is: its pool
// of threads, its name, and what a fork of it may do.
#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <future>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "TestService.h"
#include "TestSupport.h"
#include "runtime/Runtime.h"

using namespace android;
using namespace tvtest;
using android::tvbinder::Runtime;

namespace {

// End of file comes only once every copy of the write end is closed, the
// receiver's included: what came before it.
std::string readToEnd(int fd) {
    std::string received;
    const bool ended = waitUntil([&] {
        char buffer[16];
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n > 0) received.append(buffer, static_cast<size_t>(n));
        return n == 0;
    });
    return ended ? received : "no end of file after " + received;
}

TEST(BinderCalls, RunInTheOwnerCarryLargeBodiesDescriptorsObjectsAndTheCallerUntilItDies) {
    ServedChild child;
    ServedChild user;
    ASSERT_TRUE(child.ready());
    ASSERT_TRUE(user.ready());
    const sp<IBinder>& service = child.binder();
    EXPECT_EQ(nullptr, service->localBinder());
    status_t status;
    EXPECT_EQ(42, callInt(service, TestService::ECHO, 42, &status));
    EXPECT_EQ(NO_ERROR, status);
    EXPECT_EQ(NO_ERROR, service->pingBinder());
    EXPECT_EQ(String16("tavrin.test.Service"), service->getInterfaceDescriptor());
    Parcel data;
    Parcel reply;
    reply.writeInt32(7);
    EXPECT_EQ(-EINVAL, service->transact(TestService::FAIL, data, &reply));
    EXPECT_EQ(0u, reply.dataSize());
    EXPECT_EQ(UNKNOWN_TRANSACTION, service->transact(0x00abcdef, data, &reply));
    // An error set on the reply is the caller's result.
    for (const status_t error : {status_t{7}, status_t{PERMISSION_DENIED}}) {
        callInt(service, TestService::SET_REPLY_ERROR, error, &status);
        EXPECT_EQ(error, status);
    }

    // Large bodies travel intact both ways; one beyond the limit is refused.
    std::vector<uint8_t> bytes(3 * 1024 * 1024 + 5);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 1);
    Parcel large;
    large.writeInt32(static_cast<int32_t>(bytes.size()));
    large.write(bytes.data(), bytes.size());
    ASSERT_EQ(NO_ERROR, service->transact(TestService::ECHO_BYTES, large, &reply));
    ASSERT_EQ(static_cast<int32_t>(bytes.size()), reply.readInt32());
    const void* echoed = reply.readInplace(bytes.size());
    ASSERT_NE(nullptr, echoed);
    EXPECT_EQ(0, memcmp(bytes.data(), echoed, bytes.size()));
    Parcel tooLarge;
    tooLarge.write(std::vector<uint8_t>(17 * 1024 * 1024).data(), 17 * 1024 * 1024);
    EXPECT_NE(NO_ERROR, service->transact(TestService::ECHO_BYTES, tooLarge, &reply));

    // The receiver gets its own descriptor, closed with its parcel; the body
    // is large enough to travel in a memfd beside it.
    int pipeFds[2];
    ASSERT_EQ(0, pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK));
    {
        Parcel withFd;
        ASSERT_EQ(NO_ERROR, withFd.writeDupFileDescriptor(pipeFds[1]));
        withFd.writeCString("hello");
        withFd.write(std::vector<uint8_t>(100 * 1024).data(), 100 * 1024);
        ASSERT_EQ(NO_ERROR, service->transact(TestService::WRITE_FD, withFd, &reply));
        EXPECT_EQ(5, reply.readInt32());
    }
    close(pipeFds[1]);
    EXPECT_EQ("hello", readToEnd(pipeFds[0]));
    close(pipeFds[0]);

    // The caller is the kernel's view of it, restored after nested calls; a
    // call back runs on the thread waiting for its reply.
    EXPECT_EQ(getpid(), IPCThreadState::self()->getCallingPid());
    EXPECT_EQ(getuid(), IPCThreadState::self()->getCallingUid());
    ASSERT_EQ(NO_ERROR, service->transact(TestService::GET_CALLER, data, &reply));
    EXPECT_EQ(getpid(), reply.readInt32());
    EXPECT_EQ(static_cast<int32_t>(getuid()), reply.readInt32());
    sp<Recorder> recorder = new Recorder();
    for (int round = 0; round < 3; ++round) {
        Parcel callBack;
        callBack.writeStrongBinder(recorder);
        callBack.writeInt32(round);
        ASSERT_EQ(NO_ERROR, service->transact(TestService::CALL_BACK, callBack, &reply));
        EXPECT_EQ(round, reply.readInt32());
        EXPECT_EQ(getpid(), reply.readInt32());  // the child's caller again after its nested call
        EXPECT_EQ(child.pid(), recorder->lastCallingPid.load());
        EXPECT_EQ(currentTid(), recorder->lastTid.load());
    }
    EXPECT_EQ(getpid(), IPCThreadState::self()->getCallingPid());

    // One proxy per object; an object sent back to its owner arrives as
    // itself, one sent again as the proxy the receiver already holds, and a
    // proxy passed on goes to the object's owner.
    EXPECT_EQ(user.binder().get(), lookup(user.name()).get());
    ASSERT_EQ(NO_ERROR, sendObject(service, TestService::HOLD, recorder));
    Parcel sent;
    sent.writeStrongBinder(recorder);
    // Sent again, it arrives as the very proxy the child already holds.
    EXPECT_EQ(NO_ERROR, service->transact(TestService::SAME_AS_HELD, sent, &reply));
    EXPECT_EQ(1, reply.readInt32());
    Parcel none;
    ASSERT_EQ(NO_ERROR, service->transact(TestService::GET_HELD, none, &reply));
    EXPECT_EQ(static_cast<IBinder*>(recorder.get()), reply.readStrongBinder().get());

    ASSERT_EQ(NO_ERROR, sendObject(user.binder(), TestService::HOLD, child.binder()));
    EXPECT_EQ(user.pid(), heldCall(user.binder(), TestService::GET_CALLER, 0));
    Parcel relayed;
    relayed.writeStrongBinder(child.binder());
    relayed.writeInt32(31);
    ASSERT_EQ(NO_ERROR, user.binder()->transact(TestService::CALL_BACK, relayed, &reply));
    EXPECT_EQ(31, reply.readInt32());

    child.process().kill(SIGKILL);
    ASSERT_NE(-1, child.process().wait());
    Parcel echo;
    echo.writeInt32(2);
    EXPECT_EQ(DEAD_OBJECT, service->transact(TestService::ECHO, echo, &reply));
    EXPECT_EQ(0u, reply.dataSize());
    EXPECT_FALSE(service->isBinderAlive());
    EXPECT_EQ(DEAD_OBJECT, service->pingBinder());
    EXPECT_EQ(DEAD_OBJECT,
              service->transact(TestService::SEQUENCE, echo, nullptr, IBinder::FLAG_ONEWAY));
}

// What the forked child found; 0 when all is well.
int checkForkedChild(const std::string& serviceName, uint64_t parentEndpoint) {
    if (Runtime::current() != nullptr) return 1;  // the parent's state must be gone
    sp<IBinder> service = lookup(serviceName, std::chrono::seconds(10));
    if (service == nullptr) return 2;
    if (callInt(service, TestService::ECHO, 5) != 5) return 3;
    if (Runtime::current() == nullptr || Runtime::current()->endpoint() == parentEndpoint) return 4;
    return 0;
}

TEST(ServedProcess,
     PoolGrowsToItsMaximumOrServesOnWithoutNewThreadsNameIsWhatPsShowsAndAForkGetsItsOwnEndpoint) {
    constexpr int kMaxSpawned = 3;
    ServedChild child({"--max-threads=" + std::to_string(kMaxSpawned), "--name=tvbnamed"});
    ASSERT_TRUE(child.ready());
    EXPECT_EQ("tvbnamed", tvproc::processNameOf(child.pid()));
    std::string commandLine;
    std::getline(std::ifstream("/proc/" + std::to_string(child.pid()) + "/cmdline"), commandLine);
    EXPECT_EQ(0u, commandLine.rfind("tvbnamed", 0));
    // The main pool thread plus the spawned ones: all of them are needed at once.
    constexpr int kCallers = kMaxSpawned + 1;
    std::vector<std::future<std::pair<int32_t, int32_t>>> calls;
    for (int i = 0; i < kCallers; ++i) {
        calls.push_back(std::async(std::launch::async, [&] {
            Parcel data;
            Parcel reply;
            data.writeInt32(kCallers);
            if (child.binder()->transact(TestService::BARRIER, data, &reply) != NO_ERROR) {
                return std::make_pair(-1, -1);
            }
            int32_t met = reply.readInt32();
            return std::make_pair(met, reply.readInt32());
        }));
    }
    int32_t mostThreads = 0;
    for (auto& call : calls) {
        auto [met, threads] = call.get();
        EXPECT_EQ(1, met);
        mostThreads = std::max(mostThreads, threads);
    }
    EXPECT_EQ(kCallers, mostThreads);
    // The main pool thread and the spawned ones.
    EXPECT_EQ(size_t{1 + kMaxSpawned}, countPoolThreads(child.pid()));

    // Every call tries to grow a pool whose only thread takes it.
    ServedChild starved({"--no-new-threads"});
    ASSERT_TRUE(starved.ready());
    std::vector<std::future<int32_t>> echoes;
    for (int i = 0; i < kCallers; ++i) {
        echoes.push_back(std::async(std::launch::async, [&, i] {
            return callInt(starved.binder(), TestService::ECHO, i);
        }));
    }
    for (int i = 0; i < kCallers; ++i) EXPECT_EQ(i, echoes[i].get());
    EXPECT_EQ(size_t{1}, countPoolThreads(starved.pid()));

    // A fork without exec gets its own endpoint and leaves the parent's alone.
    const uint64_t parentEndpoint = Runtime::current()->endpoint();
    ChildProcess forked([&](Channel&) { return checkForkedChild(child.name(), parentEndpoint); });
    EXPECT_EQ(0, forked.finish());
    EXPECT_EQ(parentEndpoint, Runtime::current()->endpoint());
    EXPECT_EQ(6, callInt(child.binder(), TestService::ECHO, 6));
}

}  // namespace
