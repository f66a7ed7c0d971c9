#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>

#include <algorithm>

#include "RegionLayout.h"

namespace android {
namespace tvbinder {
namespace shm {

// Reads a message spread over iovecs front to back.
class GatherCursor {
  public:
    GatherCursor(const iovec* parts, size_t count);
    size_t remaining() const { return mRemaining; }
    // Copies the next `length` bytes (at most remaining()) to `out`.
    void copyTo(uint8_t* out, size_t length);

  private:
    const iovec* mPart;
    size_t mOffset = 0;  // within *mPart
    size_t mRemaining;
};

// The producer's end of one direction's ring. It trusts only its own tail; the
// consumer's head is re-read and checked every time space is counted.
//
// Owned by a ShmChannel, used by one thread at a time (the channel's sender).
class RingWriter {
  public:
    RingWriter(DirectionControl* control, uint8_t* data, size_t ringBytes);

    size_t ringBytes() const { return mRingBytes; }
    // Bytes free for records now, or kPeerCorrupted when the consumer's head is
    // behind what it consumed before or ahead of what was published.
    status_t freeBytes(size_t* bytes);
    // Appends one record of `payload` bytes from `source`, not yet visible;
    // `remaining` as in RecordHeader. The caller made sure it fits.
    void append(GatherCursor* source, uint32_t payload, uint32_t remaining);
    // When the ring is empty (checked by the caller) and the next record would
    // start `threshold` bytes or more into it, appends a skip to the front.
    void rewindIfPast(size_t threshold);
    // Where the next record goes.
    size_t position() const { return static_cast<size_t>(mTail % mRingBytes); }
    // How far into the ring what was written since resetReach() extends (the
    // whole ring once a record wrapped): the pages it made resident.
    size_t reach() const { return mReach; }
    void resetReach() { mReach = 0; }
    // Makes the appended records visible. Returns the consumer's state when it
    // waited (kSleeping or kPolling, since turned into kWoken), for the caller
    // to wake it, else kRunning.
    WaiterState publish();

    std::atomic<uint32_t>* producerWord() { return &mControl->producer; }
    std::atomic<uint32_t>* consumerWord() { return &mControl->consumer; }
    std::atomic<uint32_t>* consumerCpu() { return &mControl->consumerCpu; }
    // The consumer shut its end down (it closed the connection): nothing
    // sent will be read.
    bool consumerClosed() const { return mControl->closed.load(std::memory_order_acquire) != 0; }

  private:
    void copyIn(size_t position, GatherCursor* source, size_t length);
    void extendReach(size_t end) { mReach = std::max(mReach, std::min(end, mRingBytes)); }

    DirectionControl* const mControl;
    uint8_t* const mData;
    const size_t mRingBytes;
    uint64_t mTail = 0;      // appended, maybe not yet published
    uint64_t mLastHead = 0;  // the consumer's head as last checked
    size_t mReach = 0;
};

}  // namespace shm
}  // namespace tvbinder
}  // namespace android
