#define LOG_TAG "tvbinder"

#include "oneways/OneWayScheduler.h"

#include <log/log.h>

#include "runtime/Runtime.h"

namespace android {
namespace tvbinder {

void OneWayScheduler::ObjectQueue::run() {
    sp<ObjectQueue> self(this);
    bool repost = false;
    while (std::unique_ptr<PendingOneWay> call = scheduler.next(self, &repost)) {
        scheduler.execute(*call);
    }
    if (repost) scheduler.mRuntime.pool().post(self, false);
}

void OneWayScheduler::enqueue(const Token& token, std::unique_ptr<PendingOneWay> call) {
    sp<ObjectQueue> toPost;
    {
        std::lock_guard<std::mutex> guard(mLock);
        sp<ObjectQueue>& queue = mQueues[token];
        if (queue == nullptr) queue = new ObjectQueue(*this);
        queue->calls.push_back(std::move(call));
        if (!queue->scheduled) {
            queue->scheduled = true;
            toPost = queue;
        }
    }
    if (toPost != nullptr) mRuntime.pool().post(toPost, false);
}

std::unique_ptr<PendingOneWay> OneWayScheduler::next(const sp<ObjectQueue>& queue, bool* repost) {
    std::lock_guard<std::mutex> guard(mLock);
    // After one call, other waiting work goes first: the object takes its
    // turn again at the back of the pool's queue.
    if (queue->started && !queue->calls.empty() && mRuntime.pool().hasPostedTasks()) {
        queue->started = false;
        *repost = true;
        return nullptr;
    }
    if (queue->calls.empty()) {
        queue->scheduled = false;
        queue->started = false;
        return nullptr;
    }
    queue->started = true;
    std::unique_ptr<PendingOneWay> call = std::move(queue->calls.front());
    queue->calls.pop_front();
    return call;
}

void OneWayScheduler::forget(const Token& token) {
    sp<ObjectQueue> gone;  // released after the lock
    std::lock_guard<std::mutex> guard(mLock);
    auto it = mQueues.find(token);
    if (it == mQueues.end()) return;
    gone = std::move(it->second);
    mQueues.erase(it);
}

void OneWayScheduler::execute(PendingOneWay& call) {
    Parcel ignored;
    mRuntime.dispatcher().execute(*call.from, *call.target, call.code, call.data, &ignored,
                                  call.flags);
    consumed(*call.from, call.cost);
}

void OneWayScheduler::consumed(Connection& link, uint64_t cost) {
    const uint64_t total = link.oneWayConsumed.fetch_add(cost, std::memory_order_acq_rel) + cost;
    uint64_t acked = link.oneWayAcked.load(std::memory_order_acquire);
    if (total - acked < kAckInterval && !link.ackWanted.exchange(false)) return;
    // One thread sends the acknowledgement; it carries the total, so a late
    // or lost one is made good by the next.
    if (!link.oneWayAcked.compare_exchange_strong(acked, total, std::memory_order_acq_rel)) return;
    sendAck(link, total);
}

void OneWayScheduler::onAckRequest(Connection& link) {
    link.ackWanted.store(true);
    const uint64_t consumed = link.oneWayConsumed.load(std::memory_order_acquire);
    uint64_t acked = link.oneWayAcked.load(std::memory_order_acquire);
    if (consumed == acked ||
        !link.oneWayAcked.compare_exchange_strong(acked, consumed, std::memory_order_acq_rel)) {
        return;  // the next consumed call answers
    }
    link.ackWanted.store(false);
    sendAck(link, consumed);
}

void OneWayScheduler::sendAck(Connection& link, uint64_t consumed) {
    OutgoingFrame ack = OutgoingFrame::make(FrameKind::kAck);
    ack.header.argument = consumed;
    // Never waits: a sender that does not read its acknowledgements only
    // starves itself.
    link.send(ack, 0);
}

}  // namespace tvbinder
}  // namespace android
