#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "IPCClass.h"
#include "Protocol.h"
#include "tv_sp.h"

namespace {

using tavrin::tv_sp;

class Counted {
  public:
    explicit Counted(std::atomic<int>* deletions) : mDeletions(deletions) {}
    ~Counted() { mDeletions->fetch_add(1); }

  private:
    std::atomic<int>* mDeletions;
};

TEST(TvSp, EmptyAndFailureDifferInCountAndTheLastReleaseDeletesOnceEvenConcurrently) {
    tv_sp<Counted> empty;
    tv_sp<Counted> emptyCopy(empty);
    EXPECT_EQ(emptyCopy.useCount(), 0);
    tv_sp<Counted> failure(nullptr);
    tv_sp<Counted> failureCopy(failure);
    EXPECT_TRUE(failureCopy.isNull());
    EXPECT_EQ(failure.useCount(), 2);

    std::atomic<int> deletions{0};
    tv_sp<Counted> held(new Counted(&deletions));
    auto* copy = new tv_sp<Counted>(held);
    tv_sp<Counted>& alias = held;
    held = alias;
    delete copy;
    EXPECT_EQ(deletions.load(), 0);
    EXPECT_EQ(held.useCount(), 1);
    held = tv_sp<Counted>(new Counted(&deletions));
    EXPECT_EQ(deletions.load(), 1);
    held = tv_sp<Counted>();
    EXPECT_EQ(deletions.load(), 2);

    // Concurrent copies and releases delete exactly once.
    for (int trial = 0; trial < 20; ++trial) {
        deletions = 0;
        std::atomic<bool> go{false};
        tv_sp<Counted> original(new Counted(&deletions));
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t) {
            threads.emplace_back([shared = original, &go] {
                while (!go.load()) std::this_thread::yield();
                for (int i = 0; i < 1000; ++i) {
                    tv_sp<Counted> copy;
                    copy = shared;
                }
            });
        }
        original = tv_sp<Counted>();
        go.store(true);
        for (std::thread& thread : threads) thread.join();
        ASSERT_EQ(deletions.load(), 1) << "trial " << trial;
    }
}

class Empty : public tavrin::IPCClass {
  public:
    void serialization(tavrin::Serialization&) override {}
    void deserialization(tavrin::Deserialization&) override {}
    std::string getClassName() override { return "Empty"; }
};

TEST(Protocol, CopyIsIndependentOfItsSource) {
    auto* source = new tavrin::Protocol();
    source->add<Empty>("Empty");
    tavrin::Protocol copy(*source);
    source->creators.clear();
    delete source;
    ASSERT_EQ(copy.creators.count("Empty"), 1u);
    std::unique_ptr<tavrin::IPCClass> value(
        static_cast<tavrin::IPCClass*>(copy.creators["Empty"]()));
    EXPECT_EQ(value->getClassName(), "Empty");
}

}  // namespace
