#pragma once

#include <stdlib.h>
#include <sys/types.h>

#include <functional>
#include <memory>

#include "base/Locks.h"
#include "base/TransportFds.h"
#include "shm/MessageSink.h"
#include "shm/ShmChannel.h"
#include "wire/FrameChannel.h"
#include "wire/SocketChannel.h"

namespace android {
namespace tvbinder {

// The shared-memory path of a connection: frames go through a ring per
// direction in a sealed region the two processes map (shm::ShmChannel). A
// frame larger than an inline frame goes as its header, then its body as a
// message of its own (streamed when longer than the ring), charged to the
// sender's share before the receiver allocates it. The socket stays for what
// the ring does not carry: frames with descriptors go on the socket, a marker
// taking their place in the ring so that one order holds; a pool that waits in
// woken by a WAKE frame on the socket (sent without waiting); hang-ups show
// on the socket, and shut the ring down. What is read from the ring is copied
// out before it is checked, and a peer that breaks the ring's rules loses
// this connection only.
//
// Made by its Connection (the connecting side creates the region and sends
// it with HELLO, the accepting side adopts it) and owned by it. Any thread:
// sends are serialised by a lock of their own, receives by another; a
// receive that waits holds neither.
class ShmFrameChannel final : public FrameChannel {
  public:
    // Whether the connections this process makes offer shared memory:
    // TVBINDER_DATA_PATH=socket keeps them all on the socket.
    static bool offered();
    // A new region; null when it cannot be made (the socket path then).
    static std::unique_ptr<ShmFrameChannel> create(SocketChannel& socket, int fd, pid_t peerPid);
    // The region the connecting side sent: takes `regionFd` and closes it.
    // Null when it is not a region made by create().
    static std::unique_ptr<ShmFrameChannel> adopt(int regionFd, SocketChannel& socket, int fd,
                                                  pid_t peerPid);
    ~ShmFrameChannel() override;

    // The region's memfd until closeRegionFd(): for the HELLO that carries it.
    int regionFd() const { return mRing->regionFd(); }
    void closeRegionFd() { mRing->closeRegionFd(); }

    [[nodiscard]] status_t send(const OutgoingFrame& frame, int waitMs) override;
    [[nodiscard]] status_t receive(Frame* out, bool block) override;
    size_t receiveWaiting(Frame* out, status_t* statuses, size_t max) override;
    [[nodiscard]] bool waitReadable(int timeoutMs) override;
    int readableFd() const override { return mFd; }

    // Before the connection goes back to epoll: asks the peer to wake the
    // socket for the next frame. True when a frame came meanwhile, for which
    // no wake-up will come: read it now.
    [[nodiscard]] bool prepareToPoll();
    // Waits for a frame with no timer until another thread stops it: true
    // once a frame waits or the channel ended, false when stopped.
    [[nodiscard]] bool waitReadableUntil(shm::SleepStop& stop);
    // Wakes every waiter; frames complete in the ring can still be read, then
    // receives end with DEAD_OBJECT and sends fail.
    void shutdown();

    // What a send calls, under the send lock, when it made the outgoing ring
    // reach beyond what small frames use (shm::ShmChannel::takeWidening):
    // must not wait. Set before the channel is shared.
    void onWidening(std::function<void()> widened) { mOnWidening = std::move(widened); }
    // Gives back what the outgoing ring of an idle connection need not keep
    // (shm::ShmChannel::sweep); a channel busy sending is left for the next
    // sweep. True while worth sweeping again. Never waits.
    [[nodiscard]] bool sweepIdle();

  private:
    ShmFrameChannel(std::unique_ptr<shm::ShmChannel> ring, SocketChannel& socket, int fd,
                    pid_t peerPid);

    // A child made by fork() has neither the mapping nor the socket.
    bool stale() const { return TransportFds::generation() != mGeneration; }
    // On the ring, or on the socket when it carries descriptors.
    status_t sendEitherWay(const OutgoingFrame& frame, int waitMs) TV_REQUIRES(mSendLock);
    status_t sendOnRing(const OutgoingFrame& frame, int waitMs) TV_REQUIRES(mSendLock);
    status_t sendLargeOnRing(const OutgoingFrame& frame, int waitMs) TV_REQUIRES(mSendLock);
    status_t sendOnSocket(const OutgoingFrame& frame, int waitMs) TV_REQUIRES(mSendLock);
    status_t writeRing(const iovec* parts, size_t count, int waitMs) TV_REQUIRES(mSendLock);
    status_t writeRingStatus(status_t status) TV_REQUIRES(mSendLock);
    // One frame if one waits, else WOULD_BLOCK with the peer asked to wake
    // the socket.
    status_t receiveNow(Frame* out) TV_REQUIRES(mReceiveLock);
    // Briefly, for more of the large body being read; see kBodyCatchUp.
    bool awaitMoreOfBody(shm::ShmChannel::Clock::time_point* end) TV_REQUIRES(mReceiveLock);
    // The next frame of the ring (or the socket frame it stands for).
    status_t takeFrame(Frame* out) TV_REQUIRES(mReceiveLock);
    status_t takeSocketFrame(Frame* out) TV_REQUIRES(mReceiveLock);
    // One message of the ring into `sink`; a broken rule, logged as
    // `breach`, ends the channel.
    status_t takeMessage(shm::MessageSink* sink, size_t* length, const char* breach)
        TV_REQUIRES(mReceiveLock);
    // The header of a large frame: charges its body and readies mLargeBody.
    status_t startLargeBody(const FrameHeader& header) TV_REQUIRES(mReceiveLock);
    status_t takeLargeBody(Frame* out) TV_REQUIRES(mReceiveLock);
    // Consumes WAKE frames at the head of the socket. DEAD_OBJECT when the
    // peer hung up (the ring is shut down then); *frameFirst when a frame
    // waits there before its marker.
    status_t skipWakeUps(bool* frameFirst) TV_REQUIRES(mReceiveLock);
    status_t corrupted(status_t status);

    std::unique_ptr<shm::ShmChannel> mRing;
    SocketChannel& mSocket;
    const int mFd;
    const pid_t mPeerPid;
    const unsigned mGeneration;
    std::function<void()> mOnWidening;
    Mutex mSendLock{LockRank::kChannelSend};
    Mutex mReceiveLock{LockRank::kChannelReceive};
    // Inline frames; larger messages here are a broken rule.
    shm::BufferSink mSink TV_GUARDED_BY(mReceiveLock){kMaxInlineFrame};
    // The large body being read, its header having come: kept from one
    // receive to the next while it streams in.
    class LargeBody final : public shm::MessageSink {
      public:
        bool active() const { return mActive; }
        // Expects the body `header` announces; `charge` paid for it. Without
        // a charge (the share is spent) or memory, the body is skipped.
        void start(const FrameHeader& header, BodyCharge charge, bool kept);
        bool accept(size_t) override { return mData != nullptr; }
        uint8_t* reserve(size_t length) override;
        // The frame once its body is in: NO_MEMORY (header only) when skipped.
        status_t finish(Frame* out);

      private:
        struct Free {
            void operator()(uint8_t* data) const { free(data); }
        };
        bool mActive = false;
        FrameHeader mHeader{};
        BodyCharge mCharge;
        std::unique_ptr<uint8_t, Free> mData;
    };
    LargeBody mLargeBody TV_GUARDED_BY(mReceiveLock);
};

}  // namespace tvbinder
}  // namespace android
