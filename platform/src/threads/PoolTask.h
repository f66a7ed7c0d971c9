#pragma once

#include <utils/RefBase.h>

#include <functional>
#include <utility>

namespace android {
namespace tvbinder {

// Work posted to the thread pool: run once per post, on a pool thread. The
// pool holds a reference from post() until run() returns.
class PoolTask : public virtual RefBase {
  public:
    virtual void run() = 0;
    // True for a task that a thread waiting for a reply may take in the
    // pool's stead (ThreadPool::standIn).
    virtual bool standsIn() const { return false; }
    // Runs it on such a thread: handles what needs no application code and
    // no wait, and posts the rest for a pool thread.
    virtual void runStandingIn() {}
};

// One-off work (a death to handle, releases to flush) as a task; what it
// needs is captured by `work`.
class WorkTask : public PoolTask {
  public:
    explicit WorkTask(std::function<void()> work) : mWork(std::move(work)) {}
    void run() override { mWork(); }

  private:
    const std::function<void()> mWork;
};

}  // namespace tvbinder
}  // namespace android
