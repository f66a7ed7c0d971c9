#include "ShmChannel.h"

#include <limits.h>

#include <algorithm>

#include "Futex.h"

namespace android {
namespace tvbinder {
namespace shm {
namespace {

// The room a streamed message waits for before its next record, which then
// takes all the room there is: on one CPU every record written while the
// reader sleeps costs a switch to it and back.
constexpr size_t kStreamChunk = 16 * 1024;
// A message this long, for a peer on another CPU, goes in records of
// kPipelineRecord published one by one: the peer, woken by the first, copies
// out while the rest go in, and its wake-up overlaps our copy.
constexpr size_t kPipelineFrom = 32 * 1024;
constexpr size_t kPipelineRecord = 16 * 1024;
static_assert(kPipelineRecord % kRecordAlign == 0, "only the last record is padded");

// The ring bytes a message of `length` takes in records of kPipelineRecord.
size_t pipelinedRecordBytes(size_t length) {
    const size_t records = (length + kPipelineRecord - 1) / kPipelineRecord;
    return records * sizeof(RecordHeader) + alignRecord(length);
}
// Small messages keep to this much of the front of a ring (a page multiple):
// only large ones touch, and make resident, the pages beyond.
constexpr size_t kFrontBytes = 64 * 1024;

}  // namespace

status_t ShmChannel::create(const ShmChannelOptions& options, std::unique_ptr<ShmChannel>* out) {
    std::unique_ptr<ShmRegion> region;
    const status_t status = ShmRegion::create(options.ringBytes, &region);
    if (status != NO_ERROR) return status;
    out->reset(new ShmChannel(std::move(region), 0, options));
    return NO_ERROR;
}

status_t ShmChannel::adopt(int regionFd, const ShmChannelOptions& options,
                           std::unique_ptr<ShmChannel>* out) {
    std::unique_ptr<ShmRegion> region;
    const status_t status = ShmRegion::adopt(regionFd, &region);
    if (status != NO_ERROR) return status;
    out->reset(new ShmChannel(std::move(region), 1, options));
    return NO_ERROR;
}

ShmChannel::ShmChannel(std::unique_ptr<ShmRegion> region, int outgoing,
                       const ShmChannelOptions& options)
    : mRegion(std::move(region)),
      mWriter(mRegion->control(outgoing), mRegion->data(outgoing), mRegion->ringBytes()),
      mReader(mRegion->control(1 - outgoing), mRegion->data(1 - outgoing), mRegion->ringBytes(),
              options.maxMessage),
      mOutgoing(outgoing),
      mMaxMessage(std::min<size_t>(options.maxMessage, UINT32_MAX)),
      mSpin(options.spin),
      mSleepSlice(options.sleepSlice),
      mStreamPatience(options.streamPatience),
      mStreamLimit(options.streamLimit) {}

ShmChannel::~ShmChannel() = default;

ShmChannel::Clock::duration ShmChannel::patienceTill(Clock::time_point deadline) const {
    return std::max<Clock::duration>(deadline - Clock::now(), mStreamPatience);
}

status_t ShmChannel::checkSendable(size_t length) const {
    if (mShutdown.load(std::memory_order_acquire) || mWriter.consumerClosed()) return DEAD_OBJECT;
    if (broken()) return kPeerCorrupted;
    // The peer's limit is taken to be ours: beyond it, it would drop the connection.
    return length == 0 || length > mMaxMessage ? BAD_VALUE : NO_ERROR;
}

status_t ShmChannel::send(const iovec* parts, size_t count, Clock::time_point deadline) {
    GatherCursor source(parts, count);
    const status_t status = checkSendable(source.remaining());
    if (status != NO_ERROR) return status;
    const size_t whole = sizeof(RecordHeader) + alignRecord(source.remaining());
    if (whole > mWriter.ringBytes()) {
        return sendStreamed(&source, deadline, patienceTill(deadline), SIZE_MAX);
    }
    rewindIfEmpty(whole);
    return sendWhole(&source, whole, deadline);
}

status_t ShmChannel::sendHeaded(const iovec& head, const iovec* parts, size_t count,
                                Clock::time_point deadline) {
    GatherCursor headSource(&head, 1);
    GatherCursor source(parts, count);
    status_t status = checkSendable(source.remaining());
    if (status == NO_ERROR) status = checkSendable(headSource.remaining());
    if (status != NO_ERROR) return status;
    const size_t headBytes = sizeof(RecordHeader) + alignRecord(headSource.remaining());
    const size_t whole = headBytes + sizeof(RecordHeader) + alignRecord(source.remaining());
    const size_t ring = mWriter.ringBytes();
    const bool streamed = whole > ring;
    const bool peerApart = whole >= kPipelineFrom && !sharesCpuWithPeer();
    const size_t pipelinedBytes = headBytes + pipelinedRecordBytes(source.remaining());
    const bool pipelined = !streamed && peerApart && pipelinedBytes <= ring;
    const Clock::duration patience = patienceTill(deadline);
    // A pipelined message waits for room for all its records before the
    // first goes in: it never waits half-way, and a send that times out
    // wrote nothing.
    const size_t first = streamed    ? std::min(ring, headBytes + kStreamChunk)
                         : pipelined ? pipelinedBytes
                                     : whole;
    rewindIfEmpty(first);
    status = waitForRoom(first, deadline);
    if (status != NO_ERROR) return status;
    const auto headLength = static_cast<uint32_t>(headSource.remaining());
    // Published with the first record of the second message, which now fits.
    mWriter.append(&headSource, headLength, headLength);
    status = streamed || pipelined
                 ? sendStreamed(&source, deadline, patience, peerApart ? kPipelineRecord : SIZE_MAX)
                 : sendWhole(&source, whole - headBytes, deadline);
    // A first message without the second: the reader could not go on.
    return status == NO_ERROR ? status : breakWith(status);
}

bool ShmChannel::empty() {
    size_t room = 0;
    return mWriter.freeBytes(&room) == NO_ERROR && room == mWriter.ringBytes();
}

// Back to the front of an empty ring, when the message fits before where the
// next record would go: the skip costs nothing then.
void ShmChannel::rewindIfEmpty(size_t bytes) {
    if (empty() && bytes <= mWriter.position()) mWriter.rewindIfPast(kFrontBytes);
}

bool ShmChannel::takeWidening() {
    if (mWide || mWriter.reach() <= kFrontBytes) return false;
    mWide = true;
    return true;
}

// The reader is done with every byte of an empty ring, wherever the next
// record goes: it reads none before that record is published.
bool ShmChannel::sweep() {
    if (!mWide || mShutdown.load(std::memory_order_acquire) || broken()) return false;
    if (mWriter.reach() > kFrontBytes) {
        mWriter.resetReach();
        return true;
    }
    size_t room = 0;
    if (mWriter.freeBytes(&room) != NO_ERROR) {
        (void)breakWith(kPeerCorrupted);
        return false;
    }
    if (room != mWriter.ringBytes()) return true;
    mRegion->discard(mOutgoing, kFrontBytes);
    mWide = false;
    return false;
}

status_t ShmChannel::sendWhole(GatherCursor* source, size_t bytes, Clock::time_point deadline) {
    const status_t status = waitForRoom(bytes, deadline);
    if (status != NO_ERROR) return status;
    const auto length = static_cast<uint32_t>(source->remaining());
    mWriter.append(source, length, length);
    publishAndWake();
    return NO_ERROR;
}

// Records published one by one, so that the reader can copy out while the
// next one goes in.
// The wait is for progress: a reader that keeps copying out keeps the message
// going, however long it is; `patience` is how long it may stop.
status_t ShmChannel::sendStreamed(GatherCursor* source, Clock::time_point deadline,
                                  Clock::duration patience, size_t maxRecord) {
    const size_t chunk = std::min(mWriter.ringBytes() / 4, kStreamChunk);
    const size_t length = source->remaining();
    const Clock::time_point latest =
        Clock::now() + std::max<Clock::duration>(patience, mStreamLimit);
    while (source->remaining() > 0) {
        const size_t rest = sizeof(RecordHeader) + alignRecord(source->remaining());
        status_t status = waitForRoom(std::min(rest, chunk), deadline);
        size_t room = 0;
        if (status == NO_ERROR) status = mWriter.freeBytes(&room);
        if (status != NO_ERROR) {
            // Half a message in the ring: the reader could never resynchronise.
            return source->remaining() < length ? breakWith(status) : status;
        }
        const size_t payload = std::min(
            {source->remaining(), maxRecord, (room - sizeof(RecordHeader)) & ~(kRecordAlign - 1)});
        const auto remaining = static_cast<uint32_t>(source->remaining());
        mWriter.append(source, static_cast<uint32_t>(payload), remaining);
        publishAndWake();
        deadline = std::min(latest, std::max(deadline, Clock::now() + patience));
    }
    return NO_ERROR;
}

status_t ShmChannel::waitForRoom(size_t bytes, Clock::time_point deadline) {
    for (;;) {
        size_t room = 0;
        const status_t status = mWriter.freeBytes(&room);
        if (status != NO_ERROR) return breakWith(status);
        if (room >= bytes) return NO_ERROR;
        auto ready = [&] { return mWriter.freeBytes(&room) != NO_ERROR || room >= bytes; };
        const status_t waited = waitFor(mWriter.producerWord(), nullptr, ready, deadline);
        if (waited != NO_ERROR) return waited;
    }
}

void ShmChannel::publishAndWake() {
    switch (mWriter.publish()) {
        case kSleeping:
            futexWake(mWriter.consumerWord(), 1);
            break;
        case kPolling:
            if (mPollWaker) mPollWaker();
            break;
        default:
            break;
    }
}

status_t ShmChannel::receive(MessageSink* sink, size_t* length, Clock::time_point deadline) {
    for (;;) {
        const status_t status = tryReceive(sink, length);
        if (status != WOULD_BLOCK) return status;
        auto ready = [this] { return mReader.hasData(); };
        const status_t waited =
            waitFor(mReader.consumerWord(), mReader.consumerCpu(), ready, deadline);
        if (waited != NO_ERROR) return waited;
    }
}

status_t ShmChannel::tryReceive(MessageSink* sink, size_t* length) {
    const status_t status = mReader.read(sink, length);
    if (status == WOULD_BLOCK && mShutdown.load(std::memory_order_acquire)) return DEAD_OBJECT;
    if (status != NO_ERROR && status != WOULD_BLOCK) return breakWith(status);
    return status;
}

status_t ShmChannel::waitReadable(Clock::time_point deadline) {
    if (mReader.hasData()) return NO_ERROR;
    if (mShutdown.load(std::memory_order_acquire)) return DEAD_OBJECT;
    auto ready = [this] { return mReader.hasData(); };
    return waitFor(mReader.consumerWord(), mReader.consumerCpu(), ready, deadline);
}

status_t ShmChannel::waitReadable(SleepStop& stop) {
    auto ready = [&] { return mReader.hasData() || stop.stopped(); };
    const status_t status = waitFor(mReader.consumerWord(), mReader.consumerCpu(), ready,
                                    Clock::time_point::max(), &stop);
    if (status != NO_ERROR || mReader.hasData()) return status;
    return TIMED_OUT;
}

bool ShmChannel::armPolling() {
    // The same order as a futex sleep: state first, then the re-check.
    mReader.consumerWord()->store(kPolling, std::memory_order_seq_cst);
    if (!mReader.hasData() && !mShutdown.load(std::memory_order_seq_cst)) return false;
    mReader.consumerWord()->store(kRunning, std::memory_order_seq_cst);
    return true;
}

// The sleeper's side of the protocol: announce the sleep (seq_cst store), then
// re-check (seq_cst loads), then sleep only while the word still says so.
template <typename Ready>
status_t ShmChannel::waitFor(std::atomic<uint32_t>* own, std::atomic<uint32_t>* ownCpu, Ready ready,
                             Clock::time_point deadline, SleepStop* stop) {
    YieldPayoff* payoff = ownCpu != nullptr ? &mReceiveYields : nullptr;
    if (sharesCpuWithPeer() ? yieldFor(ready, payoff) : spinFor(ready)) return NO_ERROR;
    for (;;) {
        own->store(kSleeping, std::memory_order_seq_cst);
        const bool shut = mShutdown.load(std::memory_order_seq_cst);
        if (shut || ready()) {
            own->store(kRunning, std::memory_order_seq_cst);
            return shut ? DEAD_OBJECT : NO_ERROR;
        }
        if (stop != nullptr) {
            futexWait(own, kSleeping, *stop);
        } else {
            const Clock::time_point now = Clock::now();
            if (now >= deadline) {
                own->store(kRunning, std::memory_order_seq_cst);
                return TIMED_OUT;
            }
            futexWait(own, kSleeping, std::min<Clock::duration>(deadline - now, mSleepSlice));
        }
        own->store(kRunning, std::memory_order_seq_cst);
        if (ownCpu != nullptr) ownCpu->store(currentCpu(), std::memory_order_relaxed);
    }
}

// Whether the peer may be waiting for our CPU: this thread may only run on
// one, or the peer last woke up on ours (`consumerCpu`, a hint).
bool ShmChannel::sharesCpuWithPeer() {
    return !threadMayRunInParallel() ||
           mWriter.consumerCpu()->load(std::memory_order_relaxed) == currentCpu();
}

// Spins only where it can pay: with the peer on another CPU (sharesCpuWithPeer),
// while it runs (its receiving end is not asleep), for mSpin at most.
template <typename Ready>
bool ShmChannel::spinFor(Ready ready) {
    if (mSpin.count() <= 0) return false;
    const std::atomic<uint32_t>* peer = mWriter.consumerWord();
    const Clock::time_point end = Clock::now() + mSpin;
    for (unsigned round = 1;; ++round) {
        if (ready()) return true;
        if (peer->load(std::memory_order_relaxed) != kRunning) return false;
        if (round % 16 == 0 && Clock::now() >= end) return false;
        spinPause();
    }
}

// On the peer's CPU (sharesCpuWithPeer), a peer that is awake needs our CPU to
// answer: one yield lets it run now, and spares our sleep and its wake-up (two
// system calls and a timer). One yield only, only while the peer is awake,
// not while another task keeps that CPU busy (yieldUnlessCrowded), and not
// while yields to this peer found nothing (`payoff`).
template <typename Ready>
bool ShmChannel::yieldFor(Ready ready, YieldPayoff* payoff) {
    if (ready()) return true;
    const uint32_t peer = mWriter.consumerWord()->load(std::memory_order_relaxed);
    if (peer != kRunning && peer != kWoken) return false;
    if (payoff != nullptr && !payoff->mayYield()) return false;
    if (!yieldUnlessCrowded()) return false;
    const bool paid = ready();
    if (payoff != nullptr) payoff->record(paid);
    return paid;
}

void ShmChannel::shutdown() {
    mShutdown.store(true, std::memory_order_seq_cst);
    mReader.close();
    for (std::atomic<uint32_t>* word : {mReader.consumerWord(), mWriter.producerWord()}) {
        word->store(kWoken, std::memory_order_seq_cst);
        futexWake(word, INT_MAX);
    }
}

status_t ShmChannel::breakWith(status_t status) {
    mBroken.store(true, std::memory_order_release);
    return status;
}

}  // namespace shm
}  // namespace tvbinder
}  // namespace android
