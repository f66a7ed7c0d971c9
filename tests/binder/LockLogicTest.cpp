// The run-time lock checks of debug and sanitizer builds: a transport lock
// taken out of order, or held where application code runs, stops the process.
#include <gtest/gtest.h>

#include "base/Locks.h"

#if TVBINDER_CHECK_LOCKS

using namespace android::tvbinder;

namespace {

TEST(TransportLocks, AreTakenInRankOrderOnlyAndNeverHeldIntoApplicationCode) {
    Mutex peer(LockRank::kPeer);
    Mutex table(LockRank::kPeerTable);
    {
        LockGuard outer(peer);
        LockGuard inner(table);
        EXPECT_EQ(2u, HeldLocks::count());
    }
    EXPECT_EQ(0u, HeldLocks::count());
    HeldLocks::expectNone("BBinder::transact");

    EXPECT_DEATH(
        {
            LockGuard inner(table);
            LockGuard outer(peer);
        },
        "the Peer lock taken while holding the PeerTable lock");
    EXPECT_DEATH(
        {
            Mutex exports(LockRank::kExports);
            LockGuard held(exports);
            HeldLocks::expectNone("binderDied");
        },
        "binderDied with the ExportTable lock held");
}

}  // namespace

#endif
