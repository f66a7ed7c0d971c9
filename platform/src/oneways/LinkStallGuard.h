#pragma once

#include <stdint.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

#include <mutex>
#include <unordered_map>

#include "base/EventSource.h"
#include "base/TransportFds.h"
#include "wire/Connection.h"

namespace android {
namespace tvbinder {

class Runtime;

// A pool thread that read one-ways from a link runs them and then reads the
// link again, without handing it back to epoll in between: a stream then
// costs no wake-ups and no re-arming. While it runs them the link is "held".
// A handler may wait for a later one-way of that same link (to another
// object): so a link held for longer than a few milliseconds is taken back
// here, by the pool thread that gets this guard's timer, and handed to epoll,
// where another pool thread reads on. Owned by the Runtime; used by pool
// threads.
class LinkStallGuard : public EventSource {
  public:
    explicit LinkStallGuard(Runtime& runtime);

    status_t init();
    // The calling thread holds `link` (taken from epoll) while it runs what
    // it read.
    void hold(const sp<Connection>& link);
    // The handlers ran: true when the thread still held the link (it may
    // read it again, and hands it back to epoll itself), false when it was
    // taken back meanwhile.
    bool release(const sp<Connection>& link);
    // Pool thread: the timer fired.
    void onTimer();

  private:
    void armTimer();

    Runtime& mRuntime;
    ScopedFd mTimer;

    std::mutex mLock;  // guards everything below
    std::unordered_map<Connection*, std::pair<sp<Connection>, int64_t>> mHeld;  // since (ms)
    bool mTimerArmed = false;
};

}  // namespace tvbinder
}  // namespace android
