#include "oneways/OneWayScheduler.h"

#include "calls/ThreadCalls.h"
#include "threads/ThreadPool.h"

namespace android {
namespace tvbinder {

void OneWayScheduler::ObjectTask::run() {
    for (;;) {
        Next next = mScheduler.next(mToken);
        if (next.call == nullptr) {
            if (next.repost) mScheduler.mPool.post(this, false);
            return;
        }
        mScheduler.execute(*next.call);
    }
}

void OneWayScheduler::enqueue(const Token& token, std::unique_ptr<PendingOneWay> call) {
    sp<ObjectTask> toPost;
    {
        LockGuard guard(mLock);
        Queue& queue = mQueues[token];
        if (queue.task == nullptr) queue.task = new ObjectTask(*this, token);
        queue.calls.push_back(std::move(call));
        if (!queue.scheduled) {
            queue.scheduled = true;
            toPost = queue.task;
        }
    }
    if (toPost != nullptr) mPool.post(toPost, false);
}

OneWayScheduler::Next OneWayScheduler::next(const Token& token) {
    LockGuard guard(mLock);
    auto it = mQueues.find(token);
    if (it == mQueues.end()) return {};  // its object went with its last call
    Queue& queue = it->second;
    // After one call, other waiting work goes first: the object takes its
    // turn again at the back of the pool's queue.
    if (queue.started && !queue.calls.empty() && mPool.hasPostedTasks()) {
        queue.started = false;
        return {nullptr, true};
    }
    if (queue.calls.empty()) {
        queue.scheduled = false;
        queue.started = false;
        return {};
    }
    queue.started = true;
    std::unique_ptr<PendingOneWay> call = std::move(queue.calls.front());
    queue.calls.pop_front();
    return {std::move(call), false};
}

void OneWayScheduler::forget(const Token& token) {
    sp<ObjectTask> gone;  // released after the lock
    LockGuard guard(mLock);
    auto it = mQueues.find(token);
    if (it == mQueues.end()) return;
    gone = std::move(it->second.task);
    mQueues.erase(it);
}

void OneWayScheduler::execute(PendingOneWay& call) {
    Parcel ignored;
    (void)ThreadCalls::execute(call.from->session(), *call.target, call.code, call.data, &ignored,
                               call.flags, 0);
    consumed(*call.from, call.cost);
}

void OneWayScheduler::consumed(AcceptedConnection& link, uint64_t cost) {
    if (const std::optional<uint64_t> total = link.backlog().consume(cost)) sendAck(link, *total);
}

void OneWayScheduler::onAckRequest(AcceptedConnection& link) {
    if (const std::optional<uint64_t> total = link.backlog().onAckRequest()) {
        sendAck(link, *total);
    }
}

void OneWayScheduler::sendAck(AcceptedConnection& link, uint64_t consumed) {
    OutgoingFrame ack = OutgoingFrame::make(FrameKind::kAck);
    ack.header.argument = consumed;
    // Never waits: a sender that does not read its acknowledgements only
    // starves itself.
    (void)link.connection().send(ack, 0);
}

}  // namespace tvbinder
}  // namespace android
