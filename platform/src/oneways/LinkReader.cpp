#define LOG_TAG "tvbinder"

#include "oneways/LinkReader.h"

#include <binder/IBinder.h>
#include <log/log.h>
#include <sched.h>

#include "peers/Peer.h"
#include "runtime/Runtime.h"

namespace android {
namespace tvbinder {

namespace {

// Frames read from a link per wake-up.
constexpr size_t kLinkReadBudget = 256;

}  // namespace

void LinkReader::onReadable(const sp<Connection>& link) {
    // The link is read to the end, then what was read runs on this thread,
    // then the link is read again: a stream of one-ways costs neither
    // wake-ups nor re-arming. Releases and requests for acknowledgement never
    // wait behind one-ways, and the sender's budget bounds what is queued.
    bool yielded = false;
    for (;;) {
        const status_t status = readWaiting(link);
        if (status != NO_ERROR) {
            mRuntime.drop(link);
            // The peer's link ends when its process exits or execs.
            if (status == DEAD_OBJECT) link->peer()->checkAlive();
            return;
        }
        if (mRuntime.pool().hasPostedTasks()) {
            // Held only while handlers run: the guard never takes it back from
            // a thread that is reading it.
            mRuntime.stallGuard().hold(link);
            mRuntime.pool().runPosted();
            if (!mRuntime.stallGuard().release(link)) return;  // another thread reads it now
            yielded = false;
            continue;
        }
        // A sender on this CPU gets to go on once before this thread sleeps:
        // the one-ways it sends meanwhile are read in one go.
        if (!yielded) {
            yielded = true;
            sched_yield();
            continue;
        }
        yielded = false;
        // The sender is woken straight by the socket then, not through epoll.
        if (!mRuntime.lingerOn(*link)) break;
    }
    mRuntime.rearm(link);
}

status_t LinkReader::readWaiting(const sp<Connection>& link) {
    size_t taken = 0;
    while (taken < kLinkReadBudget) {
        Frame frames[kReceiveBatch];
        status_t statuses[kReceiveBatch];
        const size_t count = link->receiveWaiting(frames, statuses, kReceiveBatch);
        taken += count;
        for (size_t i = 0; i < count; ++i) {
            status_t status = statuses[i] == NO_ERROR ? frames[i].validate() : statuses[i];
            if (status != NO_ERROR) {
                if (status == BAD_VALUE) ALOGW("malformed frame from pid %d", link->peerPid());
                return status == DEAD_OBJECT ? DEAD_OBJECT : BAD_VALUE;
            }
            if (!take(*link, frames[i])) return BAD_VALUE;
        }
        if (count < kReceiveBatch) break;
    }
    return NO_ERROR;
}

bool LinkReader::take(Connection& link, Frame& frame) {
    switch (frame.kind()) {
        case FrameKind::kTransaction:
            if ((frame.header.flags & IBinder::FLAG_ONEWAY) != 0) return admitOneWay(link, frame);
            break;
        case FrameKind::kRelease:
            // Dropped here, without any transport lock, if it was the last.
            mRuntime.exports().release(frame.token(), link.peer()->endpoint(),
                                       frame.header.argument);
            return true;
        case FrameKind::kAckRequest:
            mRuntime.oneWays().onAckRequest(link);
            return true;
        default:
            break;
    }
    ALOGW("unexpected frame of kind %u on the link of pid %d", frame.header.kind, link.peerPid());
    return false;
}

bool LinkReader::admitOneWay(Connection& link, Frame& frame) {
    const uint64_t cost = oneWayCost(frame.header.dataSize, frame.fds.size());
    const uint64_t received = link.oneWayReceived.load(std::memory_order_relaxed);
    const uint64_t backlog = received - link.oneWayConsumed.load(std::memory_order_acquire);
    if (!fitsOneWayBudget(backlog, cost)) {
        ALOGW("pid %d sent one-ways beyond its budget; dropping its link", link.peerPid());
        return false;
    }
    link.oneWayReceived.store(received + cost, std::memory_order_relaxed);
    auto call = std::make_unique<PendingOneWay>();
    call->cost = cost;
    call->charge = std::move(frame.charge);
    const status_t decoded = mRuntime.dispatcher().decodeParcel(frame, link, &call->data);
    if (decoded != NO_ERROR) {
        mRuntime.oneWays().consumed(link, cost);
        // Refused, not malformed: the link goes on.
        if (decoded == FAILED_TRANSACTION) return true;
        ALOGW("malformed one-way from pid %d", link.peerPid());
        return false;
    }
    call->target = mRuntime.exports().lookup(frame.token(), link.peer()->endpoint());
    if (call->target == nullptr) {
        ALOGW("pid %d called an object it does not hold", link.peerPid());
        mRuntime.oneWays().consumed(link, cost);
        return true;
    }
    call->from = &link;
    call->code = frame.header.code;
    call->flags = frame.header.flags;
    mRuntime.oneWays().enqueue(frame.token(), std::move(call));
    return true;
}

}  // namespace tvbinder
}  // namespace android
