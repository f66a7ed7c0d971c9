#pragma once

#include <utils/RefBase.h>

namespace android {
namespace tvbinder {

// Work posted to the thread pool: run once per post, on a pool thread. The
// pool holds a reference from post() until run() returns.
class PoolTask : public virtual RefBase {
  public:
    virtual void run() = 0;
};

}  // namespace tvbinder
}  // namespace android
