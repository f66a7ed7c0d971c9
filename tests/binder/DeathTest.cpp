#include <binder/Binder.h>
#include <binder/IBinder.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>

#include "ServedChild.h"
#include "TestService.h"
#include "TestSupport.h"

using namespace android;
using namespace tvtest;

namespace {

// Unlinks itself from inside the notice, which is allowed.
class SelfUnlinkingRecipient : public IBinder::DeathRecipient {
  public:
    void binderDied(const wp<IBinder>& who) override {
        sp<IBinder> binder = who.promote();
        unlinkStatus = binder != nullptr ? binder->unlinkToDeath(this) : NO_ERROR;
        ++calls;
    }
    std::atomic<int> calls{0};
    std::atomic<status_t> unlinkStatus{NO_ERROR};
};

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
    sp<SelfUnlinkingRecipient> selfUnlinking = new SelfUnlinkingRecipient();
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
