#pragma once

#include <stddef.h>
#include <stdint.h>

#include <memory>

namespace android {
namespace tvbinder {
namespace shm {

// Where a message read from a ring lands. The reader asks once per message,
// when its length is known and checked, and copies into the buffer returned;
// the caller validates that private copy, never the shared bytes.
class MessageSink {
  public:
    virtual ~MessageSink() = default;
    // Whether to keep a message of `length` bytes (1 to the channel's
    // maximum): one not kept is consumed without being copied, and the read
    // that consumes its last record reports it as received.
    virtual bool accept(size_t /*length*/) { return true; }
    // A buffer of at least `length` bytes (1 to the channel's maximum) that
    // stays valid until the read that completes the message returns. nullptr
    // refuses the message, which ends the channel (it cannot be skipped).
    virtual uint8_t* reserve(size_t length) = 0;
};

// A sink that keeps one growing buffer, reused from message to message
// without being cleared; messages beyond `maxLength` are refused.
class BufferSink : public MessageSink {
  public:
    explicit BufferSink(size_t maxLength = SIZE_MAX) : mMaxLength(maxLength) {}
    uint8_t* reserve(size_t length) override {
        if (length > mMaxLength) return nullptr;
        if (length > mCapacity) {
            mBuffer.reset(new uint8_t[length]);
            mCapacity = length;
        }
        mSize = length;
        return mBuffer.get();
    }
    const uint8_t* data() const { return mBuffer.get(); }
    size_t size() const { return mSize; }

  private:
    const size_t mMaxLength;
    std::unique_ptr<uint8_t[]> mBuffer;
    size_t mCapacity = 0;
    size_t mSize = 0;
};

}  // namespace shm
}  // namespace tvbinder
}  // namespace android
