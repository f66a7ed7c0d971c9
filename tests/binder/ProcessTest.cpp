// What a served process is: its pool of threads, its name, and what a fork
// of it may do.
#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "ServedChild.h"
#include "TestService.h"
#include "TestSupport.h"
#include "runtime/Runtime.h"

using namespace android;
using namespace tvtest;
using android::tvbinder::Runtime;

namespace {

// What the forked child found; 0 when all is well.
int checkForkedChild(const std::string& serviceName, uint64_t parentEndpoint) {
    if (Runtime::current() != nullptr) return 1;  // the parent's state must be gone
    sp<IBinder> service = lookup(serviceName, std::chrono::seconds(10));
    if (service == nullptr) return 2;
    if (callInt(service, TestService::ECHO, 5) != 5) return 3;
    if (Runtime::current() == nullptr || Runtime::current()->endpoint() == parentEndpoint) return 4;
    return 0;
}

TEST(ServedProcess, PoolGrowsToItsMaximumNameIsWhatPsShowsAndAForkGetsItsOwnEndpoint) {
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

    // A fork without exec gets its own endpoint and leaves the parent's alone.
    const uint64_t parentEndpoint = Runtime::current()->endpoint();
    ChildProcess forked([&](Channel&) { return checkForkedChild(child.name(), parentEndpoint); });
    EXPECT_EQ(0, forked.finish());
    EXPECT_EQ(parentEndpoint, Runtime::current()->endpoint());
    EXPECT_EQ(6, callInt(child.binder(), TestService::ECHO, 6));
}

}  // namespace
