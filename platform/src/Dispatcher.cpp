#define LOG_TAG "tvbinder"

#include "Dispatcher.h"

#include <binder/IPCThreadState.h>
#include <errno.h>
#include <log/log.h>
#include <poll.h>
#include <string.h>

#include <algorithm>

#include "FlatObject.h"
#include "Peer.h"
#include "Runtime.h"

namespace android {
namespace tvbinder {

namespace {

// One-way bytes a connection may have waiting on busy objects before the
// pool stops reading it; reading resumes below half of it.
constexpr size_t kOneWayBacklogCap = 512 * 1024;
// All connections together: beyond it, a connection that adds more is dropped.
constexpr size_t kProcessOneWayCap = 32 * 1024 * 1024;
constexpr size_t kOneWayOverhead = sizeof(PendingOneWay);
// Frames read from a connection per wake-up.
constexpr size_t kOneWayBatch = 64;
// How long a pool thread keeps reading a busy connection before handing it
// back to epoll: a stream of calls or one-ways then costs one receive each,
// not a wake-up each.
constexpr int kLingerMs = 2;

}  // namespace

// ---- Sending ----

status_t Dispatcher::prepareObjects(const Parcel& parcel, const sp<Peer>& destination,
                                    OutgoingFrame* frame, Grants* grants) {
    if (parcel.dataSize() > kMaxTransactionSize) {
        ALOGW("transaction of %zu bytes is too large", parcel.dataSize());
        return FAILED_TRANSACTION;
    }
    frame->data = parcel.data();
    frame->header.dataSize = static_cast<uint32_t>(parcel.dataSize());
    for (const Parcel::Object& object : parcel.ipcObjects()) {
        frame->offsets.push_back(static_cast<uint32_t>(object.offset));
        status_t status = NO_ERROR;
        if (object.binder == nullptr) {
            frame->fds.push_back(object.fd);
        } else if (BBinder* local = object.binder->localBinder()) {
            Token token = mRuntime.exports().tokenFor(local);
            status = mRuntime.exports().grant(token, destination);
            if (status == NO_ERROR) grants->local.push_back(token);
        } else if (BpBinder* proxy = object.binder->remoteBinder()) {
            // Back to its owner it becomes the owner's object again: nothing to grant.
            if (proxy->owner()->endpoint() != destination->endpoint()) {
                status = requestGrant(*proxy, destination->endpoint());
            }
        }
        if (status != NO_ERROR) {
            undoGrants(*grants, destination);
            return status;
        }
    }
    return NO_ERROR;
}

void Dispatcher::undoGrants(const Grants& grants, const sp<Peer>& destination) {
    for (const Token& token : grants.local) {
        mRuntime.exports().release(token, destination->endpoint(), 1);
    }
}

status_t Dispatcher::requestGrant(BpBinder& proxy, uint64_t holder) {
    if (proxy.owner()->isDead()) return DEAD_OBJECT;
    OutgoingFrame frame = OutgoingFrame::make(FrameKind::kGrant);
    frame.header.tokenHi = proxy.tokenHi();
    frame.header.tokenLo = proxy.tokenLo();
    frame.header.argument = holder;
    bool sent = false;
    Parcel reply;
    return roundTrip(proxy.owner(), frame, &reply, &sent);
}

status_t Dispatcher::transact(BpBinder& target, uint32_t code, const Parcel& data, Parcel* reply,
                              uint32_t flags) {
    const sp<Peer>& owner = target.owner();
    if (owner->isDead() || !mRuntime.isCurrent()) return DEAD_OBJECT;
    OutgoingFrame frame = OutgoingFrame::make(FrameKind::kTransaction);
    frame.header.code = code;
    frame.header.flags = flags;
    frame.header.tokenHi = target.tokenHi();
    frame.header.tokenLo = target.tokenLo();
    Grants grants;
    status_t status = prepareObjects(data, owner, &frame, &grants);
    if (status != NO_ERROR) return status;

    if ((flags & IBinder::FLAG_ONEWAY) != 0) {
        status = owner->sendOnLink(frame);
        if (status != NO_ERROR) undoGrants(grants, owner);
        return status;
    }
    bool sent = false;
    status = roundTrip(owner, frame, reply, &sent);
    if (!sent) undoGrants(grants, owner);
    return status;
}

Connection* Dispatcher::servingConnectionFor(const Peer& peer) {
    std::vector<Connection*>& serving = IPCThreadState::self()->mServing;
    for (auto it = serving.rbegin(); it != serving.rend(); ++it) {
        if ((*it)->peer().get() == &peer && !(*it)->broken()) return *it;
    }
    return nullptr;
}

status_t Dispatcher::roundTrip(const sp<Peer>& peer, const OutgoingFrame& frame, Parcel* reply,
                               bool* sent) {
    // The peer's thread that waits for our reply on this connection runs
    // what we send on it: no pool thread is needed there.
    if (Connection* nested = servingConnectionFor(*peer)) {
        status_t status = nested->send(frame);
        if (status != NO_ERROR) {
            nested->markBroken();
            return status;
        }
        *sent = true;
        return awaitReply(*nested, reply);
    }
    for (;;) {
        status_t status;
        bool reused = false;
        sp<Connection> connection = peer->takeCallConnection(&status, &reused);
        if (connection == nullptr) return status;
        status = connection->send(frame);
        // An idle connection may have been closed by the peer since; a fresh
        // one tells whether the peer is still there.
        if (status == DEAD_OBJECT && reused) continue;
        if (status != NO_ERROR) return status;
        *sent = true;
        status = awaitReply(*connection, reply);
        if (status == DEAD_OBJECT) {
            peer->checkAlive();
        } else {
            peer->returnCallConnection(connection);
        }
        return status;
    }
}

status_t Dispatcher::awaitReply(Connection& connection, Parcel* reply) {
    for (;;) {
        Frame frame;
        status_t status = connection.receive(&frame, true);
        if (status == NO_ERROR) status = frame.validate();
        if (status != NO_ERROR) {
            connection.markBroken();
            if (status != DEAD_OBJECT) ALOGW("malformed frame from pid %d", connection.peerPid());
            return status == DEAD_OBJECT ? DEAD_OBJECT : FAILED_TRANSACTION;
        }
        switch (frame.kind()) {
            case FrameKind::kReply: {
                if (frame.header.status < 0) {
                    if (reply != nullptr) reply->freeData();
                    return frame.header.status;
                }
                Parcel scratch;
                status = decodeParcel(frame, connection, reply != nullptr ? reply : &scratch);
                if (status != NO_ERROR) connection.markBroken();
                return status == NO_ERROR ? NO_ERROR : FAILED_TRANSACTION;
            }
            case FrameKind::kTransaction:
                if ((frame.header.flags & IBinder::FLAG_ONEWAY) == 0) {
                    serveRequest(connection, frame);
                    if (connection.broken()) return DEAD_OBJECT;
                    continue;
                }
                break;
            case FrameKind::kGrant:
                serveRequest(connection, frame);
                if (connection.broken()) return DEAD_OBJECT;
                continue;
            default:
                break;
        }
        ALOGW("unexpected frame of kind %u from pid %d", frame.header.kind, connection.peerPid());
        connection.markBroken();
        return FAILED_TRANSACTION;
    }
}

void Dispatcher::sendRelease(const sp<Peer>& owner, const Token& token, uint32_t count) {
    if (owner->isDead() || !mRuntime.isCurrent()) return;
    OutgoingFrame frame = OutgoingFrame::make(FrameKind::kRelease);
    frame.header.tokenHi = token.hi;
    frame.header.tokenLo = token.lo;
    frame.header.argument = count;
    owner->sendOnLink(frame);
}

// ---- Receiving ----

void Dispatcher::onReadable(const sp<Connection>& connection) {
    if (connection->isLink) {
        handleOneWay(connection, nullptr);
        return;
    }
    for (;;) {
        Frame frame;
        status_t status = connection->receive(&frame, false);
        if (status == WOULD_BLOCK) {
            mRuntime.rearm(connection);
            return;
        }
        if (status == NO_ERROR) status = frame.validate();
        if (status != NO_ERROR) {
            if (status != DEAD_OBJECT) {
                ALOGW("malformed frame from pid %d", connection->peerPid());
            }
            mRuntime.drop(connection);
            return;
        }
        if (!connection->helloDone) {
            if (frame.kind() != FrameKind::kHello || handleHello(*connection, frame) != NO_ERROR) {
                ALOGW("refused a connection from pid %d", connection->peerPid());
                mRuntime.drop(connection);
                return;
            }
            mRuntime.rearm(connection);
            return;
        }
        switch (frame.kind()) {
            case FrameKind::kTransaction:
                if ((frame.header.flags & IBinder::FLAG_ONEWAY) != 0) {
                    handleOneWay(connection, &frame);
                    return;
                }
                serveRequest(*connection, frame);
                break;
            case FrameKind::kGrant:
                serveRequest(*connection, frame);
                break;
            case FrameKind::kRelease:
                handleRelease(*connection, frame);
                break;
            default:
                ALOGW("unexpected frame of kind %u from pid %d", frame.header.kind,
                      connection->peerPid());
                connection->markBroken();
                break;
        }
        if (connection->broken() || !lingerOn(*connection)) {
            mRuntime.rearm(connection);
            return;
        }
    }
}

bool Dispatcher::lingerOn(const Connection& connection) {
    // A caller that just got its reply often calls again at once: waiting a
    // moment here saves it the way through epoll, as long as other pool
    // threads are free for everything else.
    if (!mRuntime.pool().hasIdleThreads()) return false;
    pollfd waiter{connection.fd(), POLLIN, 0};
    int ready;
    do {
        ready = poll(&waiter, 1, kLingerMs);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

status_t Dispatcher::handleHello(Connection& connection, const Frame& frame) {
    const uint64_t endpoint = frame.header.argument;
    if (endpoint == 0 || endpoint == mRuntime.endpoint()) return BAD_VALUE;
    sp<Peer> peer = mRuntime.peers().obtain(endpoint);
    status_t status = peer->verifyClaim(connection.peerPid());
    if (status != NO_ERROR) return status;
    connection.setPeer(peer);
    connection.helloDone = true;
    if ((frame.header.flags & kHelloLink) != 0) {
        connection.isLink = true;
        connection.setReceiveTimeout(kLingerMs);
    }
    if (!connection.answersHello) return NO_ERROR;
    OutgoingFrame answer = OutgoingFrame::make(FrameKind::kHelloAnswer);
    answer.header.argument = mRuntime.endpoint();
    return connection.send(answer);
}

void Dispatcher::serveRequest(Connection& connection, Frame& frame) {
    Parcel reply;
    status_t status;
    if (frame.kind() == FrameKind::kGrant) {
        status = serveGrant(connection, frame);
    } else {
        // Decoded first: the references granted for its objects are then
        // accounted for (and given back) even when the call goes nowhere.
        Parcel data;
        status = decodeParcel(frame, connection, &data);
        sp<BBinder> target =
            mRuntime.exports().lookup(frame.token(), connection.peer()->endpoint());
        if (target == nullptr) {
            ALOGW("pid %d called an object it does not hold", connection.peerPid());
            status = FAILED_TRANSACTION;
        } else if (status == NO_ERROR) {
            status =
                execute(connection, *target, frame.header.code, data, &reply, frame.header.flags);
        }
    }
    sendReply(connection, status, &reply);
}

status_t Dispatcher::serveGrant(Connection& connection, const Frame& frame) {
    const uint64_t holder = frame.header.argument;
    if (holder == 0 || holder == mRuntime.endpoint()) return BAD_VALUE;
    sp<BBinder> object = mRuntime.exports().lookup(frame.token(), connection.peer()->endpoint());
    if (object == nullptr) return NAME_NOT_FOUND;
    sp<Peer> holderPeer = mRuntime.peers().obtain(holder);
    status_t status = holderPeer->ensureWatched();
    if (status != NO_ERROR) return status;
    return mRuntime.exports().grant(frame.token(), holderPeer);
}

status_t Dispatcher::execute(Connection& connection, BBinder& target, uint32_t code,
                             const Parcel& data, Parcel* reply, uint32_t flags) {
    IPCThreadState* thread = IPCThreadState::self();
    const pid_t savedPid = thread->mCallingPid;
    const uid_t savedUid = thread->mCallingUid;
    thread->mCallingPid = connection.peerPid();
    thread->mCallingUid = connection.peerUid();
    // A one-way caller waits for nothing: calls made from it go the normal way.
    const bool synchronous = (flags & IBinder::FLAG_ONEWAY) == 0;
    if (synchronous) thread->mServing.push_back(&connection);
    status_t status = target.transact(code, data, reply, flags);
    if (synchronous) thread->mServing.pop_back();
    thread->mCallingPid = savedPid;
    thread->mCallingUid = savedUid;
    return status;
}

void Dispatcher::sendReply(Connection& connection, status_t status, const Parcel* reply) {
    OutgoingFrame frame = OutgoingFrame::make(FrameKind::kReply);
    Grants grants;
    if (status >= NO_ERROR) {
        status = prepareObjects(*reply, connection.peer(), &frame, &grants);
    }
    if (status < NO_ERROR) {
        frame = OutgoingFrame::make(FrameKind::kReply);
        frame.header.status = status;
    }
    if (connection.send(frame) != NO_ERROR) {
        undoGrants(grants, connection.peer());
        connection.markBroken();
    }
}

void Dispatcher::handleOneWay(const sp<Connection>& connection, Frame* first) {
    std::vector<OneWayRun> admitted;
    std::vector<OneWayRun> runnable;
    Admission admission = Admission::kAccepted;
    size_t taken = 0;
    if (first != nullptr) {
        admission = admitOneWay(connection, *first, &admitted, &runnable);
        taken = 1;
    }
    // Frames that already wait are taken in the same go, several per system
    // call: a burst of one-ways costs one wake-up and one re-arm, not one per
    // frame, and reaches the object table once per object, not once per
    // frame. While everything read so far only queued behind running calls,
    // a link is read on with a blocking receive (bounded by its timeout) as
    // long as other pool threads are free for the rest of the work.
    bool drained = false;
    while (admission == Admission::kAccepted) {
        Frame frames[kReceiveBatch];
        status_t statuses[kReceiveBatch];
        size_t count = 0;
        if (drained || taken >= kOneWayBatch) {
            handOver(&admitted, &runnable);
            if (!connection->isLink || !runnable.empty() || !mRuntime.pool().hasIdleThreads()) {
                break;
            }
            statuses[0] = connection->receive(&frames[0], true);
            if (statuses[0] == WOULD_BLOCK) break;
            count = 1;
            taken = 0;
            drained = false;
        } else {
            const size_t wanted = std::min(kReceiveBatch, kOneWayBatch - taken);
            count = connection->receiveWaiting(frames, statuses, wanted);
            drained = count < wanted;
        }
        taken += count;
        for (size_t i = 0; i < count && admission == Admission::kAccepted; ++i) {
            admission = takeLinkFrame(connection, frames[i], statuses[i], &admitted, &runnable);
        }
    }
    handOver(&admitted, &runnable);
    if (admission == Admission::kAccepted) mRuntime.rearm(connection);
    for (OneWayRun& run : runnable) runOneWays(std::move(run));
}

Dispatcher::Admission Dispatcher::takeLinkFrame(const sp<Connection>& connection, Frame& frame,
                                                status_t status, std::vector<OneWayRun>* admitted,
                                                std::vector<OneWayRun>* runnable) {
    if (status == NO_ERROR) status = frame.validate();
    if (status != NO_ERROR) {
        if (status != DEAD_OBJECT) ALOGW("malformed frame from pid %d", connection->peerPid());
        mRuntime.drop(connection);
        return Admission::kDropped;
    }
    if (frame.kind() == FrameKind::kTransaction &&
        (frame.header.flags & IBinder::FLAG_ONEWAY) != 0) {
        return admitOneWay(connection, frame, admitted, runnable);
    }
    if (frame.kind() == FrameKind::kRelease) {
        handleRelease(*connection, frame);
    } else if (frame.kind() == FrameKind::kTransaction || frame.kind() == FrameKind::kGrant) {
        // One-ways sent before it reach their objects first.
        handOver(admitted, runnable);
        serveRequest(*connection, frame);
    } else {
        ALOGW("unexpected frame of kind %u from pid %d", frame.header.kind, connection->peerPid());
        mRuntime.drop(connection);
        return Admission::kDropped;
    }
    return Admission::kAccepted;
}

Dispatcher::Admission Dispatcher::admitOneWay(const sp<Connection>& connection, Frame& frame,
                                              std::vector<OneWayRun>* admitted,
                                              std::vector<OneWayRun>* runnable) {
    const Token token = frame.token();
    auto call = std::make_unique<PendingOneWay>();
    if (decodeParcel(frame, *connection, &call->data) != NO_ERROR) {
        ALOGW("dropping a malformed one-way from pid %d", connection->peerPid());
        mRuntime.drop(connection);
        return Admission::kDropped;
    }
    call->target = mRuntime.exports().lookup(token, connection->peer()->endpoint());
    if (call->target == nullptr) {
        ALOGW("pid %d called an object it does not hold", connection->peerPid());
        return Admission::kAccepted;
    }
    call->from = connection;
    call->code = frame.header.code;
    call->flags = frame.header.flags;
    call->bytes = call->data.dataSize() + kOneWayOverhead;
    const size_t bytes = call->bytes;
    // Counted before it is handed over: then another thread may settle it.
    // Near a cap, what was read so far is handed over first, so that only
    // calls that wait behind running ones are held against it.
    if (mQueuedBytes.fetch_add(bytes) + bytes > kProcessOneWayCap) {
        mQueuedBytes.fetch_sub(bytes);
        handOver(admitted, runnable);
        if (mQueuedBytes.fetch_add(bytes) + bytes > kProcessOneWayCap) {
            mQueuedBytes.fetch_sub(bytes);
            ALOGW("one-way backlog of the process is full; dropping the connection of pid %d",
                  connection->peerPid());
            mRuntime.drop(connection);
            return Admission::kDropped;
        }
    }
    connection->queuedBytes.fetch_add(bytes);
    auto run = std::find_if(admitted->begin(), admitted->end(),
                            [&](const OneWayRun& candidate) { return candidate.token == token; });
    if (run == admitted->end()) {
        admitted->push_back(OneWayRun{token, {}});
        run = admitted->end() - 1;
    }
    run->calls.push_back(std::move(call));
    if (connection->queuedBytes.load() <= kOneWayBacklogCap) return Admission::kAccepted;
    handOver(admitted, runnable);
    if (connection->queuedBytes.load() <= kOneWayBacklogCap) return Admission::kAccepted;
    connection->parked.store(true);
    ALOGW("one-way backlog of pid %d is full; pausing its connection", connection->peerPid());
    // The queue may have drained meanwhile; whoever clears the flag re-arms.
    bool expected = true;
    if (connection->queuedBytes.load() <= kOneWayBacklogCap / 2 &&
        connection->parked.compare_exchange_strong(expected, false)) {
        return Admission::kAccepted;
    }
    return Admission::kParked;
}

void Dispatcher::handOver(std::vector<OneWayRun>* admitted, std::vector<OneWayRun>* runnable) {
    for (OneWayRun& run : *admitted) {
        if (mRuntime.exports().beginOneWays(run.token, run.calls)) {
            // The first call runs now; the others wait behind it and stay counted.
            settleBacklog(*run.calls.front());
            runnable->push_back(std::move(run));
        }
    }
    admitted->clear();
}

void Dispatcher::runOneWays(OneWayRun run) {
    // The first was settled when it was handed over.
    for (size_t i = 0; i < run.calls.size(); ++i) {
        std::unique_ptr<PendingOneWay> call = std::move(run.calls[i]);
        if (i > 0) settleBacklog(*call);
        Parcel ignored;
        execute(*call->from, *call->target, call->code, call->data, &ignored, call->flags);
    }
    while (std::unique_ptr<PendingOneWay> call = mRuntime.exports().nextOneWay(run.token)) {
        settleBacklog(*call);
        Parcel ignored;
        execute(*call->from, *call->target, call->code, call->data, &ignored, call->flags);
    }
}

void Dispatcher::settleBacklog(const PendingOneWay& call) {
    Connection& connection = *call.from;
    mQueuedBytes.fetch_sub(call.bytes);
    size_t left = connection.queuedBytes.fetch_sub(call.bytes) - call.bytes;
    bool expected = true;
    if (left <= kOneWayBacklogCap / 2 && connection.parked.load() &&
        connection.parked.compare_exchange_strong(expected, false)) {
        mRuntime.rearm(call.from);
    }
}

void Dispatcher::handleRelease(Connection& connection, const Frame& frame) {
    sp<BBinder> last = mRuntime.exports().release(frame.token(), connection.peer()->endpoint(),
                                                  frame.header.argument);
}

status_t Dispatcher::decodeParcel(Frame& frame, const Connection& from, Parcel* out) {
    std::vector<Parcel::Object> objects;
    objects.reserve(frame.offsets.size());
    size_t nextFd = 0;
    status_t status = NO_ERROR;
    // Every record is resolved, even after a bad one, so that each granted
    // reference reaches its proxy and is given back with it.
    for (uint32_t offset : frame.offsets) {
        FlatObject record;
        memcpy(&record, frame.data + offset, sizeof(record));
        Parcel::Object object;
        object.offset = offset;
        if (record.type == FlatObject::kTypeFd) {
            object.fd = frame.fds[nextFd++];
        } else {
            object.binder =
                resolveBinder(record.endpoint, Token{record.tokenHi, record.tokenLo}, from);
            if (object.binder == nullptr) {
                ALOGW("pid %d sent an object it does not hold", from.peerPid());
                status = BAD_VALUE;
            }
        }
        objects.push_back(std::move(object));
    }
    if (status != NO_ERROR) return status;
    frame.releaseFds();  // now owned through `objects`
    out->ipcSetReceived(frame.releaseData(), frame.header.dataSize, std::move(objects));
    return NO_ERROR;
}

sp<IBinder> Dispatcher::resolveBinder(uint64_t endpoint, const Token& token,
                                      const Connection& from) {
    if (endpoint == mRuntime.endpoint()) {
        return mRuntime.exports().lookup(token, from.peer()->endpoint());
    }
    sp<Peer> owner = mRuntime.peers().obtain(endpoint);
    sp<BpBinder> proxy = mRuntime.proxies().obtain(owner, token);
    proxy->addGrantedReference();
    return proxy;
}

}  // namespace tvbinder
}  // namespace android
