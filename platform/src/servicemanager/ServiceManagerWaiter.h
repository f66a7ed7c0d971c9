#pragma once

#include <chrono>

#include "base/TransportFds.h"

namespace android {
namespace tvbinder {

// The socket pair that one getService() call sleeps on while it waits for a
// name. The service manager keeps one end: it writes a byte to it when the
// name is registered and closes it when it drops the waiter, so its own death
// shows here as a hang-up too. Waiting this way needs no thread of this
// process to take a call-back, so it needs no thread pool. Made and used by
// the waiting thread only.
class ServiceManagerWaiter {
  public:
    enum class Outcome { kRegistered, kHungUp, kTimedOut };

    ServiceManagerWaiter();
    // False when no socket pair could be made.
    bool valid() const { return mOwnEnd.valid() && mServiceManagerEnd.valid(); }
    // The end to send with the request; closed here once it is sent, so
    // that only the service manager holds it.
    int serviceManagerEnd() const { return mServiceManagerEnd.get(); }
    void sent() { mServiceManagerEnd.reset(); }

    Outcome waitUntil(std::chrono::steady_clock::time_point deadline);

  private:
    ScopedFd mOwnEnd;
    ScopedFd mServiceManagerEnd;
};

}  // namespace tvbinder
}  // namespace android
