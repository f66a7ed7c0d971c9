#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <utils/RefBase.h>

#include "wire/FrameChannel.h"
#include "wire/PeerAccounts.h"

namespace android {
namespace tvbinder {

// The socket path: each frame is one SOCK_SEQPACKET message (header, data,
// object offsets; descriptors by SCM_RIGHTS), or, when larger than a message
// may be, the header alone with data and offsets in a sealed memfd. Parses
// and bounds what it receives; a memfd body is charged to the sender's
// account, if any, before it is copied. Member of its Connection, which owns
// the socket.
class SocketChannel final : public FrameChannel {
  public:
    SocketChannel(int fd, pid_t peerPid) : mFd(fd), mPeerPid(peerPid) {}

    // Large bodies received from now on are charged to `account`. Set before
    // the first frame is read.
    void chargeBodiesTo(const sp<PeerAccount>& account) { mAccount = account; }
    // Charges a large body of `bytes` to the sender's share, into `charge`
    // (left empty when bodies are charged nowhere): false, and logged, when
    // it is beyond the share. For the shared-memory path's bodies too.
    [[nodiscard]] bool chargeBody(size_t bytes, BodyCharge* charge);

    [[nodiscard]] status_t send(const OutgoingFrame& frame, int waitMs) override;
    [[nodiscard]] status_t receive(Frame* out, bool block) override;
    size_t receiveWaiting(Frame* out, status_t* statuses, size_t max) override;
    [[nodiscard]] bool waitReadable(int timeoutMs) override;
    int readableFd() const override { return mFd; }

  private:
    // Turns a received message of `n` bytes into a frame.
    [[nodiscard]] status_t parse(const msghdr& message, size_t n, const uint8_t* buffer,
                                 Frame* out);
    [[nodiscard]] status_t readMemfdBody(int memfd, Frame* out);

    const int mFd;
    const pid_t mPeerPid;
    sp<PeerAccount> mAccount;
};

}  // namespace tvbinder
}  // namespace android
