#pragma once

#include <binder/BpBinder.h>
#include <binder/Parcel.h>
#include <stdint.h>

#include "peers/Session.h"
#include "references/ObjectCodec.h"
#include "wire/Frame.h"

namespace android {
namespace tvbinder {

class AcceptedConnections;
class ChainMailbox;
class ChainRegistry;
class Peer;
class RequestServer;
class ThreadPool;

// Sends this process's transactions to other processes' objects: a one-way
// over the owner's link; a synchronous call over a call connection to the
// owner (or, while the thread serves a call of the owner, over the connection
// that call came on), reading the reply itself. While it waits it serves the
// calls that come back to it on that connection or are handed to it through
// its chain, taking the pool's events itself while no pool thread is free.
// Owned by the Runtime; application and pool threads.
class Caller : public GrantRequester {
  public:
    Caller(ObjectCodec& objects, RequestServer& server, ChainRegistry& chains,
           AcceptedConnections& accepted, ThreadPool& pool)
        : mObjects(objects), mServer(server), mChains(chains), mAccepted(accepted), mPool(pool) {}

    // A transaction to a remote object: synchronous, or one-way over the
    // owner's link.
    [[nodiscard]] status_t transact(BpBinder& target, uint32_t code, const Parcel& data,
                                    Parcel* reply, uint32_t flags);
    [[nodiscard]] status_t requestGrant(BpBinder& proxy, uint64_t holder) override;

  private:
    struct RoundTrip {
        status_t status = NO_ERROR;
        bool sent = false;  // the request left the process
    };
    // Sends a request to `peer` and waits for its reply.
    RoundTrip roundTrip(const sp<Peer>& peer, const OutgoingFrame& frame, Parcel* reply);
    // Waits for the reply on the session's connection, serving meanwhile the
    // calls that arrive on it and those of the thread's chain that arrive
    // elsewhere.
    [[nodiscard]] status_t awaitReply(const Session& session, Parcel* reply);
    [[nodiscard]] status_t receiveReply(const Session& session, Parcel* reply,
                                        ChainMailbox& mailbox);
    void serveHandedCalls(ChainMailbox& mailbox);

    ObjectCodec& mObjects;
    RequestServer& mServer;
    ChainRegistry& mChains;
    AcceptedConnections& mAccepted;
    ThreadPool& mPool;
};

}  // namespace tvbinder
}  // namespace android
