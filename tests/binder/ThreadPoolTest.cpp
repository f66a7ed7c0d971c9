#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <string>
#include <vector>

#include "ServedChild.h"
#include "TestService.h"
#include "TestSupport.h"

using android::NO_ERROR;
using android::Parcel;
using tvtest::ServedChild;
using tvtest::TestService;

namespace {

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return content;
}

TEST(ThreadPool, GrowsWhenAllThreadsAreBusyUpToItsMaximum) {
    constexpr int kMaxSpawned = 3;
    ServedChild child({"--max-threads=" + std::to_string(kMaxSpawned)});
    ASSERT_TRUE(child.ready());
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
    EXPECT_EQ(size_t{1 + kMaxSpawned}, tvtest::countPoolThreads(child.pid()));
}

TEST(ThreadPool, TheProcessNameIsWhatPsShows) {
    ServedChild child({"--name=tvbnamed"});
    ASSERT_TRUE(child.ready());
    const std::string proc = "/proc/" + std::to_string(child.pid());
    EXPECT_EQ("tvbnamed\n", readFile(proc + "/comm"));
    EXPECT_EQ(0u, readFile(proc + "/cmdline").rfind("tvbnamed", 0));
}

}  // namespace
