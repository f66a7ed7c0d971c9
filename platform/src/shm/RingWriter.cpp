#include "RingWriter.h"

#include <string.h>

#include <algorithm>

namespace android {
namespace tvbinder {
namespace shm {

GatherCursor::GatherCursor(const iovec* parts, size_t count) : mPart(parts), mRemaining(0) {
    for (size_t i = 0; i < count; ++i) mRemaining += parts[i].iov_len;
}

void GatherCursor::copyTo(uint8_t* out, size_t length) {
    mRemaining -= length;
    while (length > 0) {
        const size_t step = std::min(length, mPart->iov_len - mOffset);
        memcpy(out, static_cast<const uint8_t*>(mPart->iov_base) + mOffset, step);
        out += step;
        length -= step;
        mOffset += step;
        if (mOffset == mPart->iov_len) {
            ++mPart;
            mOffset = 0;
        }
    }
}

RingWriter::RingWriter(DirectionControl* control, uint8_t* data, size_t ringBytes)
    : mControl(control), mData(data), mRingBytes(ringBytes) {}

status_t RingWriter::freeBytes(size_t* bytes) {
    const uint64_t head = mControl->head.load(std::memory_order_seq_cst);
    if (head < mLastHead || head > mTail || head % kRecordAlign != 0) return kPeerCorrupted;
    mLastHead = head;
    *bytes = mRingBytes - static_cast<size_t>(mTail - head);
    return NO_ERROR;
}

void RingWriter::append(GatherCursor* source, uint32_t payload, uint32_t remaining) {
    const RecordHeader header{payload, remaining};
    const size_t position = static_cast<size_t>(mTail % mRingBytes);
    memcpy(mData + position, &header, sizeof header);
    copyIn((position + sizeof header) % mRingBytes, source, payload);
    mTail += sizeof header + alignRecord(payload);
    extendReach(position + sizeof header + alignRecord(payload));
}

void RingWriter::rewindIfPast(size_t threshold) {
    const size_t at = position();
    if (at < threshold) return;
    const RecordHeader skip{static_cast<uint32_t>(mRingBytes - at - sizeof skip), kSkipToWrap};
    memcpy(mData + at, &skip, sizeof skip);
    mTail += mRingBytes - at;
    extendReach(at + sizeof skip);
}

void RingWriter::copyIn(size_t position, GatherCursor* source, size_t length) {
    const size_t first = std::min(length, mRingBytes - position);
    source->copyTo(mData + position, first);
    source->copyTo(mData, length - first);
}

WaiterState RingWriter::publish() {
    // seq_cst store, then seq_cst load of the consumer's word: paired with
    // the consumer's store of kSleeping and re-load of the tail, one of the
    // two sides sees the other's store (see docs/transport.md, "Waking up").
    mControl->tail.store(mTail, std::memory_order_seq_cst);
    std::atomic<uint32_t>& consumer = mControl->consumer;
    const uint32_t seen = consumer.load(std::memory_order_seq_cst);
    if (seen != kSleeping && seen != kPolling) return kRunning;
    const uint32_t previous = consumer.exchange(kWoken, std::memory_order_seq_cst);
    return previous == kSleeping || previous == kPolling ? static_cast<WaiterState>(previous)
                                                         : kRunning;
}

}  // namespace shm
}  // namespace tvbinder
}  // namespace android
