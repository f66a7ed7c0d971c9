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
    // A buffer of at least `length` bytes (1 to the channel's maximum) that
    // stays valid until the read that completes the message returns. nullptr
    // refuses the message, which ends the channel (it cannot be skipped).
    virtual uint8_t* reserve(size_t length) = 0;
};

// A sink that keeps one growing buffer, reused from message to message
// without being cleared.
class BufferSink : public MessageSink {
  public:
    uint8_t* reserve(size_t length) override {
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
    std::unique_ptr<uint8_t[]> mBuffer;
    size_t mCapacity = 0;
    size_t mSize = 0;
};

}  // namespace shm
}  // namespace tvbinder
}  // namespace android
