#include "ChainRegistry.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace android {
namespace tvbinder {

ChainMailbox::ChainMailbox()
    : mGeneration(TransportFds::generation()), mEvent(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void ChainMailbox::put(HandedCall call) {
    {
        std::lock_guard<std::mutex> guard(mLock);
        mCalls.push_back(std::move(call));
    }
    const uint64_t one = 1;
    ssize_t written = write(mEvent.get(), &one, sizeof(one));
    (void)written;
}

bool ChainMailbox::take(HandedCall* call) {
    std::lock_guard<std::mutex> guard(mLock);
    if (mCalls.empty()) {
        uint64_t count;
        ssize_t drained = read(mEvent.get(), &count, sizeof(count));
        (void)drained;
        return false;
    }
    *call = std::move(mCalls.front());
    mCalls.pop_front();
    return true;
}

void ChainRegistry::enter(uint64_t chain, ChainMailbox* mailbox) {
    std::lock_guard<std::mutex> guard(mLock);
    auto [it, fresh] = mWaiters.try_emplace(chain, Waiter{mailbox, 0});
    // Another thread of the chain (after a one-way broke it) keeps it.
    if (it->second.mailbox == mailbox) ++it->second.depth;
    (void)fresh;
}

void ChainRegistry::leave(uint64_t chain, ChainMailbox* mailbox) {
    std::lock_guard<std::mutex> guard(mLock);
    auto it = mWaiters.find(chain);
    if (it == mWaiters.end() || it->second.mailbox != mailbox) return;
    if (--it->second.depth == 0) mWaiters.erase(it);
}

bool ChainRegistry::handOff(uint64_t chain, const sp<Connection>& connection, Frame& frame) {
    std::lock_guard<std::mutex> guard(mLock);
    auto it = mWaiters.find(chain);
    if (it == mWaiters.end()) return false;
    auto handed = std::make_unique<Frame>();
    handed->header = frame.header;
    handed->data = frame.releaseData();
    handed->offsets.swap(frame.offsets);
    handed->fds = frame.releaseFds();
    it->second.mailbox->put(HandedCall{connection, std::move(handed)});
    return true;
}

}  // namespace tvbinder
}  // namespace android
