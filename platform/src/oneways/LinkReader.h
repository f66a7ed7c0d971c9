#pragma once

#include <utils/Errors.h>

#include "peers/AcceptedConnection.h"

namespace android {
namespace tvbinder {

class AcceptedConnections;
class LinkIntake;
class LinkStallGuard;
class ThreadPool;

// Reads the links other processes send their one-ways and releases on. A
// link is read to the end each time it is readable, so control frames never
// wait behind one-ways; what was read runs on the reading thread (pool
// tasks), then the link is read again, and it goes back to epoll once it
// stays quiet. Handler of links; pool threads, one at a time per link.
// Owned by the Runtime.
class LinkReader : public AcceptedConnection::Handler {
  public:
    LinkReader(LinkIntake& intake, LinkStallGuard& stallGuard, AcceptedConnections& accepted,
               ThreadPool& pool)
        : mIntake(intake), mStallGuard(stallGuard), mAccepted(accepted), mPool(pool) {}

    void onReadable(const sp<AcceptedConnection>& link) override;

  private:
    // Reads (up to a budget) what waits on the link: DEAD_OBJECT when it
    // ended, BAD_VALUE when it must be dropped.
    [[nodiscard]] status_t readWaiting(const sp<AcceptedConnection>& link);

    LinkIntake& mIntake;
    LinkStallGuard& mStallGuard;
    AcceptedConnections& mAccepted;
    ThreadPool& mPool;
};

}  // namespace tvbinder
}  // namespace android
