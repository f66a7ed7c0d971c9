#include "base/TransportFds.h"

#include <unistd.h>

#include <atomic>
#include <mutex>
#include <unordered_set>

namespace android {
namespace tvbinder {

namespace {

std::mutex& fdLock() {
    static std::mutex* lock = new std::mutex;  // outlives every static destructor
    return *lock;
}

std::unordered_set<int>& trackedFds() {
    static auto* fds = new std::unordered_set<int>;
    return *fds;
}

std::atomic<unsigned> gGeneration{0};

}  // namespace

unsigned TransportFds::generation() {
    return gGeneration.load(std::memory_order_relaxed);
}

int TransportFds::track(int fd) {
    if (fd < 0) return fd;
    std::lock_guard<std::mutex> guard(fdLock());
    trackedFds().insert(fd);
    return fd;
}

void TransportFds::close(int fd, unsigned generation) {
    if (fd < 0 || generation != TransportFds::generation()) return;
    {
        std::lock_guard<std::mutex> guard(fdLock());
        if (trackedFds().erase(fd) == 0) return;
    }
    ::close(fd);
}

void TransportFds::lockForFork() {
    fdLock().lock();
}

void TransportFds::unlockInParent() {
    fdLock().unlock();
}

void TransportFds::closeAllInChild() {
    for (int fd : trackedFds()) ::close(fd);
    trackedFds().clear();
    gGeneration.fetch_add(1, std::memory_order_relaxed);
    fdLock().unlock();
}

}  // namespace tvbinder
}  // namespace android
