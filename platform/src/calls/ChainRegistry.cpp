#include "calls/ChainRegistry.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace android {
namespace tvbinder {

ChainMailbox::ChainMailbox() : mGeneration(TransportFds::generation()) {}

int ChainMailbox::fd() {
    std::lock_guard<std::mutex> guard(mLock);
    return eventLocked();
}

int ChainMailbox::eventLocked() {
    if (!mEvent.valid()) mEvent = ScopedFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return mEvent.get();
}

void ChainMailbox::put(HandedCall call) {
    std::lock_guard<std::mutex> guard(mLock);
    mCalls.push_back(std::move(call));
    if (mSignalled) return;
    mSignalled = true;
    const uint64_t one = 1;
    ssize_t written = write(eventLocked(), &one, sizeof(one));
    (void)written;
}

bool ChainMailbox::take(HandedCall* call) {
    std::lock_guard<std::mutex> guard(mLock);
    if (mCalls.empty()) {
        if (mSignalled) {
            uint64_t count;
            ssize_t drained = read(mEvent.get(), &count, sizeof(count));
            (void)drained;
            mSignalled = false;
        }
        return false;
    }
    *call = std::move(mCalls.front());
    mCalls.pop_front();
    return true;
}

ChainRegistry::Waiter* ChainRegistry::find(uint64_t chain) {
    for (Waiter& waiter : mWaiters) {
        if (waiter.chain == chain) return &waiter;
    }
    return nullptr;
}

void ChainRegistry::enter(uint64_t chain, ChainMailbox* mailbox) {
    std::lock_guard<std::mutex> guard(mLock);
    if (Waiter* waiter = find(chain)) {
        // Another thread of the chain (after a one-way broke it) keeps it.
        if (waiter->mailbox == mailbox) ++waiter->depth;
        return;
    }
    mWaiters.push_back(Waiter{chain, mailbox, 1});
    mCount.store(mWaiters.size(), std::memory_order_release);
}

void ChainRegistry::leave(uint64_t chain, ChainMailbox* mailbox) {
    std::lock_guard<std::mutex> guard(mLock);
    Waiter* waiter = find(chain);
    if (waiter == nullptr || waiter->mailbox != mailbox || --waiter->depth > 0) return;
    *waiter = mWaiters.back();
    mWaiters.pop_back();
    mCount.store(mWaiters.size(), std::memory_order_release);
}

bool ChainRegistry::handOff(uint64_t chain, const sp<Connection>& connection, Frame& frame) {
    if (mCount.load(std::memory_order_acquire) == 0) return false;
    std::lock_guard<std::mutex> guard(mLock);
    Waiter* waiter = find(chain);
    if (waiter == nullptr) return false;
    auto handed = std::make_unique<Frame>();
    handed->header = frame.header;
    handed->data = frame.releaseData();
    handed->offsets.swap(frame.offsets);
    handed->fds = frame.releaseFds();
    handed->charge = std::move(frame.charge);
    waiter->mailbox->put(HandedCall{connection, std::move(handed)});
    return true;
}

}  // namespace tvbinder
}  // namespace android
