#pragma once

#include "peers/AcceptedConnection.h"

namespace android {
namespace tvbinder {

class AcceptedConnections;
class ChainRegistry;
class GrantRequester;
class RequestServer;

// Serves the synchronous calls (and grant requests) that arrive on accepted
// connections: the pool thread that gets one hands it to the thread of this
// process that waits in its chain, or runs it and replies, then lingers a
// moment for the caller's next call before handing the connection back to
// epoll. One-ways belong on links: one here closes the connection. Handler
// of call connections; pool threads. Owned by the Runtime.
class CallReception : public AcceptedConnection::Handler {
  public:
    CallReception(RequestServer& server, GrantRequester& grants, ChainRegistry& chains,
                  AcceptedConnections& accepted)
        : mServer(server), mGrants(grants), mChains(chains), mAccepted(accepted) {}

    void onReadable(const sp<AcceptedConnection>& connection) override;

  private:
    RequestServer& mServer;
    GrantRequester& mGrants;
    ChainRegistry& mChains;
    AcceptedConnections& mAccepted;
};

}  // namespace tvbinder
}  // namespace android
