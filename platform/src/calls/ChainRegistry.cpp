#include "calls/ChainRegistry.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace android {
namespace tvbinder {

ChainMailbox::ChainMailbox() : mGeneration(TransportFds::generation()) {}

int ChainMailbox::fd() {
    LockGuard guard(mLock);
    return eventLocked();
}

int ChainMailbox::eventLocked() {
    if (!mEvent.valid()) mEvent = ScopedFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return mEvent.get();
}

void ChainMailbox::put(HandedCall call) {
    LockGuard guard(mLock);
    mCalls.push_back(std::move(call));
    signalLocked();
}

void ChainMailbox::onPoolBusy() {
    LockGuard guard(mLock);
    signalLocked();
}

void ChainMailbox::signalLocked() {
    if (mSignalled) return;
    mSignalled = true;
    const uint64_t one = 1;
    ssize_t written = write(eventLocked(), &one, sizeof(one));
    (void)written;
}

std::optional<HandedCall> ChainMailbox::take() {
    LockGuard guard(mLock);
    if (mCalls.empty()) {
        if (mSignalled) {
            uint64_t count;
            ssize_t drained = read(mEvent.get(), &count, sizeof(count));
            (void)drained;
            mSignalled = false;
        }
        return std::nullopt;
    }
    HandedCall call = std::move(mCalls.front());
    mCalls.pop_front();
    return call;
}

ChainRegistry::Waiter* ChainRegistry::find(uint64_t chain) {
    for (Waiter& waiter : mWaiters) {
        if (waiter.chain == chain) return &waiter;
    }
    return nullptr;
}

void ChainRegistry::enter(uint64_t chain, ChainMailbox* mailbox) {
    LockGuard guard(mLock);
    if (Waiter* waiter = find(chain)) {
        // Another thread of the chain (after a one-way broke it) keeps it.
        if (waiter->mailbox == mailbox) ++waiter->depth;
        return;
    }
    mWaiters.push_back(Waiter{chain, mailbox, 1});
    mCount.store(mWaiters.size(), std::memory_order_release);
}

void ChainRegistry::leave(uint64_t chain, ChainMailbox* mailbox) {
    LockGuard guard(mLock);
    Waiter* waiter = find(chain);
    if (waiter == nullptr || waiter->mailbox != mailbox || --waiter->depth > 0) return;
    *waiter = mWaiters.back();
    mWaiters.pop_back();
    mCount.store(mWaiters.size(), std::memory_order_release);
}

bool ChainRegistry::handOff(uint64_t chain, const sp<AcceptedConnection>& connection,
                            Frame& frame) {
    if (mCount.load(std::memory_order_acquire) == 0) return false;
    LockGuard guard(mLock);
    Waiter* waiter = find(chain);
    if (waiter == nullptr) return false;
    waiter->mailbox->put(HandedCall{connection, std::make_unique<Frame>(std::move(frame))});
    return true;
}

}  // namespace tvbinder
}  // namespace android
