// Drives a shared-memory ring's reader against a writer that lies: honest
// records interleaved with bytes scribbled into the ring, tails moved
// anywhere, futex words overwritten, headers rewritten while the reader is
// between its copy of a header and its copy of the payload.
//
// Checks: the reader never touches the region outside its ring and its own
// control words (the rest is poisoned for ASan); a message it returns is
// within the limit and, until the first lie, exactly the next one sent; once
// it reports corruption it keeps doing so.
//
// Input: steps of FuzzFormats.h (ShmRingStep).

#include <sanitizer/asan_interface.h>
#include <string.h>

#include <deque>
#include <new>

#include "FuzzFormats.h"
#include "FuzzSupport.h"
#include "RingReader.h"
#include "RingWriter.h"
#include "ShmRegion.h"

namespace {

using android::status_t;
using namespace android::tvbinder::shm;

constexpr size_t kRing = 4096;
constexpr size_t kMaxMessage = 3 * kRing;  // enough to stream through the ring
constexpr size_t kMaxQueued = 8;           // honest messages not yet read

ShmRegion& region() {
    static ShmRegion* const made = [] {
        std::unique_ptr<ShmRegion> created;
        FUZZ_CHECK(ShmRegion::create(kRing, &created) == android::NO_ERROR);
        // The reader of direction 0 has no business anywhere else.
        uint8_t* base = created->data(0) - kDataOffset;
        ASAN_POISON_MEMORY_REGION(base, kControlOffset);
        ASAN_POISON_MEMORY_REGION(created->control(1),
                                  kDataOffset - kControlOffset - sizeof(DirectionControl));
        ASAN_POISON_MEMORY_REGION(created->data(1), kRing);
        return created.release();
    }();
    return *made;
}

size_t u16(fuzz::Input* input) {
    const size_t low = input->byte();
    return low | size_t{input->byte()} << 8;
}

// A record header written anywhere in the ring, of lengths near the limits.
struct Scribble {
    size_t offset;
    RecordHeader header;

    static Scribble from(fuzz::Input* input) {
        const size_t offset = u16(input) % (kRing - sizeof(RecordHeader) + 1);
        const auto payload = static_cast<uint32_t>(u16(input));
        const size_t remaining = u16(input);
        return {offset, {payload, remaining == 0xffff ? kSkipToWrap : uint32_t(remaining)}};
    }
    void apply() const { memcpy(region().data(0) + offset, &header, sizeof header); }
};

// One for the whole session: a message begun stays in its buffer. It turns
// down some lengths, as a receiver over a peer's share does: those messages
// are skipped.
class ScribblingSink : public BufferSink {
  public:
    void setScribble(const Scribble* scribble) { mScribble = scribble; }
    bool accept(size_t length) override {
        mSkipped = length % 7 == 3;
        return !mSkipped;
    }
    bool skipped() const { return mSkipped; }
    uint8_t* reserve(size_t length) override {
        FUZZ_CHECK(length >= 1 && length <= kMaxMessage);
        if (mScribble != nullptr) mScribble->apply();
        return BufferSink::reserve(length);
    }

  private:
    const Scribble* mScribble = nullptr;
    bool mSkipped = false;
};

class Session {
  public:
    Session()
        : mControl(region().control(0)),
          mWriter(mControl, region().data(0), kRing),
          mReader(mControl, region().data(0), kRing, kMaxMessage) {
        new (mControl) DirectionControl();
        memset(region().data(0), 0, kRing);
    }

    void step(fuzz::Input* input) {
        switch (input->byte() % fuzz::kShmStepCount) {
            case fuzz::kShmNewMessage:
                return newMessage(input);
            case fuzz::kShmSendPart:
                return sendPart(input);
            case fuzz::kShmRead:
                return read(nullptr);
            case fuzz::kShmReadScribbled: {
                const Scribble scribble = Scribble::from(input);
                mLied = true;
                return read(&scribble);
            }
            case fuzz::kShmScribble:
                mLied = true;
                return Scribble::from(input).apply();
            case fuzz::kShmSetTail:
                return setTail(input);
            default:
                return setWords(input);
        }
    }

  private:
    void newMessage(fuzz::Input* input) {
        const size_t length = 1 + u16(input) % kMaxMessage;
        if (mSent.size() >= kMaxQueued) return;
        fuzz::Bytes message(length);
        for (size_t i = 0; i < length; ++i) message[i] = uint8_t(i * 31 + mSent.size());
        mSent.push_back(std::move(message));
    }

    // The next record of the oldest message not yet sent in full.
    void sendPart(fuzz::Input* input) {
        const size_t wanted = u16(input);
        if (mSent.size() <= mWhole) return;
        const fuzz::Bytes& message = mSent[mWhole];
        size_t room = 0;
        if (mWriter.freeBytes(&room) != android::NO_ERROR || room < sizeof(RecordHeader)) return;
        const size_t rest = message.size() - mPartSent;
        if (mPartSent == 0 && room == kRing && alignRecord(rest) + 8 <= mWriter.position()) {
            mWriter.rewindIfPast(kRing / 2);  // as the channel does, at half the ring here
            if (mWriter.freeBytes(&room) != android::NO_ERROR) return;
        }
        const size_t payload = std::min({wanted, rest, (room - sizeof(RecordHeader)) & ~size_t{7}});
        if (payload == 0) return;  // as the channel: every record carries bytes of its message
        iovec part{const_cast<uint8_t*>(message.data()) + mPartSent, payload};
        GatherCursor source(&part, 1);
        mWriter.append(&source, uint32_t(payload), uint32_t(rest));
        mWriter.publish();
        mPartSent += payload;
        if (mPartSent == message.size()) {
            ++mWhole;
            mPartSent = 0;
        }
    }

    void read(const Scribble* scribble) {
        ScribblingSink& sink = mSink;
        sink.setScribble(scribble);
        size_t length = 0;
        const status_t status = mReader.read(&sink, &length);
        sink.setScribble(nullptr);
        if (status == kPeerCorrupted) {
            FUZZ_CHECK(mLied);
            FUZZ_CHECK(mReader.read(&sink, &length) == kPeerCorrupted);
            return;
        }
        FUZZ_CHECK(status == android::NO_ERROR || status == android::WOULD_BLOCK);
        if (status != android::NO_ERROR) return;
        FUZZ_CHECK((sink.skipped() || length == sink.size()) && length <= kMaxMessage);
        if (mLied) return;
        FUZZ_CHECK(!mSent.empty() && mWhole > 0);
        FUZZ_CHECK(sink.skipped()
                       ? length == mSent.front().size()
                       : fuzz::Bytes(sink.data(), sink.data() + length) == mSent.front());
        mSent.pop_front();
        --mWhole;
    }

    void setTail(fuzz::Input* input) {
        mLied = true;
        const auto distance = static_cast<int16_t>(u16(input));
        const uint64_t current = mControl->tail.load();
        mControl->tail.store(distance == 0x7fff ? uint64_t{input->u32()}
                                                : current + static_cast<uint64_t>(distance));
    }

    void setWords(fuzz::Input* input) {
        mLied = true;
        mControl->consumer.store(input->u32());
        mControl->producer.store(input->u32());
    }

    DirectionControl* const mControl;
    RingWriter mWriter;
    RingReader mReader;
    ScribblingSink mSink;
    std::deque<fuzz::Bytes> mSent;  // oldest first: those sent whole, then the rest
    size_t mWhole = 0;              // how many of mSent were sent in full
    size_t mPartSent = 0;           // bytes of mSent[mWhole] sent so far
    bool mLied = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    Session session;
    for (int steps = 0; steps < 4096 && !input.empty(); ++steps) session.step(&input);
    return 0;
}
