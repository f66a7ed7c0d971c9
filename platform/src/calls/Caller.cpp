#define LOG_TAG "tvbinder"

#include "calls/Caller.h"

#include <log/log.h>
#include <poll.h>

#include "base/LogLimit.h"
#include "calls/ChainRegistry.h"
#include "calls/RequestServer.h"
#include "calls/ThreadCalls.h"
#include "peers/AcceptedConnections.h"
#include "peers/Peer.h"
#include "threads/ThreadPool.h"
#include "wire/Connection.h"

namespace android {
namespace tvbinder {

namespace {

// Lists a waiting thread as the pool's stand-in from activate() until it
// stops waiting.
class StandInScope {
  public:
    StandInScope(ThreadPool& pool, ChainMailbox& mailbox) : mPool(pool), mMailbox(mailbox) {}
    ~StandInScope() {
        if (mActive) mPool.removeStandIn(&mMailbox);
    }
    StandInScope(const StandInScope&) = delete;
    StandInScope& operator=(const StandInScope&) = delete;

    bool active() const { return mActive; }
    void activate() {
        if (mActive) return;
        mMailbox.fd();  // made before the pool may signal it
        mPool.addStandIn(&mMailbox);
        mActive = true;
    }

  private:
    ThreadPool& mPool;
    ChainMailbox& mMailbox;
    bool mActive = false;
};

}  // namespace

status_t Caller::requestGrant(BpBinder& proxy, uint64_t holder) {
    if (proxy.owner()->isDead()) return DEAD_OBJECT;
    OutgoingFrame frame = OutgoingFrame::make(FrameKind::kGrant);
    frame.header.tokenHi = proxy.tokenHi();
    frame.header.tokenLo = proxy.tokenLo();
    frame.header.argument = holder;
    Parcel reply;
    return roundTrip(proxy.owner(), frame, &reply).status;
}

status_t Caller::transact(BpBinder& target, uint32_t code, const Parcel& data, Parcel* reply,
                          uint32_t flags) {
    const sp<Peer>& owner = target.owner();
    if (owner->isDead() || !owner->ofThisProcess()) return DEAD_OBJECT;
    OutgoingTransaction transaction{OutgoingFrame::make(FrameKind::kTransaction), {}};
    OutgoingFrame& frame = transaction.frame;
    frame.header.code = code;
    frame.header.flags = flags;
    frame.header.tokenHi = target.tokenHi();
    frame.header.tokenLo = target.tokenLo();
    status_t status = mObjects.prepare(data, *owner, *this, &transaction);
    if (status != NO_ERROR) return status;

    if ((flags & kFlagOneWay) != 0) {
        status = owner->link().sendOneWay(frame);
        if (status != NO_ERROR) mObjects.undo(transaction, *owner);
        return status;
    }
    frame.header.argument = ThreadCalls::self().chain();
    const RoundTrip trip = roundTrip(owner, frame, reply);
    if (!trip.sent) mObjects.undo(transaction, *owner);
    return trip.status;
}

Caller::RoundTrip Caller::roundTrip(const sp<Peer>& peer, const OutgoingFrame& frame,
                                    Parcel* reply) {
    ThreadCalls& thread = ThreadCalls::self();
    // The peer's thread that waits for our reply on this connection runs
    // what we send on it: no pool thread is needed there.
    if (Connection* nested = thread.servingConnectionFor(*peer)) {
        const status_t status = nested->send(frame);
        if (status != NO_ERROR) {
            nested->markBroken();
            return {status, false};
        }
        return {awaitReply(Session{*nested, *peer}, reply), true};
    }
    thread.announceChainExtension();
    for (;;) {
        CallConnections::Taken taken = peer->calls().take();
        if (taken.connection == nullptr) return {taken.status, false};
        Connection& connection = *taken.connection;
        status_t status = connection.send(frame);
        // An idle connection may have been closed by the peer since; a fresh
        // one tells whether the peer is still there.
        if (status == DEAD_OBJECT && taken.reused) continue;
        if (status != NO_ERROR) return {status, false};
        status = awaitReply(Session{connection, *peer}, reply);
        if (status == DEAD_OBJECT) {
            peer->checkAlive();
        } else {
            peer->calls().giveBack(taken.connection);
        }
        return {status, true};
    }
}

status_t Caller::awaitReply(const Session& session, Parcel* reply) {
    ThreadCalls& thread = ThreadCalls::self();
    ChainMailbox& mailbox = thread.mailbox();
    const uint64_t chain = thread.chain();
    mChains.enter(chain, &mailbox);
    const status_t status = receiveReply(session, reply, mailbox);
    mChains.leave(chain, &mailbox);
    serveHandedCalls(mailbox);  // those handed just before it left
    return status;
}

void Caller::serveHandedCalls(ChainMailbox& mailbox) {
    while (std::optional<HandedCall> call = mailbox.take()) {
        mServer.serve(call->connection->session(), *call->frame, *this);
        mAccepted.rearm(call->connection);
    }
}

status_t Caller::receiveReply(const Session& session, Parcel* reply, ChainMailbox& mailbox) {
    Connection& connection = session.connection;
    // Calls of the chain reach this thread elsewhere than on its connection
    // only once the peer said the chain goes further: until then one
    // blocking receive is all a call costs. From then on, while no pool
    // thread is free, the thread takes the pool's events itself: such a call
    // may come on a connection that nobody else would read.
    StandInScope standIn(mPool, mailbox);
    for (;;) {
        Frame frame;
        status_t status = connection.receive(&frame, !standIn.active());
        if (status == WOULD_BLOCK) {
            // Only after a receive found nothing does the connection's
            // descriptor tell the next frame (shared memory wakes it then).
            const int events = mPool.hasIdleThreads() ? -1 : mPool.readableFd();
            pollfd waiters[3] = {{connection.readableFd(), POLLIN, 0},
                                 {mailbox.fd(), POLLIN, 0},
                                 {events, POLLIN, 0}};
            if (poll(waiters, 3, -1) > 0) {
                if ((waiters[1].revents & POLLIN) != 0) serveHandedCalls(mailbox);
                if ((waiters[2].revents & POLLIN) != 0) mPool.standIn();
            }
            continue;
        }
        if (status == NO_ERROR) status = frame.validate();
        if (status != NO_ERROR) {
            connection.markBroken();
            if (status != DEAD_OBJECT) {
                TV_ALOGW_LIMITED("malformed frame from pid %d", connection.peerPid());
            }
            return status == DEAD_OBJECT ? DEAD_OBJECT : FAILED_TRANSACTION;
        }
        switch (frame.kind()) {
            case FrameKind::kReply: {
                if (frame.header.status != NO_ERROR) {
                    if (reply != nullptr) reply->freeData();
                    return frame.header.status;
                }
                Parcel scratch;
                status = mObjects.decode(frame, session, reply != nullptr ? reply : &scratch);
                if (status != NO_ERROR) connection.markBroken();
                return status == NO_ERROR ? NO_ERROR : FAILED_TRANSACTION;
            }
            case FrameKind::kTransaction:
                if (!frame.isOneWay()) {
                    mServer.serve(session, frame, *this);
                    if (connection.broken()) return DEAD_OBJECT;
                    continue;
                }
                break;
            case FrameKind::kGrant:
                mServer.serve(session, frame, *this);
                if (connection.broken()) return DEAD_OBJECT;
                continue;
            case FrameKind::kChainExtended:
                standIn.activate();
                continue;
            default:
                break;
        }
        TV_ALOGW_LIMITED("unexpected frame of kind %u from pid %d", frame.header.kind,
                         connection.peerPid());
        connection.markBroken();
        return FAILED_TRANSACTION;
    }
}

}  // namespace tvbinder
}  // namespace android
