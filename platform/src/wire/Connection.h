#pragma once

#include <stdint.h>
#include <sys/types.h>
#include <utils/RefBase.h>

#include <atomic>
#include <memory>
#include <string>

#include "base/TransportFds.h"
#include "wire/FrameChannel.h"
#include "wire/PeerAccounts.h"
#include "wire/ShmFrameChannel.h"
#include "wire/SocketChannel.h"

namespace android {
namespace tvbinder {

// One SOCK_SEQPACKET connection between two processes: its socket, the
// credentials the kernel gave for the process at the other end, and the path
// its frames take (FrameChannel): the socket itself, or memory the two
// processes share (ShmFrameChannel), set up with HELLO. Knows nothing of what
// travels on it: the peer it speaks to and what it is for are its owner's
// business. Held by whoever uses it; any thread.
class Connection : public RefBase {
  public:
    static constexpr int kConnectTimeoutMs = 5000;
    static constexpr int kSendTimeoutMs = 2000;
    // For what answers a peer's request (replies, HELLO answers, chain
    // notes): a caller that waits for its answer has room for it, so a full
    // socket is a peer that does not read, and no pool thread waits on it.
    static constexpr int kAnswerWaitMs = 5;

    struct Connected {
        sp<Connection> connection;  // null on failure
        int error = 0;              // the errno; EAGAIN when the wait ran out
    };
    // Connects to the socket file `address`, waiting up to `timeoutMs` (0:
    // not at all) while the listener's backlog is full.
    [[nodiscard]] static Connected connectTo(const std::string& address,
                                             int timeoutMs = kConnectTimeoutMs);
    // Wraps a descriptor returned by accept4 (or one end of a socket pair).
    static sp<Connection> adopt(int fd);
    // True when nothing listens on `address` any more. Never blocks.
    static bool refusesConnections(const std::string& address);

    int fd() const { return mFd.get(); }
    // The peer's credentials as the kernel saw them when the connection was made.
    pid_t peerPid() const { return mPeerPid; }
    uid_t peerUid() const { return mPeerUid; }
    // True when the other end runs as this process's user or as root:
    // other users' processes are neither served nor trusted.
    bool peerIsTrustedUser() const;

    // Large bodies received from now on are charged to `account` (an
    // accepted connection's process). Set before the first frame is read.
    void chargeBodiesTo(const sp<PeerAccount>& account) { mSocket.chargeBodiesTo(account); }

    // Told when the memory a connection shares grew beyond what small frames
    // use: it calls sweepSharedMemory() every second or so from then on,
    // until that says false. Called from a send, under the channel's send
    // lock: must not wait.
    class RingSweeper {
      public:
        virtual void sweepLater(const wp<Connection>& connection) = 0;

      protected:
        virtual ~RingSweeper() = default;
    };

    // The connecting side, before its HELLO: a region for the peer to adopt,
    // to send with the HELLO; -1 when frames keep to the socket.
    int offerSharedMemory(RingSweeper& sweeper);
    // Once the HELLO with the region went: frames take it from now on.
    void startSharedMemory();
    // The accepting side: the region received with the HELLO (taken, and
    // closed in any case). BAD_VALUE when it is not a valid region.
    [[nodiscard]] status_t acceptSharedMemory(int regionFd, RingSweeper& sweeper);
    // These three before the connection is shared with another thread.

    // Gives back the shared memory an idle connection need not keep. Never
    // waits; true while worth sweeping again.
    [[nodiscard]] bool sweepSharedMemory() { return mShm != nullptr && mShm->sweepIdle(); }

    // Before the connection goes back to epoll: true when a frame came that
    // no wake-up of the socket will tell; read it now.
    [[nodiscard]] bool prepareToPoll() { return mShm != nullptr && mShm->prepareToPoll(); }

    [[nodiscard]] status_t send(const OutgoingFrame& frame, int waitMs = kSendTimeoutMs) {
        return mChannel->send(frame, waitMs);
    }
    [[nodiscard]] status_t receive(Frame* out, bool block) { return mChannel->receive(out, block); }
    size_t receiveWaiting(Frame* out, status_t* statuses, size_t max) {
        return mChannel->receiveWaiting(out, statuses, max);
    }
    [[nodiscard]] bool waitReadable(int timeoutMs) { return mChannel->waitReadable(timeoutMs); }
    // Shared memory only: waits for a frame with no timer until another
    // thread stops it; see ShmFrameChannel.
    bool waitsWithoutTimer() const { return mShm != nullptr; }
    [[nodiscard]] bool waitReadableUntil(shm::SleepStop& stop) {
        return mShm->waitReadableUntil(stop);
    }
    int readableFd() const { return mChannel->readableFd(); }

    // Set once the connection must not be used again.
    void markBroken() { mBroken.store(true, std::memory_order_release); }
    bool broken() const { return mBroken.load(std::memory_order_acquire); }
    // Shuts the socket (and the shared memory) down both ways: the peer, and
    // the thread that holds the connection's event, learn at once. Never blocks.
    void shutDown();

  private:
    Connection(ScopedFd fd, pid_t peerPid, uid_t peerUid);
    void reportWideningTo(RingSweeper& sweeper);

    ScopedFd mFd;
    const pid_t mPeerPid;
    const uid_t mPeerUid;
    std::atomic<bool> mBroken{false};
    SocketChannel mSocket;
    std::unique_ptr<ShmFrameChannel> mShm;
    FrameChannel* mChannel = &mSocket;
};

}  // namespace tvbinder
}  // namespace android
