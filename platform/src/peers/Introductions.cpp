#define LOG_TAG "tvbinder"

#include "peers/Introductions.h"

#include <log/log.h>
#include <string.h>

#include "base/LogLimit.h"
#include "peers/AcceptedConnections.h"
#include "peers/PeerTable.h"

namespace android {
namespace tvbinder {

void Introductions::onReadable(const sp<AcceptedConnection>& connection) {
    Frame frame;
    status_t status = connection->connection().receive(&frame, false);
    if (status == WOULD_BLOCK) {
        mAccepted.rearm(connection);
        return;
    }
    // A HELLO may bring the region that frames take from now on.
    if (status == NO_ERROR && frame.kind() == FrameKind::kHello && frame.fds().size() == 1) {
        status = connection->connection().acceptSharedMemory(frame.takeFirstFd(), mRings);
    }
    if (status == NO_ERROR) status = frame.validate();
    if (status != NO_ERROR) {
        if (status == BAD_VALUE) {
            TV_ALOGW_LIMITED("malformed frame from pid %d", connection->peerPid());
        }
        mAccepted.drop(connection);
        return;
    }
    status = frame.kind() == FrameKind::kHello ? introduce(*connection, frame) : BAD_TYPE;
    if (status != NO_ERROR) {
        // A process that opens a connection as it exits (to send its last
        // releases) is gone by the time it is introduced: nothing to tell.
        if (status == DEAD_OBJECT) {
            ALOGV("a connection from pid %d outlived its process", connection->peerPid());
        } else {
            TV_ALOGW_LIMITED(
                "refused a connection from pid %d (%s)", connection->peerPid(),
                status == BAD_TYPE ? "its first frame is no HELLO" : strerror(-status));
        }
        mAccepted.drop(connection);
        return;
    }
    mAccepted.rearm(connection);
}

status_t Introductions::introduce(AcceptedConnection& connection, const Frame& hello) {
    const uint64_t endpoint = hello.header.argument;
    if (endpoint == 0 || endpoint == mOwnEndpoint) return BAD_VALUE;
    sp<Peer> peer = mPeers.obtain(endpoint);
    status_t status = peer->verifyClaim(connection.peerPid());
    if (status != NO_ERROR) return status;
    if (!connection.introduce(peer, (hello.header.flags & kHelloLink) != 0)) {
        TV_ALOGW_LIMITED("pid %d opened more links than it has endpoints", connection.peerPid());
        return PERMISSION_DENIED;
    }
    if (!connection.answersHello()) return NO_ERROR;
    OutgoingFrame answer = OutgoingFrame::make(FrameKind::kHelloAnswer);
    answer.header.argument = mOwnEndpoint;
    return connection.connection().send(answer, Connection::kAnswerWaitMs);
}

}  // namespace tvbinder
}  // namespace android
