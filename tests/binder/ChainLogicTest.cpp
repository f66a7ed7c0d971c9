// The chain registry in one process: a call of a chain a thread waits in is
// handed to that thread's mailbox, and to nobody else.
#include <gtest/gtest.h>
#include <poll.h>

#include "calls/ChainRegistry.h"
#include "wire/Frame.h"

using namespace android::tvbinder;

namespace {

Frame callOfChain(uint64_t chain) {
    Frame frame;
    frame.header = OutgoingFrame::make(FrameKind::kTransaction).header;
    frame.header.argument = chain;
    frame.allocateData(0);
    return frame;
}

bool readable(ChainMailbox& mailbox) {
    pollfd waiter{mailbox.fd(), POLLIN, 0};
    return poll(&waiter, 1, 0) == 1;
}

TEST(ChainRegistry, ACallGoesToTheThreadWaitingInItsChainUntilItLeaves) {
    ChainRegistry chains;
    ChainMailbox first;
    ChainMailbox second;
    Frame nobodyWaits = callOfChain(5);
    EXPECT_FALSE(chains.handOff(5, nullptr, nobodyWaits));
    EXPECT_NE(nullptr, nobodyWaits.data()) << "a call not handed off was taken";

    chains.enter(5, &first);
    chains.enter(5, &first);  // a nested wait of the same thread
    // A thread of the chain that a one-way cut off waits too: the first keeps it.
    chains.enter(5, &second);
    Frame other = callOfChain(6);
    EXPECT_FALSE(chains.handOff(6, nullptr, other));
    Frame call = callOfChain(5);
    ASSERT_TRUE(chains.handOff(5, nullptr, call));
    EXPECT_EQ(nullptr, call.data());
    EXPECT_TRUE(readable(first));
    EXPECT_FALSE(second.take().has_value());
    std::optional<HandedCall> handed = first.take();
    ASSERT_TRUE(handed.has_value());
    EXPECT_EQ(5u, handed->frame->header.argument);
    EXPECT_FALSE(first.take().has_value());
    EXPECT_FALSE(readable(first)) << "an empty mailbox still wakes its thread";

    chains.leave(5, &second);
    chains.leave(5, &first);
    Frame stillNested = callOfChain(5);
    EXPECT_TRUE(chains.handOff(5, nullptr, stillNested));
    chains.leave(5, &first);
    Frame afterLeaving = callOfChain(5);
    EXPECT_FALSE(chains.handOff(5, nullptr, afterLeaving));
}

}  // namespace
