#define LOG_TAG "tvbinder"

#include "calls/Dispatcher.h"

#include <binder/IPCThreadState.h>
#include <log/log.h>
#include <poll.h>
#include <string.h>

#include <algorithm>

#include "peers/Peer.h"
#include "runtime/Runtime.h"
#include "wire/FlatObject.h"

namespace android {
namespace tvbinder {

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
            // Back to its owner it becomes the owner's object again: nothing to
            // grant. An object whose owner died travels as it is: the receiver
            // finds it dead.
            if (proxy->owner()->endpoint() != destination->endpoint()) {
                status = requestGrant(*proxy, destination->endpoint());
                if (status == DEAD_OBJECT && proxy->owner()->isDead()) status = NO_ERROR;
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
        status = owner->sendOneWay(frame);
        if (status != NO_ERROR) undoGrants(grants, owner);
        return status;
    }
    frame.header.argument = currentChain();
    bool sent = false;
    status = roundTrip(owner, frame, reply, &sent);
    if (!sent) undoGrants(grants, owner);
    return status;
}

uint64_t Dispatcher::currentChain() {
    IPCThreadState* thread = IPCThreadState::self();
    if (thread->mChain != 0) return thread->mChain;
    if (thread->mOwnChain == 0) thread->mOwnChain = Token::random().hi | 1;
    return thread->mOwnChain;
}

Connection* Dispatcher::servingConnectionFor(const Peer& peer) {
    auto& serving = IPCThreadState::self()->mServing;
    for (auto it = serving.rbegin(); it != serving.rend(); ++it) {
        if (it->first->peer().get() == &peer && !it->first->broken()) return it->first;
    }
    return nullptr;
}

void Dispatcher::announceChainExtension() {
    auto& serving = IPCThreadState::self()->mServing;
    if (serving.empty() || serving.back().second) return;
    // Sent before the call that extends the chain: the waiting caller reads
    // it before any call of the chain can come back to its process.
    serving.back().second = true;
    serving.back().first->send(OutgoingFrame::make(FrameKind::kChainExtended),
                               Connection::kAnswerWaitMs);
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
    announceChainExtension();
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
    IPCThreadState* thread = IPCThreadState::self();
    if (thread->mMailbox == nullptr || !thread->mMailbox->current()) {
        delete thread->mMailbox;
        thread->mMailbox = new ChainMailbox();
    }
    const uint64_t chain = currentChain();
    mRuntime.chains().enter(chain, thread->mMailbox);
    status_t status = receiveReply(connection, reply, *thread->mMailbox);
    mRuntime.chains().leave(chain, thread->mMailbox);
    serveHandedCalls(*thread->mMailbox);  // those handed just before it left
    return status;
}

void Dispatcher::serveHandedCalls(ChainMailbox& mailbox) {
    HandedCall call;
    while (mailbox.take(&call)) {
        serveRequest(*call.connection, *call.frame);
        mRuntime.rearm(call.connection);
    }
}

status_t Dispatcher::receiveReply(Connection& connection, Parcel* reply, ChainMailbox& mailbox) {
    // Calls of the chain reach this thread elsewhere than on its connection
    // only once the peer said the chain goes further: until then one
    // blocking receive is all a call costs.
    bool watchMailbox = false;
    for (;;) {
        if (watchMailbox) {
            pollfd waiters[2] = {{connection.fd(), POLLIN, 0}, {mailbox.fd(), POLLIN, 0}};
            if (poll(waiters, 2, -1) < 0) continue;  // EINTR
            if ((waiters[1].revents & POLLIN) != 0) serveHandedCalls(mailbox);
            if (waiters[0].revents == 0) continue;
        }
        Frame frame;
        status_t status = connection.receive(&frame, !watchMailbox);
        if (status == WOULD_BLOCK) continue;
        if (status == NO_ERROR) status = frame.validate();
        if (status != NO_ERROR) {
            connection.markBroken();
            if (status != DEAD_OBJECT) ALOGW("malformed frame from pid %d", connection.peerPid());
            return status == DEAD_OBJECT ? DEAD_OBJECT : FAILED_TRANSACTION;
        }
        switch (frame.kind()) {
            case FrameKind::kReply: {
                if (frame.header.status != NO_ERROR) {
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
            case FrameKind::kChainExtended:
                watchMailbox = true;
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
    owner->sendRelease(token, count);
}

// ---- Receiving ----

namespace {

// A synchronous call on an introduced connection, by its header alone.
bool isCall(const Connection& connection, const Frame& frame) {
    return connection.helloDone && frame.header.magic == kFrameMagic &&
           frame.kind() == FrameKind::kTransaction &&
           (frame.header.flags & IBinder::FLAG_ONEWAY) == 0;
}

}  // namespace

void Dispatcher::onReadable(const sp<Connection>& connection) {
    for (;;) {
        Frame frame;
        status_t status = connection->receive(&frame, false);
        if (status == WOULD_BLOCK) {
            mRuntime.rearm(connection);
            return;
        }
        if (status == NO_MEMORY && isCall(*connection, frame)) {
            // Beyond the sender's share for now: that call fails, not the connection.
            Parcel none;
            sendReply(*connection, NO_MEMORY, &none);
            mRuntime.rearm(connection);
            return;
        }
        if (status == NO_ERROR) status = frame.validate();
        if (status != NO_ERROR) {
            if (status == BAD_VALUE) ALOGW("malformed frame from pid %d", connection->peerPid());
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
        // One-ways and releases travel on links only, in order.
        switch (frame.kind()) {
            case FrameKind::kTransaction:
                if ((frame.header.flags & IBinder::FLAG_ONEWAY) != 0) {
                    ALOGW("one-way outside a link from pid %d", connection->peerPid());
                    connection->markBroken();
                    break;
                }
                // The waiting thread answers it and hands the connection back.
                if (mRuntime.chains().handOff(frame.header.argument, connection, frame)) return;
                serveRequest(*connection, frame);
                break;
            case FrameKind::kGrant:
                serveRequest(*connection, frame);
                break;
            default:
                ALOGW("unexpected frame of kind %u from pid %d", frame.header.kind,
                      connection->peerPid());
                connection->markBroken();
                break;
        }
        // A caller that just got its reply often calls again at once.
        if (connection->broken() || !mRuntime.lingerOn(*connection)) {
            mRuntime.rearm(connection);
            return;
        }
    }
}

status_t Dispatcher::handleHello(Connection& connection, const Frame& frame) {
    const uint64_t endpoint = frame.header.argument;
    if (endpoint == 0 || endpoint == mRuntime.endpoint()) return BAD_VALUE;
    sp<Peer> peer = mRuntime.peers().obtain(endpoint);
    status_t status = peer->verifyClaim(connection.peerPid());
    if (status != NO_ERROR) return status;
    connection.setPeer(peer);
    connection.helloDone = true;
    if ((frame.header.flags & kHelloLink) != 0 && !connection.takeLinkShare()) {
        ALOGW("pid %d opened more links than it has endpoints", connection.peerPid());
        return PERMISSION_DENIED;
    }
    if (!connection.answersHello) return NO_ERROR;
    OutgoingFrame answer = OutgoingFrame::make(FrameKind::kHelloAnswer);
    answer.header.argument = mRuntime.endpoint();
    return connection.send(answer, Connection::kAnswerWaitMs);
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
            status = execute(connection, *target, frame.header.code, data, &reply,
                             frame.header.flags, frame.header.argument);
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
                             const Parcel& data, Parcel* reply, uint32_t flags, uint64_t chain) {
    IPCThreadState* thread = IPCThreadState::self();
    const pid_t savedPid = thread->mCallingPid;
    const uid_t savedUid = thread->mCallingUid;
    const uint64_t savedChain = thread->mChain;
    thread->mCallingPid = connection.peerPid();
    thread->mCallingUid = connection.peerUid();
    // A one-way caller waits for nothing: calls made from it start a chain
    // of their own and go the normal way.
    const bool synchronous = (flags & IBinder::FLAG_ONEWAY) == 0;
    thread->mChain = synchronous ? chain : 0;
    if (synchronous) thread->mServing.emplace_back(&connection, false);
    status_t status = target.transact(code, data, reply, flags);
    if (synchronous) thread->mServing.pop_back();
    thread->mChain = savedChain;
    thread->mCallingPid = savedPid;
    thread->mCallingUid = savedUid;
    return status;
}

void Dispatcher::sendReply(Connection& connection, status_t status, const Parcel* reply) {
    OutgoingFrame frame = OutgoingFrame::make(FrameKind::kReply);
    Grants grants;
    // A handler's negative status, or an error set on the reply (whatever its
    // sign), replaces the reply's data.
    if (status >= NO_ERROR) status = reply->errorCheck();
    if (status == NO_ERROR) {
        status = prepareObjects(*reply, connection.peer(), &frame, &grants);
    }
    if (status != NO_ERROR) {
        frame = OutgoingFrame::make(FrameKind::kReply);
        frame.header.status = status;
    }
    if (connection.send(frame, Connection::kAnswerWaitMs) != NO_ERROR) {
        undoGrants(grants, connection.peer());
        connection.markBroken();
    }
}

namespace {

// Processes this one does not know yet that one frame may name: each costs a
// peer, a connection attempt and the releases sent to it.
constexpr size_t kMaxNewEndpointsPerFrame = 64;

}  // namespace

bool Dispatcher::namesFewNewProcesses(const Frame& frame, const Connection& from) {
    std::vector<uint64_t> newEndpoints;
    for (uint32_t offset : frame.offsets) {
        FlatObject record;
        memcpy(&record, frame.data + offset, sizeof(record));
        const uint64_t endpoint = record.endpoint;
        if (record.type != FlatObject::kTypeBinder || endpoint == mRuntime.endpoint() ||
            endpoint == from.peer()->endpoint() ||
            std::find(newEndpoints.begin(), newEndpoints.end(), endpoint) != newEndpoints.end() ||
            mRuntime.peers().find(endpoint) != nullptr) {
            continue;
        }
        if (newEndpoints.size() == kMaxNewEndpointsPerFrame) return false;
        newEndpoints.push_back(endpoint);
    }
    return true;
}

status_t Dispatcher::decodeParcel(Frame& frame, const Connection& from, Parcel* out) {
    // Refused before anything is resolved. The references that third
    // processes granted for it stay counted there until this process ends.
    if (!namesFewNewProcesses(frame, from)) {
        ALOGW("pid %d named too many processes in one transaction", from.peerPid());
        return FAILED_TRANSACTION;
    }
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
