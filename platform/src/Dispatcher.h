#pragma once

#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/Parcel.h>
#include <stdint.h>

#include <atomic>
#include <memory>
#include <vector>

#include "Connection.h"
#include "Frame.h"
#include "PendingOneWay.h"
#include "Token.h"

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

  private:
    // What became of a one-way taken off a connection: kAccepted (running or
    // queued; keep reading), kParked (backlog full), kDropped (connection gone).
    enum class Admission { kAccepted, kParked, kDropped };
    // One-ways to one object, in the order sent.
    struct OneWayRun {
        Token token;
        std::vector<std::unique_ptr<PendingOneWay>> calls;
    };

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
    status_t awaitReply(Connection& connection, Parcel* reply);
    Connection* servingConnectionFor(const Peer& peer);

    // A transaction or grant request: runs it and replies on `connection`.
    void serveRequest(Connection& connection, Frame& frame);
    status_t serveGrant(Connection& connection, const Frame& frame);
    status_t execute(Connection& connection, BBinder& target, uint32_t code, const Parcel& data,
                     Parcel* reply, uint32_t flags);
    void sendReply(Connection& connection, status_t status, const Parcel* reply);
    status_t handleHello(Connection& connection, const Frame& frame);
    // True when another frame arrived on `connection` within a short wait.
    bool lingerOn(const Connection& connection);
    // Reads a connection's waiting one-ways (after `first`, if given; a
    // link is read here from its first frame) and runs those whose object
    // is idle.
    void handleOneWay(const sp<Connection>& connection, Frame* first);
    // A frame that followed a one-way on its connection: admitted, run or
    // refused.
    Admission takeLinkFrame(const sp<Connection>& connection, Frame& frame, status_t status,
                            std::vector<OneWayRun>* admitted, std::vector<OneWayRun>* runnable);
    Admission admitOneWay(const sp<Connection>& connection, Frame& frame,
                          std::vector<OneWayRun>* admitted, std::vector<OneWayRun>* runnable);
    // Hands the admitted calls to their objects: those whose object was idle
    // move to `runnable` (the first no longer counted against the backlog),
    // the others are queued behind the running call.
    void handOver(std::vector<OneWayRun>* admitted, std::vector<OneWayRun>* runnable);
    void runOneWays(OneWayRun run);
    void settleBacklog(const PendingOneWay& call);
    void handleRelease(Connection& connection, const Frame& frame);
    // Builds the received Parcel: descriptors and resolved objects.
    status_t decodeParcel(Frame& frame, const Connection& from, Parcel* out);
    sp<IBinder> resolveBinder(uint64_t endpoint, const Token& token, const Connection& from);

    Runtime& mRuntime;
    std::atomic<size_t> mQueuedBytes{0};  // one-ways waiting on busy objects
};

}  // namespace tvbinder
}  // namespace android
