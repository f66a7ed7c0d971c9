#pragma once

#include <stddef.h>
#include <stdint.h>
#include <utils/Errors.h>

#include <atomic>
#include <mutex>

#include "EventSource.h"
#include "TransportFds.h"

namespace android {
namespace tvbinder {

class Runtime;

// The threads that receive work: each waits in epoll_wait on the process's
// listeners, accepted connections and watched peers, all registered one-shot
// so that exactly one thread takes each event and re-arms the source when it
// is done with it. When the last waiting thread takes an event the pool
// spawns another, up to its maximum.
class ThreadPool {
  public:
    static constexpr size_t kDefaultMaxThreads = 15;

    explicit ThreadPool(Runtime& runtime);

    status_t init();
    void add(EventSource* source, int fd);
    void rearm(EventSource* source, int fd);
    void remove(int fd);

    // Spawns the main pool thread, once.
    void start();
    void setMaxThreads(size_t maxThreads);
    size_t maxThreads() const;
    // True while some pool thread waits for work.
    bool hasIdleThreads() const { return mWaiting.load(std::memory_order_relaxed) > 0; }
    // Runs the calling thread as a pool thread. Never returns.
    void join(bool isMain);

  private:
    void spawn(bool isMain);
    void onEventTaken();

    Runtime& mRuntime;
    ScopedFd mEpoll;
    std::atomic<int> mWaiting{0};

    mutable std::mutex mLock;  // guards everything below
    bool mStarted = false;
    size_t mMaxThreads = kDefaultMaxThreads;
    size_t mSpawned = 0;
    size_t mNamed = 0;
};

}  // namespace tvbinder
}  // namespace android
