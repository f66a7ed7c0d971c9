#pragma once

#include <utils/Errors.h>
#include <utils/RefBase.h>

#include <vector>

#include "base/Locks.h"
#include "wire/Connection.h"

namespace android {
namespace tvbinder {

class Peer;

// The connections this process made to one peer for its synchronous calls:
// a calling thread takes one (or has a new one made) for the length of its
// call, and gives it back for the next call. Part of its Peer; any thread.
class CallConnections {
  public:
    explicit CallConnections(Peer& peer) : mPeer(peer) {}

    struct Taken {
        sp<Connection> connection;  // null on failure
        status_t status = NO_ERROR;
        // A reused connection may have been closed by the peer since.
        bool reused = false;
    };
    [[nodiscard]] Taken take();
    // Kept for the next call unless it broke, the peer died, or enough are kept.
    void giveBack(const sp<Connection>& connection);
    // Takes a connection made to another address of the peer's process (the
    // context manager's) as an idle call connection.
    [[nodiscard]] status_t adopt(const sp<Connection>& connection);
    // The peer died: the idle connections close.
    void clear();

  private:
    Peer& mPeer;
    Mutex mLock{LockRank::kCallConnections};
    std::vector<sp<Connection>> mIdle TV_GUARDED_BY(mLock);
};

}  // namespace tvbinder
}  // namespace android
