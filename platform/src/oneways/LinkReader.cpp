#define LOG_TAG "tvbinder"

#include "oneways/LinkReader.h"

#include <log/log.h>

#include "base/LogLimit.h"
#include "oneways/LinkIntake.h"
#include "oneways/LinkStallGuard.h"
#include "peers/AcceptedConnections.h"
#include "shm/Futex.h"
#include "threads/ThreadPool.h"

namespace android {
namespace tvbinder {

namespace {

// Frames read from a link per wake-up.
constexpr size_t kLinkReadBudget = 256;

}  // namespace

void LinkReader::onReadable(const sp<AcceptedConnection>& link) {
    // The link is read to the end, then what was read runs on this thread,
    // then the link is read again: a stream of one-ways costs neither
    // wake-ups nor re-arming. Releases and requests for acknowledgement never
    // wait behind one-ways, and the sender's budget bounds what is queued.
    bool yielded = false;
    for (;;) {
        const status_t status = readWaiting(link);
        if (status != NO_ERROR) {
            mAccepted.drop(link);
            // The peer's link ends when its process exits or execs.
            if (status == DEAD_OBJECT) link->peer()->checkAlive();
            return;
        }
        if (mPool.hasPostedTasks()) {
            // Held only while handlers run: the guard never takes it back from
            // a thread that is reading it.
            mStallGuard.hold(link);
            mPool.runPosted();
            if (!mStallGuard.release(link)) return;  // another thread reads it now
            yielded = false;
            continue;
        }
        // A sender on this CPU gets to go on once before this thread sleeps:
        // the one-ways it sends meanwhile are read in one go.
        if (!yielded) {
            yielded = true;
            if (shm::yieldUnlessCrowded()) continue;
        }
        yielded = false;
        // The sender is woken straight by the socket then, not through epoll.
        if (!mAccepted.lingerOn(*link)) break;
    }
    mAccepted.rearm(link);
}

status_t LinkReader::readWaiting(const sp<AcceptedConnection>& link) {
    size_t taken = 0;
    while (taken < kLinkReadBudget) {
        Frame frames[kReceiveBatch];
        status_t statuses[kReceiveBatch];
        const size_t count = link->connection().receiveWaiting(frames, statuses, kReceiveBatch);
        taken += count;
        for (size_t i = 0; i < count; ++i) {
            status_t status = statuses[i] == NO_ERROR ? frames[i].validate() : statuses[i];
            if (status != NO_ERROR) {
                if (status == BAD_VALUE) {
                    TV_ALOGW_LIMITED("malformed frame from pid %d", link->peerPid());
                }
                return status == DEAD_OBJECT ? DEAD_OBJECT : BAD_VALUE;
            }
            if (!mIntake.take(link, frames[i])) return BAD_VALUE;
        }
        if (count < kReceiveBatch) break;
    }
    return NO_ERROR;
}

}  // namespace tvbinder
}  // namespace android
