#define LOG_TAG "tvbinder"

#include "calls/RequestServer.h"

#include <log/log.h>

#include "base/LogLimit.h"
#include "calls/ThreadCalls.h"
#include "peers/Peer.h"
#include "peers/PeerTable.h"
#include "references/ExportTable.h"
#include "wire/Connection.h"

namespace android {
namespace tvbinder {

void RequestServer::serve(const Session& session, Frame& frame, GrantRequester& grants) {
    Parcel answer;
    status_t status;
    if (frame.kind() == FrameKind::kGrant) {
        status = grant(session, frame);
    } else {
        // Decoded first: the references granted for its objects are then
        // accounted for (and given back) even when the call goes nowhere.
        Parcel data;
        status = mObjects.decode(frame, session, &data);
        sp<BBinder> target = mObjects.target(frame, session.peer);
        if (target == nullptr) {
            TV_ALOGW_LIMITED("pid %d called an object it does not hold",
                             session.connection.peerPid());
            status = FAILED_TRANSACTION;
        } else if (status == NO_ERROR) {
            status = ThreadCalls::execute(session, *target, frame.header.code, data, &answer,
                                          frame.header.flags, frame.header.argument);
        }
    }
    reply(session, status, answer, grants);
}

status_t RequestServer::grant(const Session& session, const Frame& frame) {
    const uint64_t holder = frame.header.argument;
    if (holder == 0 || holder == mOwnEndpoint) return BAD_VALUE;
    sp<BBinder> object = mExports.lookup(frame.token(), session.peer.endpoint());
    if (object == nullptr) return NAME_NOT_FOUND;
    sp<Peer> holderPeer = mPeers.obtain(holder);
    status_t status = holderPeer->ensureWatched();
    if (status != NO_ERROR) return status;
    return mExports.grant(frame.token(), *holderPeer);
}

void RequestServer::reply(const Session& session, status_t status, const Parcel& reply,
                          GrantRequester& grants) {
    OutgoingTransaction transaction{OutgoingFrame::make(FrameKind::kReply), {}};
    // A handler's negative status, or an error set on the reply (whatever its
    // sign), replaces the reply's data.
    if (status >= NO_ERROR) status = reply.errorCheck();
    if (status == NO_ERROR) status = mObjects.prepare(reply, session.peer, grants, &transaction);
    if (status != NO_ERROR) {
        transaction.frame = OutgoingFrame::make(FrameKind::kReply);
        transaction.frame.header.status = status;
    }
    if (session.connection.send(transaction.frame, Connection::kAnswerWaitMs) != NO_ERROR) {
        mObjects.undo(transaction, session.peer);
        session.connection.markBroken();
    }
}

}  // namespace tvbinder
}  // namespace android
