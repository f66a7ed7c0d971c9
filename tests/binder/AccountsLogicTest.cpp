// What other processes may hold here, in one process: each process's share
// of the accepted connections, links and large bodies, and who gives up a
// connection for a newcomer when all are taken.
#include <gtest/gtest.h>

#include <vector>

#include "wire/PeerAccounts.h"

using android::sp;
using namespace android::tvbinder;

namespace {

// With the usual limit of 1024 descriptors: 384 accepted connections, 128 per process.
constexpr size_t kAll = 384;
constexpr size_t kPerProcess = 128;

struct Held {
    PeerAccounts& accounts;
    std::vector<sp<PeerAccount>> connections;
    ~Held() {
        for (const sp<PeerAccount>& account : connections) account->connectionGone(false);
    }
    // Admits up to `count` connections of `pid`: how many got in.
    size_t admit(pid_t pid, size_t count) {
        size_t admitted = 0;
        for (; admitted < count; ++admitted) {
            PeerAccounts::Admission admission = accounts.admitConnection(pid);
            if (admission.account == nullptr) break;
            connections.push_back(admission.account);
        }
        return admitted;
    }
};

TEST(PeerAccounts, EachProcessHasItsShareOfConnectionsLinksAndBodiesAndNewcomersGetIn) {
    PeerAccounts accounts;
    accounts.setDescriptorLimit(1024);
    Held held{accounts, {}};
    EXPECT_EQ(kPerProcess, held.admit(100, kPerProcess + 1));
    EXPECT_EQ(kPerProcess, held.admit(101, kPerProcess));
    EXPECT_EQ(kAll - 2 * kPerProcess, held.admit(102, kAll));

    // All taken: a newcomer gets in, naming the process that holds the most.
    PeerAccounts::Admission newcomer = accounts.admitConnection(103);
    ASSERT_NE(nullptr, newcomer.account);
    ASSERT_NE(nullptr, newcomer.evictFrom);
    EXPECT_NE(103, newcomer.evictFrom->pid());
    held.connections.push_back(newcomer.account);
    // ...and more, as long as it holds fewer than that process minus one.
    EXPECT_EQ(kPerProcess - 2, held.admit(103, kPerProcess));

    // Links and large bodies are counted per process.
    const sp<PeerAccount>& account = held.connections.front();
    for (uint32_t i = 0; i < PeerAccounts::kMaxLinksPerProcess; ++i)
        EXPECT_TRUE(account->takeLink());
    EXPECT_FALSE(account->takeLink());

    EXPECT_TRUE(account->takeBody(PeerAccounts::kBodyBudgetPerProcess - 10));
    {
        BodyCharge charge(account, PeerAccounts::kBodyBudgetPerProcess - 10);
        EXPECT_FALSE(account->takeBody(11));
    }
    EXPECT_TRUE(account->takeBody(PeerAccounts::kBodyBudgetPerProcess));
    account->returnBody(PeerAccounts::kBodyBudgetPerProcess);
}

}  // namespace
