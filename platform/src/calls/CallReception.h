#pragma once

#include "peers/AcceptedConnection.h"

namespace android {
namespace tvbinder {

class AcceptedConnections;
class ChainRegistry;
class GrantRequester;
class RequestServer;
class ThreadPool;

// Serves the synchronous calls (and grant requests) that arrive on accepted
// connections: the pool thread that gets one hands it to the thread of this
// process that waits in its chain, or runs it and replies, then lingers a
// moment for the caller's next call before handing the connection back to
// epoll. One-ways belong on links: one here closes the connection. Handler
// of call connections; pool threads, and threads waiting for a reply that
// stand in for them. Owned by the Runtime.
class CallReception : public AcceptedConnection::Handler {
  public:
    CallReception(RequestServer& server, GrantRequester& grants, ChainRegistry& chains,
                  AcceptedConnections& accepted, ThreadPool& pool)
        : mServer(server), mGrants(grants), mChains(chains), mAccepted(accepted), mPool(pool) {}

    void onReadable(const sp<AcceptedConnection>& connection) override;
    // Hands a call of a waiting chain to its thread; whatever else was
    // received is posted for a pool thread, which reads on.
    bool onReadableStandingIn(const sp<AcceptedConnection>& connection) override;

  private:
    // What a pool thread does with what it received: false once it handed
    // the connection on.
    bool handle(const sp<AcceptedConnection>& connection, Frame& frame, status_t status);

    RequestServer& mServer;
    GrantRequester& mGrants;
    ChainRegistry& mChains;
    AcceptedConnections& mAccepted;
    ThreadPool& mPool;
};

}  // namespace tvbinder
}  // namespace android
