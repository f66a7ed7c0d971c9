#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>
#include <utils/Errors.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

#include "Futex.h"
#include "MessageSink.h"
#include "RingReader.h"
#include "RingWriter.h"
#include "ShmRegion.h"

namespace android {
namespace tvbinder {
namespace shm {

struct ShmChannelOptions {
    // Per direction; the adopter takes the creator's. Pages become resident
    // only when touched: small messages keep to the first 64 KiB, and only a
    // large body makes more of the ring resident (see sweep()).
    size_t ringBytes = 2 << 20;
    // Longest message this end accepts; longer ones count as corruption.
    size_t maxMessage = (size_t{16} << 20) + 64 * 1024;
    // How long a wait may spin before sleeping, and only while the peer runs.
    std::chrono::nanoseconds spin = std::chrono::microseconds(5);
    // The longest single futex sleep. Wake-ups do not depend on it; it bounds
    // what a peer that scribbles on our futex word can delay a shutdown() by.
    std::chrono::nanoseconds sleepSlice = std::chrono::milliseconds(250);
    // A message streamed half-way waits at least this long for each bit of
    // room, whatever the send's own wait: a reader that was only
    // descheduled for a moment must not cost the connection.
    std::chrono::nanoseconds streamPatience = std::chrono::milliseconds(0);
    // How long a streamed message may take in all, however it moves: a
    // reader that trickles cannot hold the sender for longer.
    std::chrono::nanoseconds streamLimit = std::chrono::seconds(10);
};

// One process's end of a connection's shared-memory data path: a ring out
// and a ring in over one sealed region. Messages of any length up to the
// maximum: one that fits the ring is written whole or not at all, a longer
// one streams through it in records while the reader copies them out. Each
// byte is copied once by each side: in by the sender, out by the receiver.
//
// Waiting never spends CPU beyond the bounded spin, or one yield to a peer
// awake on our CPU: a thread that waits sleeps on the direction's futex word
// (with a time-out), and a pool that waits in epoll gets the poll waker called
// instead (see armPolling). The socket layer that notices hang-ups and deaths
// calls shutdown(), which wakes every waiter.
//
// Owned by the connection it belongs to, which keeps it alive while any
// thread uses it. One thread at a time sends and one thread at a time receives
// (the connection serialises each); shutdown() and broken() from any thread.
class ShmChannel {
  public:
    using Clock = std::chrono::steady_clock;
    // Asks the peer's pool to look at the ring: it waits in epoll, not on the futex.
    using PollWaker = std::function<void()>;

    static status_t create(const ShmChannelOptions& options, std::unique_ptr<ShmChannel>* out);
    // Takes ownership of `regionFd`, received from the creator; see ShmRegion::adopt.
    static status_t adopt(int regionFd, const ShmChannelOptions& options,
                          std::unique_ptr<ShmChannel>* out);
    ~ShmChannel();

    // The region's memfd, for the creator to send to the peer at set-up.
    int regionFd() const { return mRegion->fd(); }
    // Closes the region's memfd once sent (creator) or right after adopt():
    // the mapping stays. Before the channel is shared between threads.
    void closeRegionFd() { mRegion->closeFd(); }
    size_t ringBytes() const { return mRegion->ringBytes(); }

    // Sends one message made of `parts`. Waits for room until `deadline`; a
    // message that fits the ring times out cleanly (nothing written), a longer
    // one that stalls half-way breaks the channel: it waits until `deadline`
    // for room, and as long again (or the stream patience, if longer) after
    // each record it got in. TIMED_OUT, DEAD_OBJECT after
    // either end's shutdown, kPeerCorrupted, BAD_VALUE for an empty or
    // oversized message.
    status_t send(const iovec* parts, size_t count, Clock::time_point deadline);
    // Sends `head`, a message that fits the ring, and right behind it the
    // message made of `parts`, published together with the first record of
    // it: nothing is written unless both fit, or, for a longer second one,
    // the first and a record of it. Then as send(), except that for a peer on
    // another CPU a second message of 32 KiB or more goes in records of
    // 16 KiB, which the peer copies out while the next go in.
    status_t sendHeaded(const iovec& head, const iovec* parts, size_t count,
                        Clock::time_point deadline);
    // Receives one message into `sink` (see RingReader::read), waiting until
    // `deadline`. A message begun when the wait times out is kept; continue it
    // with the same sink.
    status_t receive(MessageSink* sink, size_t* length, Clock::time_point deadline);
    // receive() without waiting: WOULD_BLOCK when no whole message is there.
    status_t tryReceive(MessageSink* sink, size_t* length);
    // Waits until published bytes wait to be read, without reading them:
    // NO_ERROR, TIMED_OUT, or DEAD_OBJECT after shutdown.
    status_t waitReadable(Clock::time_point deadline);
    // The same with no timer, until another thread of this process stops
    // it (TIMED_OUT then).
    status_t waitReadable(SleepStop& stop);
    // Whether published bytes wait to be read (unchecked: a hint).
    bool hasData() const { return mReader.hasData(); }

    // For a pool that waits in epoll: what the sender calls when it finds the
    // receiver polling (for example a kick on the connection's socket, sent
    // with MSG_DONTWAIT so that a peer cannot make it block).
    void setPollWaker(PollWaker waker) { mPollWaker = std::move(waker); }
    // Before the pool goes back to epoll: marks this end as polling. True when
    // data arrived meanwhile; then read it now, since no wake-up will come.
    bool armPolling();

    // True once when a send made the outgoing ring reach beyond its first
    // 64 KiB, which small messages keep to: call sweep() from then on.
    bool takeWidening();
    // Every second or so after takeWidening(): gives back the pages of the
    // outgoing ring beyond its first 64 KiB once it is empty and no send
    // reached them since the previous sweep (the next large message makes
    // them resident again: too dear to do after every one). False once there
    // is nothing to give back. Called by the sender's side (not while another
    // thread sends).
    bool sweep();

    // Wakes every thread waiting on this end; later calls fail with
    // DEAD_OBJECT, and so do the peer's sends from then on.
    void shutdown();
    bool broken() const { return mBroken.load(std::memory_order_acquire); }

  private:
    ShmChannel(std::unique_ptr<ShmRegion> region, int outgoing, const ShmChannelOptions& options);

    void rewindIfEmpty(size_t bytes);
    bool empty();
    status_t checkSendable(size_t length) const;
    status_t sendWhole(GatherCursor* source, size_t length, Clock::time_point deadline);
    Clock::duration patienceTill(Clock::time_point deadline) const;
    // Records of at most `maxRecord` bytes of payload.
    status_t sendStreamed(GatherCursor* source, Clock::time_point deadline,
                          Clock::duration patience, size_t maxRecord);
    status_t waitForRoom(size_t bytes, Clock::time_point deadline);
    void publishAndWake();
    // Waits until ready() on the futex word `own`, until `deadline`, or with
    // no timer until `stop` when there is one; a receiver also publishes the
    // CPU it wakes up on in `ownCpu`, for the peer's spinning and yielding.
    template <typename Ready>
    status_t waitFor(std::atomic<uint32_t>* own, std::atomic<uint32_t>* ownCpu, Ready ready,
                     Clock::time_point deadline, SleepStop* stop = nullptr);
    bool sharesCpuWithPeer();
    template <typename Ready>
    bool spinFor(Ready ready);
    // `payoff` when the wait is for the peer's next message (see YieldPayoff).
    template <typename Ready>
    bool yieldFor(Ready ready, YieldPayoff* payoff);
    status_t breakWith(status_t status);

    const std::unique_ptr<ShmRegion> mRegion;
    RingWriter mWriter;
    RingReader mReader;
    const int mOutgoing;  // the direction this end writes
    const size_t mMaxMessage;
    const std::chrono::nanoseconds mSpin;
    const std::chrono::nanoseconds mSleepSlice;
    const std::chrono::nanoseconds mStreamPatience;
    const std::chrono::nanoseconds mStreamLimit;
    PollWaker mPollWaker;
    YieldPayoff mReceiveYields;  // the receiving thread's
    bool mWide = false;          // the sender's: pages beyond the front may be resident
    std::atomic<bool> mShutdown{false};
    std::atomic<bool> mBroken{false};
};

}  // namespace shm
}  // namespace tvbinder
}  // namespace android
