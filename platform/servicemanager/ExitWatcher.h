#pragma once

#include <stdint.h>

#include <functional>
#include <thread>

namespace android {

// Tells which watched processes exited: calls onExit(key), on a thread of its
// own, once for each pidfd added with that key, when the pidfd becomes
// readable. Owned by the ServiceManager; add() and remove() may be called from
// any thread, onExit included. The pidfds stay their caller's to close.
class ExitWatcher {
  public:
    explicit ExitWatcher(std::function<void(uint64_t key)> onExit);
    // Stops the thread and waits for it: onExit runs no more.
    ~ExitWatcher();
    ExitWatcher(const ExitWatcher&) = delete;
    ExitWatcher& operator=(const ExitWatcher&) = delete;

    // `key` is not 0. False when the pidfd cannot be watched (the system's
    // limit of epoll watches, or memory).
    bool add(int pidfd, uint64_t key);
    // Called before the pidfd is closed; an exit reported already may still
    // reach onExit afterwards.
    void remove(int pidfd);

  private:
    void run();

    const std::function<void(uint64_t)> mOnExit;
    int mEpoll = -1;
    int mStop = -1;  // an eventfd; its key is 0
    std::thread mThread;
};

}  // namespace android
