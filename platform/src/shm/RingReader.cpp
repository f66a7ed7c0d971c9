#include "RingReader.h"

#include <string.h>

#include <algorithm>

#include "Futex.h"

namespace android {
namespace tvbinder {
namespace shm {

RingReader::RingReader(DirectionControl* control, const uint8_t* data, size_t ringBytes,
                       size_t maxMessage)
    : mControl(control), mData(data), mRingBytes(ringBytes), mMaxMessage(maxMessage) {}

bool RingReader::hasData() const {
    const uint64_t consumed = mConsumed.load(std::memory_order_relaxed);
    return mControl->tail.load(std::memory_order_seq_cst) != consumed;
}

status_t RingReader::read(MessageSink* sink, size_t* length) {
    if (mCorrupted) return kPeerCorrupted;
    for (;;) {
        const uint64_t tail = mControl->tail.load(std::memory_order_acquire);
        if (tail == mHead) return WOULD_BLOCK;
        RecordHeader header;
        status_t status = takeHeader(tail, &header);
        if (status == NO_ERROR && header.remaining == kSkipToWrap) {
            release(mHead + sizeof header + header.payload);
            continue;
        }
        if (status == NO_ERROR && !mInMessage) status = startMessage(header, sink);
        if (status != NO_ERROR) return fail(status);
        if (mMessage != nullptr) {
            const size_t position = static_cast<size_t>((mHead + sizeof header) % mRingBytes);
            copyOut(position, mMessage + mFilled, header.payload);
        }
        mFilled += header.payload;
        release(mHead + sizeof header + alignRecord(header.payload));
        if (mFilled == mMessageLength) {
            *length = mMessageLength;
            mMessage = nullptr;
            mInMessage = false;
            return NO_ERROR;
        }
    }
}

status_t RingReader::takeHeader(uint64_t tail, RecordHeader* header) {
    // Unsigned: a tail behind the head reads as a huge distance.
    const uint64_t published = tail - mHead;
    if (published > mRingBytes || published < sizeof *header) return kPeerCorrupted;
    const size_t position = static_cast<size_t>(mHead % mRingBytes);
    memcpy(header, mData + position, sizeof *header);
    if (header->remaining == kSkipToWrap) {
        // Only between messages, exactly to the wrap, and only over published bytes.
        const size_t toWrap = mRingBytes - position - sizeof *header;
        return !mInMessage && header->payload == toWrap && mRingBytes - position <= published
                   ? NO_ERROR
                   : kPeerCorrupted;
    }
    const size_t expected = mMessageLength - mFilled;  // what a continuation must announce
    const bool fits = sizeof *header + alignRecord(header->payload) <= published;
    const bool continues = !mInMessage || header->remaining == expected;
    return fits && continues && header->payload <= header->remaining ? NO_ERROR : kPeerCorrupted;
}

status_t RingReader::startMessage(const RecordHeader& header, MessageSink* sink) {
    if (header.remaining == 0 || header.remaining > mMaxMessage) return kPeerCorrupted;
    // A message not kept is only skipped: nothing is allocated for it.
    if (sink->accept(header.remaining)) {
        mMessage = sink->reserve(header.remaining);
        if (mMessage == nullptr) return NO_MEMORY;
    }
    mInMessage = true;
    mMessageLength = header.remaining;
    mFilled = 0;
    return NO_ERROR;
}

void RingReader::copyOut(size_t position, uint8_t* out, size_t length) const {
    const size_t first = std::min(length, mRingBytes - position);
    memcpy(out, mData + position, first);
    memcpy(out + first, mData, length - first);
}

void RingReader::release(uint64_t head) {
    mHead = head;
    mConsumed.store(head, std::memory_order_relaxed);
    // seq_cst store, then seq_cst load of the producer's word: the mirror of
    // the producer's publish(), for a producer waiting for space.
    mControl->head.store(head, std::memory_order_seq_cst);
    std::atomic<uint32_t>& producer = mControl->producer;
    if (producer.load(std::memory_order_seq_cst) != kSleeping) return;
    if (producer.exchange(kWoken, std::memory_order_seq_cst) == kSleeping) futexWake(&producer, 1);
}

status_t RingReader::fail(status_t status) {
    mCorrupted = true;
    mMessage = nullptr;
    mInMessage = false;
    return status;
}

}  // namespace shm
}  // namespace tvbinder
}  // namespace android
