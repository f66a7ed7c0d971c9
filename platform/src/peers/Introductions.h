#pragma once

#include <stdint.h>
#include <utils/Errors.h>

#include "peers/AcceptedConnection.h"

namespace android {
namespace tvbinder {

class AcceptedConnections;
class PeerTable;

// The HELLO that opens every accepted connection: the endpoint the peer
// claims (believed only when the process serving that endpoint is the one
// that connected) and whether the connection is its link. Answered with this
// process's endpoint on the context manager's address. Anything else closes
// the connection. Handler of new connections; pool threads, and threads
// waiting for a reply that stand in for them. Owned by the Runtime.
class Introductions : public AcceptedConnection::Handler {
  public:
    Introductions(PeerTable& peers, AcceptedConnections& accepted, Connection::RingSweeper& rings,
                  uint64_t ownEndpoint)
        : mPeers(peers), mAccepted(accepted), mRings(rings), mOwnEndpoint(ownEndpoint) {}

    void onReadable(const sp<AcceptedConnection>& connection) override;
    // A HELLO runs no application code and waits for nothing.
    bool onReadableStandingIn(const sp<AcceptedConnection>& connection) override {
        onReadable(connection);
        return true;
    }

  private:
    [[nodiscard]] status_t introduce(AcceptedConnection& connection, const Frame& hello);

    PeerTable& mPeers;
    AcceptedConnections& mAccepted;
    Connection::RingSweeper& mRings;
    const uint64_t mOwnEndpoint;
};

}  // namespace tvbinder
}  // namespace android
