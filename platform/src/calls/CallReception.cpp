#define LOG_TAG "tvbinder"

#include "calls/CallReception.h"

#include <log/log.h>

#include <memory>

#include "base/LogLimit.h"
#include "calls/ChainRegistry.h"
#include "calls/RequestServer.h"
#include "peers/AcceptedConnections.h"
#include "threads/PoolTask.h"
#include "threads/ThreadPool.h"

namespace android {
namespace tvbinder {

namespace {

// A synchronous call, by its header alone.
bool isCall(const Frame& frame) {
    return frame.header.magic == kFrameMagic && frame.kind() == FrameKind::kTransaction &&
           !frame.isOneWay();
}

}  // namespace

void CallReception::onReadable(const sp<AcceptedConnection>& connection) {
    for (;;) {
        Frame frame;
        const status_t status = connection->connection().receive(&frame, false);
        if (!handle(connection, frame, status)) return;
    }
}

bool CallReception::onReadableStandingIn(const sp<AcceptedConnection>& connection) {
    auto frame = std::make_shared<Frame>();
    const status_t status = connection->connection().receive(frame.get(), false);
    if (status == WOULD_BLOCK) {
        mAccepted.rearm(connection);
        return true;
    }
    if (status == NO_ERROR && isCall(*frame) && frame->validate() == NO_ERROR &&
        mChains.handOff(frame->header.argument, connection, *frame)) {
        return true;
    }
    mPool.post(new WorkTask([this, connection, frame, status] {
        if (handle(connection, *frame, status)) onReadable(connection);
    }));
    return true;
}

bool CallReception::handle(const sp<AcceptedConnection>& connection, Frame& frame,
                           status_t status) {
    Connection& socket = connection->connection();
    if (status == WOULD_BLOCK) {
        mAccepted.rearm(connection);
        return false;
    }
    if (status == NO_MEMORY && isCall(frame)) {
        // Beyond the sender's share for now: that call fails, not the connection.
        mServer.reply(connection->session(), NO_MEMORY, Parcel(), mGrants);
        mAccepted.rearm(connection);
        return false;
    }
    if (status == NO_ERROR) status = frame.validate();
    if (status != NO_ERROR) {
        if (status == BAD_VALUE) TV_ALOGW_LIMITED("malformed frame from pid %d", socket.peerPid());
        mAccepted.drop(connection);
        return false;
    }
    // One-ways and releases travel on links only, in order.
    switch (frame.kind()) {
        case FrameKind::kTransaction:
            if (frame.isOneWay()) {
                TV_ALOGW_LIMITED("one-way outside a link from pid %d", socket.peerPid());
                socket.markBroken();
                break;
            }
            // The waiting thread answers it and hands the connection back.
            if (mChains.handOff(frame.header.argument, connection, frame)) return false;
            mServer.serve(connection->session(), frame, mGrants);
            break;
        case FrameKind::kGrant:
            mServer.serve(connection->session(), frame, mGrants);
            break;
        default:
            TV_ALOGW_LIMITED("unexpected frame of kind %u from pid %d", frame.header.kind,
                             socket.peerPid());
            socket.markBroken();
            break;
    }
    // A caller that just got its reply often calls again at once.
    if (socket.broken() || !mAccepted.lingerOn(*connection)) {
        mAccepted.rearm(connection);
        return false;
    }
    return true;
}

}  // namespace tvbinder
}  // namespace android
