#pragma once

#include <stddef.h>
#include <utils/Errors.h>

#include "wire/Frame.h"

namespace android {
namespace tvbinder {

// Frames a receiveWaiting() call takes at most.
constexpr size_t kReceiveBatch = 16;

// The path frames take on one connection: sending one, receiving one or a
// batch, and waiting for one. SocketChannel sends each frame as one message
// of the connection's socket; another path (shared memory, say) can sit
// beside it behind this interface, the socket staying for credentials,
// hang-ups and as the fallback. Owned by its Connection; any thread, though
// only one thread receives at a time.
class FrameChannel {
  public:
    virtual ~FrameChannel() = default;

    // Sends one frame, waiting up to `waitMs` for room: WOULD_BLOCK when the
    // receiver does not drain it, DEAD_OBJECT when the peer closed the
    // connection, BAD_VALUE for a frame beyond the limits.
    [[nodiscard]] virtual status_t send(const OutgoingFrame& frame, int waitMs) = 0;
    // Receives one frame: DEAD_OBJECT at the end, WOULD_BLOCK when nothing is
    // waiting and `block` is false, BAD_VALUE for a frame that is malformed
    // at the transport level (dropped with its descriptors), NO_MEMORY for a
    // body beyond the sender's share (dropped).
    [[nodiscard]] virtual status_t receive(Frame* out, bool block) = 0;
    // Receives up to `max` (at most kReceiveBatch) frames that are already
    // waiting, without blocking. Returns how many entries of `out` and
    // `statuses` were filled, each status being what receive() would have
    // said for that frame; 0 when nothing is waiting.
    virtual size_t receiveWaiting(Frame* out, status_t* statuses, size_t max) = 0;
    // True once a frame waits (or the channel ended) within `timeoutMs`.
    [[nodiscard]] virtual bool waitReadable(int timeoutMs) = 0;
    // A descriptor that polls readable while a frame waits: for waiting on
    // the channel beside other descriptors.
    virtual int readableFd() const = 0;
};

}  // namespace tvbinder
}  // namespace android
