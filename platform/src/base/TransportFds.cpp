#include "base/TransportFds.h"

#include <unistd.h>

#include <atomic>
#include <unordered_set>

#include "base/Locks.h"

namespace android {
namespace tvbinder {

namespace {

// The registry: innermost of the transport's locks, since descriptors are
// opened and closed under others (a peer's pidfd, a mailbox's eventfd, the
// spare descriptor) and it is held across fork().
struct Registry {
    Mutex lock{LockRank::kDescriptors};
    std::unordered_set<int> fds TV_GUARDED_BY(lock);
};

Registry& registry() {
    static auto* made = new Registry;  // outlives every static destructor
    return *made;
}

std::atomic<unsigned> gGeneration{0};

}  // namespace

unsigned TransportFds::generation() {
    return gGeneration.load(std::memory_order_relaxed);
}

int TransportFds::track(int fd) {
    if (fd < 0) return fd;
    Registry& tracked = registry();
    LockGuard guard(tracked.lock);
    tracked.fds.insert(fd);
    return fd;
}

void TransportFds::close(int fd, unsigned generation) {
    if (fd < 0 || generation != TransportFds::generation()) return;
    Registry& tracked = registry();
    {
        LockGuard guard(tracked.lock);
        if (tracked.fds.erase(fd) == 0) return;
    }
    ::close(fd);
}

// The three fork handlers take the lock in one and release it in another.
void TransportFds::lockForFork() TV_NO_THREAD_SAFETY_ANALYSIS {
    registry().lock.lock();
}

void TransportFds::unlockInParent() TV_NO_THREAD_SAFETY_ANALYSIS {
    registry().lock.unlock();
}

void TransportFds::closeAllInChild() TV_NO_THREAD_SAFETY_ANALYSIS {
    Registry& tracked = registry();
    for (int fd : tracked.fds) ::close(fd);
    tracked.fds.clear();
    gGeneration.fetch_add(1, std::memory_order_relaxed);
    tracked.lock.unlock();
}

}  // namespace tvbinder
}  // namespace android
