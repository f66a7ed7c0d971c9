#pragma once

#include <utility>

namespace android {
namespace tvbinder {

// The registry of every descriptor the transport opens (sockets, epoll,
// pidfds). A child made by fork() must not talk on its parent's sockets, so
// the child closes all of them at once; the registry's lock is held across
// fork() so that the set is consistent in the child. That lock is the
// innermost of the transport's: descriptors are opened and closed under other
// locks (docs/transport.md), never the other way round. Any thread.
class TransportFds {
  public:
    // Records `fd` (ignored when negative) and returns it.
    static int track(int fd);
    // Forgets and closes `fd` (ignored when negative) unless it was opened
    // before a fork() in a parent: the child may have reused the number.
    static void close(int fd, unsigned generation);
    // Changes in each child made by fork().
    static unsigned generation();

    // pthread_atfork handlers; ProcessState installs them.
    static void lockForFork();
    static void unlockInParent();
    static void closeAllInChild();
};

// Owns one tracked descriptor.
class ScopedFd {
  public:
    ScopedFd() = default;
    explicit ScopedFd(int fd)
        : mFd(TransportFds::track(fd)), mGeneration(TransportFds::generation()) {}
    ~ScopedFd() { TransportFds::close(mFd, mGeneration); }
    ScopedFd(ScopedFd&& other) noexcept
        : mFd(std::exchange(other.mFd, -1)), mGeneration(other.mGeneration) {}
    ScopedFd& operator=(ScopedFd&& other) noexcept {
        if (this != &other) {
            TransportFds::close(mFd, mGeneration);
            mFd = std::exchange(other.mFd, -1);
            mGeneration = other.mGeneration;
        }
        return *this;
    }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;

    int get() const { return mFd; }
    bool valid() const { return mFd >= 0; }
    void reset() { TransportFds::close(std::exchange(mFd, -1), mGeneration); }

  private:
    int mFd = -1;
    unsigned mGeneration = 0;
};

}  // namespace tvbinder
}  // namespace android
