#pragma once

#include <utils/RefBase.h>

#include "wire/Connection.h"
#include "wire/Frame.h"

namespace android {
namespace tvbinder {

class Runtime;

// Takes in what other processes send on their links: one-ways (admitted
// against the sender's budget and queued on their objects in the
// OneWayScheduler), releases, and requests for acknowledgement. A link is
// read to the end each time it is readable: control frames never wait behind
// one-ways. Owned by the Runtime; called on pool threads, one at a time per
// link.
class LinkReader {
  public:
    explicit LinkReader(Runtime& runtime) : mRuntime(runtime) {}

    // Pool thread: the link has frames (or was closed). Reads it, runs what
    // it read, reads on, and hands it back to epoll once it stays quiet.
    void onReadable(const sp<Connection>& link);

  private:
    // Reads (up to a budget) what waits on the link: DEAD_OBJECT when it
    // ended, BAD_VALUE when it must be dropped.
    status_t readWaiting(const sp<Connection>& link);
    bool take(Connection& link, Frame& frame);
    bool admitOneWay(Connection& link, Frame& frame);

    Runtime& mRuntime;
};

}  // namespace tvbinder
}  // namespace android
