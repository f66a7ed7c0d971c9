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

  protected:
    virtual ~EventSource() = default;
};

}  // namespace tvbinder
}  // namespace android
