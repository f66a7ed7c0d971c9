#define LOG_TAG "tvbinder"

#include "oneways/LinkIntake.h"

#include <log/log.h>

#include "base/LogLimit.h"
#include "oneways/OneWayScheduler.h"
#include "references/ExportTable.h"
#include "references/ObjectCodec.h"

namespace android {
namespace tvbinder {

bool LinkIntake::take(const sp<AcceptedConnection>& link, Frame& frame) {
    switch (frame.kind()) {
        case FrameKind::kTransaction:
            if (frame.isOneWay()) return admitOneWay(link, frame);
            break;
        case FrameKind::kRelease: {
            // Dropped here, without any transport lock, if it was the last.
            sp<BBinder> last =
                mExports.release(frame.token(), link->peer()->endpoint(), frame.header.argument);
            return true;
        }
        case FrameKind::kAckRequest:
            mOneWays.onAckRequest(*link);
            return true;
        default:
            break;
    }
    TV_ALOGW_LIMITED("unexpected frame of kind %u on the link of pid %d", frame.header.kind,
                     link->peerPid());
    return false;
}

bool LinkIntake::admitOneWay(const sp<AcceptedConnection>& link, Frame& frame) {
    const uint64_t cost = oneWayCost(frame.header.dataSize, frame.fds().size());
    if (!link->backlog().admit(cost)) {
        TV_ALOGW_LIMITED("pid %d sent one-ways beyond its budget; dropping its link",
                         link->peerPid());
        return false;
    }
    auto call = std::make_unique<PendingOneWay>();
    call->cost = cost;
    call->charge = std::move(frame.charge);
    const status_t decoded = mObjects.decode(frame, link->session(), &call->data);
    if (decoded != NO_ERROR) {
        mOneWays.consumed(*link, cost);
        // Refused, not malformed: the link goes on.
        if (decoded == FAILED_TRANSACTION) return true;
        TV_ALOGW_LIMITED("malformed one-way from pid %d", link->peerPid());
        return false;
    }
    call->target = mObjects.target(frame, *link->peer());
    if (call->target == nullptr) {
        TV_ALOGW_LIMITED("pid %d called an object it does not hold", link->peerPid());
        mOneWays.consumed(*link, cost);
        return true;
    }
    call->from = link;
    call->code = frame.header.code;
    call->flags = frame.header.flags;
    mOneWays.enqueue(frame.token(), std::move(call));
    return true;
}

}  // namespace tvbinder
}  // namespace android
