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
