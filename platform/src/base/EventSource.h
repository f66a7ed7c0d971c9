#pragma once

#include <stdint.h>

namespace android {
namespace tvbinder {

// What a registration in the thread pool's epoll set points at. The pool
// thread that takes an event calls onEvent with the epoll events; since
// registrations are one-shot, that thread alone has the source until it
// re-arms it, and only it may unregister it. Whoever registers a source keeps
// it alive until it is unregistered.
class EventSource {
  public:
    virtual void onEvent(uint32_t events) = 0;
    // A thread waiting for a reply took the event because no pool thread was
    // free (ThreadPool::standIn): handles what it can without running
    // application code or waiting, and says true; false leaves the whole
    // event to a pool thread, the source staying out of epoll until then.
    virtual bool onEventStandingIn(uint32_t /*events*/) { return false; }

  protected:
    virtual ~EventSource() = default;
};

}  // namespace tvbinder
}  // namespace android
