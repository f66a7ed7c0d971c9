#pragma once

#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/Parcel.h>
#include <stdint.h>

#include <atomic>
#include <memory>
#include <vector>

#include "base/Token.h"
#include "calls/ChainRegistry.h"
#include "wire/Connection.h"
#include "wire/Frame.h"

namespace android {
namespace tvbinder {

class Peer;
class Runtime;

// Moves transactions between processes: sends calls and waits for their
// replies (serving nested calls meanwhile), and runs what arrives on the
// pool's connections. Every object that crosses grants a reference first and
// is resolved to a local object or a proxy as soon as its frame arrives.
class Dispatcher {
  public:
    explicit Dispatcher(Runtime& runtime) : mRuntime(runtime) {}

    // A transaction to a remote object: synchronous, or one-way over the
    // owner's link.
    status_t transact(BpBinder& target, uint32_t code, const Parcel& data, Parcel* reply,
                      uint32_t flags);
    // Gives `count` references of a proxy back to its owner.
    void sendRelease(const sp<Peer>& owner, const Token& token, uint32_t count);

    // Pool thread: the accepted connection has a frame (or was closed).
    void onReadable(const sp<Connection>& connection);
    // Builds the received Parcel: descriptors and resolved objects.
    // FAILED_TRANSACTION when it names too many unknown processes, BAD_VALUE
    // when it names objects the sender does not hold.
    status_t decodeParcel(Frame& frame, const Connection& from, Parcel* out);
    // Runs a received transaction on `target` as the connection's peer, as
    // part of `chain` (synchronous ones).
    status_t execute(Connection& connection, BBinder& target, uint32_t code, const Parcel& data,
                     Parcel* reply, uint32_t flags, uint64_t chain = 0);

  private:
    // The references granted for one outgoing frame, undone if it is not sent.
    struct Grants {
        std::vector<Token> local;
    };

    status_t prepareObjects(const Parcel& parcel, const sp<Peer>& destination, OutgoingFrame* frame,
                            Grants* grants);
    void undoGrants(const Grants& grants, const sp<Peer>& destination);
    status_t requestGrant(BpBinder& proxy, uint64_t holder);
    // Sends a request to `peer` and waits for its reply. `*sent` tells whether
    // it left the process.
    status_t roundTrip(const sp<Peer>& peer, const OutgoingFrame& frame, Parcel* reply, bool* sent);
    // Waits for the reply on `connection`, running meanwhile the calls that
    // arrive on it and those of the thread's chain that arrive elsewhere.
    status_t awaitReply(Connection& connection, Parcel* reply);
    status_t receiveReply(Connection& connection, Parcel* reply, ChainMailbox& mailbox);
    void serveHandedCalls(ChainMailbox& mailbox);
    // The chain the calling thread's synchronous calls belong to.
    static uint64_t currentChain();
    Connection* servingConnectionFor(const Peer& peer);
    // Before the thread serving a call calls a third process: tells the
    // caller that calls of its chain may now reach it from elsewhere.
    static void announceChainExtension();

    // A transaction or grant request: runs it and replies on `connection`.
    void serveRequest(Connection& connection, Frame& frame);
    status_t serveGrant(Connection& connection, const Frame& frame);
    void sendReply(Connection& connection, status_t status, const Parcel* reply);
    status_t handleHello(Connection& connection, const Frame& frame);

    sp<IBinder> resolveBinder(uint64_t endpoint, const Token& token, const Connection& from);
    // False when the frame names more processes this one does not know than
    // one frame may.
    bool namesFewNewProcesses(const Frame& frame, const Connection& from);

    Runtime& mRuntime;
};

}  // namespace tvbinder
}  // namespace android
