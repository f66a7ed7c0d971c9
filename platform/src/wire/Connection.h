#pragma once

#include <stdint.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <utils/RefBase.h>

#include <atomic>
#include <string>

#include "base/EventSource.h"
#include "base/TransportFds.h"
#include "wire/Frame.h"
#include "wire/PeerAccounts.h"

namespace android {
namespace tvbinder {

class Peer;

// Frames a receiveWaiting() call takes at most.
constexpr size_t kReceiveBatch = 16;

// One SOCK_SEQPACKET connection between two processes. The initiator starts
// transactions on it and reads their replies itself; the acceptor sends only
// replies and the nested transactions of threads serving the initiator.
class Connection : public RefBase, public EventSource {
  public:
    // Connects to the socket file `address`, waiting up to `timeoutMs` (0:
    // not at all) while the listener's backlog is full; null on failure, with
    // the errno in *error (EAGAIN when the wait ran out).
    static sp<Connection> connectTo(const std::string& address, int* error,
                                    int timeoutMs = kConnectTimeoutMs);
    static constexpr int kConnectTimeoutMs = 5000;
    // Wraps a descriptor returned by accept4.
    static sp<Connection> adoptAccepted(int fd);
    // True when nothing listens on `address` any more. Never blocks.
    static bool refusesConnections(const std::string& address);

    int fd() const { return mFd.get(); }
    // The peer's credentials as the kernel saw them when the connection was made.
    pid_t peerPid() const { return mPeerPid; }
    uid_t peerUid() const { return mPeerUid; }

    // True when the other end runs as this process's user or as root:
    // other users' processes are neither served nor trusted.
    bool peerIsTrustedUser() const;

    // The process at the other end; set once its endpoint is known.
    const sp<Peer>& peer() const { return mPeer; }
    void setPeer(const sp<Peer>& peer);
    // An accepted connection's share of its process's account, which large
    // bodies are charged to before they are read; null on outgoing ones.
    const sp<PeerAccount>& account() const { return mAccount; }
    void setAccount(const sp<PeerAccount>& account) { mAccount = account; }
    // Makes it one of its process's links, within the process's share.
    bool takeLinkShare();
    // True for the peer's one-way link: one that took a link share.
    bool isLink() const { return mHoldsLinkShare.load(); }

    // Sends one frame, waiting up to `waitMs` for socket space: WOULD_BLOCK
    // when the receiver does not drain it. DEAD_OBJECT when the peer closed
    // the connection.
    status_t send(const OutgoingFrame& frame, int waitMs = kSendTimeoutMs);
    static constexpr int kSendTimeoutMs = 2000;
    // For what answers a peer's request (replies, HELLO answers, chain
    // notes): a caller that waits for its answer has room for it, so a full
    // socket is a peer that does not read, and no pool thread waits on it.
    static constexpr int kAnswerWaitMs = 5;
    // Receives one frame: DEAD_OBJECT at end of stream, WOULD_BLOCK when
    // nothing is waiting and `block` is false, BAD_VALUE for a frame that is
    // malformed at the transport level (it is dropped with its descriptors).
    status_t receive(Frame* out, bool block);
    // Receives, in one system call, up to `max` (at most kReceiveBatch)
    // frames that are already waiting, without blocking. Returns how many
    // entries of `out` and `statuses` were filled: each status is what
    // receive() would have said for that frame; 0 when nothing is waiting.
    // Both give NO_MEMORY for a body beyond the sender's share (dropped).
    size_t receiveWaiting(Frame* out, status_t* statuses, size_t max);

    // Set once the connection must not be used again.
    void markBroken() { mBroken.store(true, std::memory_order_release); }
    bool broken() const { return mBroken.load(std::memory_order_acquire); }

    // An accepted connection passes from pool thread to pool thread through
    // epoll (one-shot). The kernel orders that handoff; these make it visible
    // to the language's memory model (and to race checkers) as well.
    void handOff() { mHandoff.fetch_add(1, std::memory_order_release); }
    void takeOver() const { mHandoff.load(std::memory_order_acquire); }

    // State of an accepted connection, used by the thread that holds it.
    bool helloDone = false;
    bool answersHello = false;  // accepted on the context manager's address

    // One-way accounting of a link, in oneWayCost() units. The sender counts
    // what it sent and what the receiver acknowledged; the receiver what it
    // received, what ran, and what it acknowledged.
    std::atomic<uint64_t> oneWaySent{0};
    std::atomic<uint64_t> oneWayReceived{0};
    std::atomic<uint64_t> oneWayConsumed{0};
    std::atomic<uint64_t> oneWayAcked{0};
    std::atomic<bool> ackWanted{false};
    // Set on this process's own link to a peer.
    bool isOutgoingLink = false;

  private:
    explicit Connection(int fd);
    ~Connection() override;
    // Turns a received message of `n` bytes into a frame.
    status_t parse(const msghdr& message, size_t n, const uint8_t* buffer, Frame* out);
    status_t readMemfdBody(int memfd, Frame* out);

    ScopedFd mFd;
    pid_t mPeerPid = 0;
    uid_t mPeerUid = 0;
    sp<Peer> mPeer;
    sp<PeerAccount> mAccount;
    std::atomic<bool> mHoldsLinkShare{false};
    std::atomic<bool> mBroken{false};
    std::atomic<uint32_t> mHandoff{0};
};

// "<socket directory>/ep-<16 hex digits>": where a process listens.
std::string endpointAddress(uint64_t endpoint);
// "<socket directory>/ctx-<context>", or "" for a context name that is not a
// plain file name.
std::string contextAddress(const std::string& context);

}  // namespace tvbinder
}  // namespace android
