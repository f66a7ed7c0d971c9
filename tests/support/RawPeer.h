#pragma once

#include <binder/IBinder.h>
#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <vector>

#include "wire/FlatObject.h"
#include "wire/Frame.h"

// A peer of the binder transport that speaks the wire protocol by hand, to
// send what a well-behaved process never would. Shared by the tests and the
// attack benchmark.
namespace tvraw {

using Bytes = std::vector<uint8_t>;
using android::tvbinder::FlatObject;
using android::tvbinder::FrameHeader;
using android::tvbinder::FrameKind;

// A socket to a process's endpoint.
class RawConnection {
  public:
    explicit RawConnection(uint64_t endpoint);
    // Speaks on `fd`, one end of a socket pair, which it then owns.
    struct Adopt {
        int fd;
    };
    explicit RawConnection(Adopt socket) : connected(true), mFd(socket.fd) {}
    ~RawConnection();
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    bool connected = false;

    void send(const void* bytes, size_t size, const std::vector<int>& fds = {});
    void sendFrame(FrameHeader header, const Bytes& body = {}, const std::vector<int>& fds = {});
    void hello(uint64_t endpoint, uint32_t flags = 0);
    // True when the peer closed the connection (within a generous bound).
    bool closedByPeer(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        FrameHeader ignored;
        return receive(&ignored, timeout) == 0;
    }
    // True when the peer closed the connection within `timeout`, whatever it sent before.
    bool endsWithin(std::chrono::milliseconds timeout);
    // The size of the next frame (its header in *header), 0 at end, -1 on timeout.
    ssize_t receive(FrameHeader* header,
                    std::chrono::milliseconds timeout = std::chrono::seconds(20));

    static FrameHeader makeHeader(FrameKind kind);

  private:
    int mFd = -1;
};

uint64_t endpointOf(const android::sp<android::IBinder>& binder);
// This process's endpoint; its transport must be running.
uint64_t ownEndpoint();
FrameHeader transactionTo(const android::sp<android::IBinder>& binder, uint32_t code);

// Sets up `header` to carry `prefix` (a multiple of 4 bytes) then `records`;
// the body to send with it.
Bytes carrying(FrameHeader* header, const std::vector<FlatObject>& records,
               const Bytes& prefix = {});
// A sealed memfd of `size` bytes that starts with `contents`; -1 on failure.
int sealedMemfd(const Bytes& contents, size_t size);

// Listens at the address of a made-up endpoint without ever accepting, its
// backlog full: connecting there would wait.
class FullBacklog {
  public:
    FullBacklog();
    ~FullBacklog();
    FullBacklog(const FullBacklog&) = delete;
    FullBacklog& operator=(const FullBacklog&) = delete;

    const uint64_t endpoint;
    bool full = false;

  private:
    int mListener = -1;
    std::vector<int> mWaiting;
};

}  // namespace tvraw
