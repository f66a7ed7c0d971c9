#define LOG_TAG "tvbinder"

#include "wire/ShmFrameChannel.h"

#include <errno.h>
#include <log/log.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>

#include "base/LogLimit.h"

namespace android {
namespace tvbinder {

namespace {

using Clock = shm::ShmChannel::Clock;

// Frames up to an inline frame's size are one message of the ring; larger
// ones are their header, then their body as the next message.
constexpr size_t kMaxRingFrame = kMaxInlineFrame;
constexpr size_t kMaxBody = kMaxTransactionSize + kMaxObjectsPerFrame * sizeof(uint32_t);
// Per direction, well above a link's one-way budget: the budget, not the
// ring, refuses one-ways. Only what is used becomes resident; small frames
// keep to the ring's first 64 KiB.
constexpr size_t kRingBytes = size_t{1} << 20;
static_assert(kRingBytes >= 2 * kOneWayBudget, "a link's ring must hold its one-way budget");
// What a large body streaming through the ring waits for each bit of room at
// least, also for answers and one-ways (whose sends wait 5 ms): the reader
// may be descheduled for a while; one that stops for longer costs the
// connection, and frees the send lock.
constexpr auto kStreamPatience = std::chrono::milliseconds(500);
// A receive that waits looks at the socket for a hang-up this often.
constexpr auto kHangUpCheck = std::chrono::milliseconds(50);
// A frame found on the socket before its marker: an honest sender writes the
// marker right after it.
constexpr auto kMarkerWait = std::chrono::milliseconds(100);
// How long a receive that does not block may still wait for the rest of a
// body the peer is writing (a record at a time, while it runs): the reader
// often catches up with the writer, and a way through epoll costs more.
constexpr auto kBodyCatchUp = std::chrono::microseconds(200);

shm::ShmChannelOptions ringOptions() {
    shm::ShmChannelOptions options;
    options.ringBytes = kRingBytes;
    options.maxMessage = std::max(kMaxRingFrame, kMaxBody);
    options.streamPatience = kStreamPatience;
    return options;
}

Clock::time_point deadlineIn(int waitMs) {
    return Clock::now() + std::chrono::milliseconds(std::max(waitMs, 0));
}

FrameHeader controlHeader(FrameKind kind) {
    return OutgoingFrame::make(kind).header;
}

// The header a frame travels with in the ring, which counts its objects.
FrameHeader ringHeader(const OutgoingFrame& frame) {
    FrameHeader header = frame.header;
    header.objectCount = static_cast<uint32_t>(frame.offsets.size());
    return header;
}

// The frame's data and offsets, those it has, as parts of a ring message:
// how many there are.
size_t bodyParts(const OutgoingFrame& frame, iovec* parts) {
    size_t count = 0;
    if (frame.header.dataSize > 0) {
        parts[count++] = {const_cast<uint8_t*>(frame.data), frame.header.dataSize};
    }
    if (!frame.offsets.empty()) {
        parts[count++] = {const_cast<uint32_t*>(frame.offsets.data()),
                          frame.offsets.size() * sizeof(uint32_t)};
    }
    return count;
}

bool isControl(const FrameHeader& header, FrameKind kind) {
    return header.magic == kFrameMagic && header.kind == static_cast<uint32_t>(kind);
}

}  // namespace

bool ShmFrameChannel::offered() {
    static const bool offered = [] {
        const char* path = getenv("TVBINDER_DATA_PATH");
        return path == nullptr || strcmp(path, "socket") != 0;
    }();
    return offered;
}

std::unique_ptr<ShmFrameChannel> ShmFrameChannel::create(SocketChannel& socket, int fd,
                                                         pid_t peerPid) {
    std::unique_ptr<shm::ShmChannel> ring;
    const status_t status = shm::ShmChannel::create(ringOptions(), &ring);
    if (status != NO_ERROR) {
        ALOGW("no shared memory for a connection to pid %d (%d): it keeps to its socket", peerPid,
              status);
        return nullptr;
    }
    return std::unique_ptr<ShmFrameChannel>(
        new ShmFrameChannel(std::move(ring), socket, fd, peerPid));
}

std::unique_ptr<ShmFrameChannel> ShmFrameChannel::adopt(int regionFd, SocketChannel& socket, int fd,
                                                        pid_t peerPid) {
    std::unique_ptr<shm::ShmChannel> ring;
    if (shm::ShmChannel::adopt(regionFd, ringOptions(), &ring) != NO_ERROR) {
        TV_ALOGW_LIMITED("pid %d offered memory that is not a sealed region", peerPid);
        return nullptr;
    }
    ring->closeRegionFd();
    return std::unique_ptr<ShmFrameChannel>(
        new ShmFrameChannel(std::move(ring), socket, fd, peerPid));
}

ShmFrameChannel::ShmFrameChannel(std::unique_ptr<shm::ShmChannel> ring, SocketChannel& socket,
                                 int fd, pid_t peerPid)
    : mRing(std::move(ring)),
      mSocket(socket),
      mFd(fd),
      mPeerPid(peerPid),
      mGeneration(TransportFds::generation()) {
    // Without waiting: a full socket is readable already.
    mRing->setPollWaker([fd] {
        const FrameHeader wake = controlHeader(FrameKind::kWake);
        (void)::send(fd, &wake, sizeof wake, MSG_DONTWAIT | MSG_NOSIGNAL);
    });
}

ShmFrameChannel::~ShmFrameChannel() {
    // In a child made by fork() the region is not mapped, and its addresses
    // may be in use for something else: nothing of it is touched.
    if (stale()) (void)mRing.release();
}

// ---- Sending ----

status_t ShmFrameChannel::send(const OutgoingFrame& frame, int waitMs) {
    if (stale()) return DEAD_OBJECT;
    LockGuard guard(mSendLock);
    const status_t status = sendEitherWay(frame, waitMs);
    if (mRing->takeWidening() && mOnWidening) mOnWidening();
    return status;
}

status_t ShmFrameChannel::sendEitherWay(const OutgoingFrame& frame, int waitMs) {
    const size_t size =
        sizeof(FrameHeader) + frame.header.dataSize + frame.offsets.size() * sizeof(uint32_t);
    if (!frame.fds.empty() || !frame.withinLimits()) return sendOnSocket(frame, waitMs);
    if (size > kMaxRingFrame) return sendLargeOnRing(frame, waitMs);
    return sendOnRing(frame, waitMs);
}

bool ShmFrameChannel::sweepIdle() {
    if (stale() || !mSendLock.tryLock()) return !stale();
    const bool again = mRing->sweep();
    mSendLock.unlock();
    return again;
}

status_t ShmFrameChannel::sendOnRing(const OutgoingFrame& frame, int waitMs) {
    FrameHeader header = ringHeader(frame);
    iovec parts[3];
    parts[0] = {&header, sizeof header};
    const size_t count = 1 + bodyParts(frame, parts + 1);
    return writeRing(parts, count, waitMs);
}

// The header, then the body as a message of its own: the receiver charges
// the body to this process's share before it allocates room for it. The
// send lock is held while the body streams in, as long as the receiver copies
// it out; a receiver that stops for the send's wait (kStreamPatience at
// least, once the body has begun) ends the connection.
status_t ShmFrameChannel::sendLargeOnRing(const OutgoingFrame& frame, int waitMs) {
    FrameHeader header = ringHeader(frame);
    header.layout |= kLayoutBodyInRing;
    const iovec head{&header, sizeof header};
    iovec parts[2];
    const size_t count = bodyParts(frame, parts);
    const status_t status = mRing->sendHeaded(head, parts, count, deadlineIn(waitMs));
    if (status != NO_ERROR && mRing->broken()) {
        // Half a frame in the ring: the order is lost, and so is the connection.
        shutdown();
        return DEAD_OBJECT;
    }
    return writeRingStatus(status);
}

// The frame on the socket first, then its marker: the receiver that meets
// the marker finds the frame already there.
status_t ShmFrameChannel::sendOnSocket(const OutgoingFrame& frame, int waitMs) {
    const status_t status = mSocket.send(frame, waitMs);
    if (status != NO_ERROR) return status;
    FrameHeader marker = controlHeader(FrameKind::kOnSocket);
    const iovec part{&marker, sizeof marker};
    const status_t marked = writeRing(&part, 1, waitMs);
    if (marked == NO_ERROR) return NO_ERROR;
    // A frame without its place in the ring: the order is lost, and so is
    // the connection.
    shutdown();
    return DEAD_OBJECT;
}

status_t ShmFrameChannel::writeRing(const iovec* parts, size_t count, int waitMs) {
    return writeRingStatus(mRing->send(parts, count, deadlineIn(waitMs)));
}

status_t ShmFrameChannel::writeRingStatus(status_t status) {
    switch (status) {
        case NO_ERROR:
        case DEAD_OBJECT:
            return status;
        case TIMED_OUT:
            return WOULD_BLOCK;
        default:
            TV_ALOGW_LIMITED("pid %d broke the rules of the memory it shares with this process",
                             mPeerPid);
            (void)corrupted(status);
            return DEAD_OBJECT;
    }
}

// ---- Receiving ----

status_t ShmFrameChannel::receive(Frame* out, bool block) {
    if (stale()) return DEAD_OBJECT;
    if (!block) {
        LockGuard guard(mReceiveLock);
        return receiveNow(out);
    }
    for (;;) {
        {
            LockGuard guard(mReceiveLock);
            const status_t status = takeFrame(out);
            if (status != WOULD_BLOCK) return status;
        }
        // Sleeps on the ring; now and then a look at the socket for a hang-up.
        if (mRing->waitReadable(Clock::now() + kHangUpCheck) == NO_ERROR) continue;
        LockGuard guard(mReceiveLock);
        const status_t status = receiveNow(out);
        if (status != WOULD_BLOCK) return status;
    }
}

size_t ShmFrameChannel::receiveWaiting(Frame* out, status_t* statuses, size_t max) {
    if (stale()) {
        statuses[0] = DEAD_OBJECT;
        return 1;
    }
    LockGuard guard(mReceiveLock);
    size_t count = 0;
    while (count < std::min(max, kReceiveBatch)) {
        const status_t status = receiveNow(&out[count]);
        if (status == WOULD_BLOCK) break;
        statuses[count++] = status;
        if (status != NO_ERROR) break;
    }
    return count;
}

bool ShmFrameChannel::waitReadable(int timeoutMs) {
    if (stale()) return true;
    const Clock::time_point deadline = deadlineIn(timeoutMs);
    for (;;) {
        const Clock::time_point slice = std::min(deadline, Clock::now() + kHangUpCheck);
        if (mRing->waitReadable(slice) != TIMED_OUT) return true;
        // A WAKE, a frame or a hang-up waiting on the socket.
        pollfd socket{mFd, POLLIN, 0};
        if (poll(&socket, 1, 0) > 0) return true;
        if (slice >= deadline) return false;
    }
}

bool ShmFrameChannel::waitReadableUntil(shm::SleepStop& stop) {
    return stale() || mRing->waitReadable(stop) != TIMED_OUT;
}

bool ShmFrameChannel::prepareToPoll() {
    return !stale() && mRing->armPolling();
}

status_t ShmFrameChannel::receiveNow(Frame* out) {
    Clock::time_point catchUpEnd{};
    for (;;) {
        status_t status = takeFrame(out);
        if (status != WOULD_BLOCK) return status;
        if (mLargeBody.active() && awaitMoreOfBody(&catchUpEnd)) continue;
        bool frameFirst = false;
        status = skipWakeUps(&frameFirst);
        // What the peer completed before it hung up is still read.
        if (status == DEAD_OBJECT) return takeFrame(out);
        if (frameFirst) {
            if (mRing->waitReadable(Clock::now() + kMarkerWait) != TIMED_OUT) continue;
            TV_ALOGW_LIMITED("pid %d sent a frame on its socket without its place in the ring",
                             mPeerPid);
            return corrupted(BAD_VALUE);
        }
        if (!mRing->armPolling()) return WOULD_BLOCK;
    }
}

// Waits as the ring's waits do before they sleep: spinning while the peer
// runs, or yielding once to it on our CPU; never beyond `*end`, set on the
// first call.
bool ShmFrameChannel::awaitMoreOfBody(Clock::time_point* end) {
    const Clock::time_point now = Clock::now();
    if (*end == Clock::time_point{}) *end = now + kBodyCatchUp;
    return now < *end && mRing->waitReadable(now) == NO_ERROR;
}

status_t ShmFrameChannel::takeFrame(Frame* out) {
    if (mLargeBody.active()) return takeLargeBody(out);
    size_t length = 0;
    const status_t status =
        takeMessage(&mSink, &length, "broke the rules of the memory it shares with this process");
    if (status != NO_ERROR) return status;
    if (length < sizeof(FrameHeader)) return corrupted(BAD_VALUE);
    // The copy is what is checked: the peer may be changing the ring meanwhile.
    memcpy(&out->header, mSink.data(), sizeof(FrameHeader));
    if (isControl(out->header, FrameKind::kOnSocket)) {
        if (length != sizeof(FrameHeader)) return corrupted(BAD_VALUE);
        return takeSocketFrame(out);
    }
    if (!out->headerWithinLimits(kLayoutBodyInRing)) return corrupted(BAD_VALUE);
    if ((out->header.layout & kLayoutBodyInRing) != 0) {
        if (length != sizeof(FrameHeader)) return corrupted(BAD_VALUE);
        const status_t started = startLargeBody(out->header);
        return started == NO_ERROR ? takeLargeBody(out) : started;
    }
    const status_t copied =
        out->copyInlineBody(mSink.data() + sizeof(FrameHeader), length - sizeof(FrameHeader));
    return copied == BAD_VALUE ? corrupted(copied) : copied;
}

status_t ShmFrameChannel::startLargeBody(const FrameHeader& header) {
    const size_t bodySize = frameBodySize(header);
    if (bodySize + sizeof(FrameHeader) <= kMaxRingFrame) return corrupted(BAD_VALUE);
    BodyCharge charge;
    // Beyond the share, the body is skipped, not copied.
    const bool charged = mSocket.chargeBody(bodySize, &charge);
    mLargeBody.start(header, std::move(charge), charged);
    return NO_ERROR;
}

status_t ShmFrameChannel::takeLargeBody(Frame* out) {
    size_t length = 0;
    const status_t status =
        takeMessage(&mLargeBody, &length, "sent a body that is not the one its header announced");
    return status == NO_ERROR ? mLargeBody.finish(out) : status;
}

status_t ShmFrameChannel::takeMessage(shm::MessageSink* sink, size_t* length, const char* breach) {
    const status_t status = mRing->tryReceive(sink, length);
    if (status == NO_ERROR || status == WOULD_BLOCK || status == DEAD_OBJECT) return status;
    TV_ALOGW_LIMITED("pid %d %s", mPeerPid, breach);
    return corrupted(status);
}

void ShmFrameChannel::LargeBody::start(const FrameHeader& header, BodyCharge charge, bool kept) {
    mActive = true;
    mHeader = header;
    mHeader.layout = 0;
    mCharge = std::move(charge);
    mData.reset(kept ? static_cast<uint8_t*>(malloc(frameBodySize(header))) : nullptr);
    if (mData == nullptr) mCharge = BodyCharge();
}

uint8_t* ShmFrameChannel::LargeBody::reserve(size_t length) {
    // Another length than announced: refused, which ends the connection.
    return length == frameBodySize(mHeader) ? mData.get() : nullptr;
}

status_t ShmFrameChannel::LargeBody::finish(Frame* out) {
    mActive = false;
    out->header = mHeader;
    if (mData == nullptr) return NO_MEMORY;
    // Data, then the offsets: the data keeps the buffer (and the offsets' room).
    out->offsets.resize(mHeader.objectCount);
    if (mHeader.objectCount > 0) {
        memcpy(out->offsets.data(), mData.get() + mHeader.dataSize,
               mHeader.objectCount * sizeof(uint32_t));
    }
    out->adoptData(mData.release());
    out->charge = std::move(mCharge);
    return NO_ERROR;
}

status_t ShmFrameChannel::takeSocketFrame(Frame* out) {
    bool frameFirst = false;
    const status_t status = skipWakeUps(&frameFirst);
    if (status != NO_ERROR) return status;
    if (!frameFirst) {
        TV_ALOGW_LIMITED("pid %d marked a frame in the ring that is not on its socket", mPeerPid);
        return corrupted(BAD_VALUE);
    }
    out->header = FrameHeader{};
    const status_t received = mSocket.receive(out, false);
    return received == WOULD_BLOCK ? corrupted(BAD_VALUE) : received;
}

status_t ShmFrameChannel::skipWakeUps(bool* frameFirst) {
    for (;;) {
        FrameHeader head;
        const ssize_t n = recv(mFd, &head, sizeof head, MSG_PEEK | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return NO_ERROR;
        if (n <= 0) {
            mRing->shutdown();
            return DEAD_OBJECT;
        }
        if (n != sizeof head || !isControl(head, FrameKind::kWake)) {
            *frameFirst = true;
            return NO_ERROR;
        }
        // Consumed whole: descriptors a lying peer attached are closed.
        (void)recv(mFd, &head, sizeof head, MSG_DONTWAIT);
    }
}

// The ring cannot be trusted any more: nothing more is read from it.
status_t ShmFrameChannel::corrupted(status_t status) {
    mRing->shutdown();
    return status == DEAD_OBJECT ? DEAD_OBJECT : BAD_VALUE;
}

void ShmFrameChannel::shutdown() {
    if (!stale()) mRing->shutdown();
}

}  // namespace tvbinder
}  // namespace android
