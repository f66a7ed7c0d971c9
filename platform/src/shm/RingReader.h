#pragma once

#include <stddef.h>
#include <stdint.h>

#include <atomic>

#include "MessageSink.h"
#include "RegionLayout.h"

namespace android {
namespace tvbinder {
namespace shm {

// The consumer's end of one direction's ring. Every value that the producer
// wrote (its tail, a record header) is loaded once into a local, checked
// against bounds that depend only on this reader's own state, and only the
// checked local is used; payload bytes go straight to the sink, never
// interpreted here. A breach is latched: every later read fails alike.
//
// Owned by a ShmChannel, used by one thread at a time (the channel's receiver).
class RingReader {
  public:
    RingReader(DirectionControl* control, const uint8_t* data, size_t ringBytes, size_t maxMessage);

    // Consumes what has been published, up to the end of one message.
    // NO_ERROR: a whole message of *length bytes is in the sink's buffer
    // (or was skipped, when the sink did not accept it).
    // WOULD_BLOCK: no whole message yet; a message begun stays in the buffer
    // the sink gave, to be continued by the next read with the same sink.
    // kPeerCorrupted: the producer broke the rules. NO_MEMORY: the sink refused.
    status_t read(MessageSink* sink, size_t* length);

    // Whether published bytes wait beyond those consumed; unchecked, only to
    // decide whether to sleep.
    bool hasData() const;
    bool corrupted() const { return mCorrupted; }

    std::atomic<uint32_t>* consumerWord() { return &mControl->consumer; }
    std::atomic<uint32_t>* consumerCpu() { return &mControl->consumerCpu; }
    // Tells the producer that nothing more will be read.
    void close() { mControl->closed.store(1, std::memory_order_release); }

  private:
    // The next record's header, checked against the published bytes.
    status_t takeHeader(uint64_t tail, RecordHeader* header);
    status_t startMessage(const RecordHeader& header, MessageSink* sink);
    void copyOut(size_t position, uint8_t* out, size_t length) const;
    void release(uint64_t head);
    status_t fail(status_t status);

    DirectionControl* const mControl;
    const uint8_t* const mData;
    const size_t mRingBytes;
    const size_t mMaxMessage;
    uint64_t mHead = 0;
    // mHead for hasData(), which another thread of this process may call
    // while the reader reads (a pool about to wait in epoll).
    std::atomic<uint64_t> mConsumed{0};
    bool mCorrupted = false;
    // The message being assembled (or skipped: mMessage null).
    bool mInMessage = false;
    uint8_t* mMessage = nullptr;
    size_t mMessageLength = 0;
    size_t mFilled = 0;
};

}  // namespace shm
}  // namespace tvbinder
}  // namespace android
