#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <utils/Errors.h>

#include <memory>
#include <vector>

#include "base/Token.h"
#include "wire/FlatObject.h"
#include "wire/PeerAccounts.h"

namespace android {
namespace tvbinder {

// One message on a connection. Small frames are a single SOCK_SEQPACKET
// message: header, data, then the offsets of the embedded object records.
// Larger ones carry only the header; data and offsets follow in a sealed
// memfd passed as the frame's first descriptor, or, on a shared-memory
// connection, as the ring's next message.
enum class FrameKind : uint32_t {
    kHello = 1,          // argument: sender's endpoint
    kHelloAnswer = 2,    // argument: sender's endpoint (context listener only)
    kTransaction = 3,    // token: target; code, flags; body: the data
    kReply = 4,          // status; body: the reply data
    kRelease = 5,        // token: object; argument: how many references
    kGrant = 6,          // token: object; argument: endpoint that is to hold it
    kAck = 7,            // argument: one-way bytes consumed on this link so far
    kAckRequest = 8,     // the sender's budget is spent: acknowledge now
    kChainExtended = 9,  // to a waiting caller: its chain reaches a third process
    // Shared-memory connections only, never seen above the channel:
    kOnSocket = 10,  // in the ring: the next frame is the one waiting on the socket
    kWake = 11,      // on the socket: look at the ring
};

struct FrameHeader {
    uint32_t magic;
    uint32_t kind;
    uint32_t code;
    uint32_t flags;
    int32_t status;
    uint32_t layout;  // kLayout* bits
    uint32_t dataSize;
    uint32_t objectCount;
    uint64_t tokenHi;
    uint64_t tokenLo;
    uint64_t argument;
};
static_assert(sizeof(FrameHeader) == 56, "FrameHeader is a fixed wire record");

constexpr uint32_t kFrameMagic = 0x74766231;  // "tvb1"
constexpr uint32_t kLayoutBodyInMemfd = 1;
// Shared-memory connections: data and offsets follow as the ring's next message.
constexpr uint32_t kLayoutBodyInRing = 2;
// HELLO flag: the connection will carry only one-ways and releases.
constexpr uint32_t kHelloLink = 1;
// TRANSACTION flag: a one-way (IBinder::FLAG_ONEWAY).
constexpr uint32_t kFlagOneWay = 0x01;

constexpr size_t kMaxInlineFrame = 64 * 1024;
constexpr size_t kMaxTransactionSize = 16 * 1024 * 1024;
// SCM_MAX_FD is 253; a large frame spends one on its memfd.
constexpr size_t kMaxFdsPerFrame = 253;
constexpr size_t kMaxFdObjects = kMaxFdsPerFrame - 1;
// Embedded objects per frame: each costs the receiver a proxy, far more than
// its record, so their number is bounded apart from the size.
constexpr size_t kMaxObjectsPerFrame = 32768;

// One-ways queued for one link at the receiver: the driver's share of its
// buffer for asynchronous work. Sender and receiver count each one-way the
// same way; a one-way is admitted while the backlog is empty or stays within
// the budget with it.
constexpr uint64_t kOneWayBudget = 512 * 1024;
// A descriptor waiting in a queued one-way costs as much as this many bytes:
// queued one-ways hold descriptors of the receiving process.
constexpr uint64_t kOneWayFdCost = 4096;
constexpr uint64_t oneWayCost(uint32_t dataSize, size_t fdCount) {
    return uint64_t{dataSize} + 64 + fdCount * kOneWayFdCost;
}
constexpr bool fitsOneWayBudget(uint64_t backlog, uint64_t cost) {
    return backlog == 0 || backlog + cost <= kOneWayBudget;
}
// The receiver tells the sender what it consumed at least this often.
constexpr uint64_t kAckInterval = kOneWayBudget / 8;

inline size_t frameBodySize(const FrameHeader& header) {
    return size_t{header.dataSize} + size_t{header.objectCount} * sizeof(uint32_t);
}

// A frame as received. Owns its data and descriptors until they are handed
// on; movable, so that a call can be handed to another thread with them.
class Frame {
  public:
    Frame() = default;
    Frame(Frame&& other) noexcept = default;
    Frame& operator=(Frame&&) = delete;
    ~Frame();

    FrameKind kind() const { return static_cast<FrameKind>(header.kind); }
    Token token() const { return Token{header.tokenHi, header.tokenLo}; }
    bool isOneWay() const { return (header.flags & kFlagOneWay) != 0; }
    const uint8_t* data() const { return mData.get(); }
    // The object record at `offset` of the data (validate() checked it is there).
    FlatObject recordAt(uint32_t offset) const;
    // The descriptors received with the frame, in order.
    const std::vector<int>& fds() const { return mFds; }

    // Room for the data: `size` bytes, or null when memory ran out.
    uint8_t* allocateData(size_t size);
    // Takes `data` (from malloc) as the data.
    void adoptData(uint8_t* data) { mData.reset(data); }
    void addFd(int fd) { mFds.push_back(fd); }
    // Takes the first descriptor (a large body's memfd) out of the frame.
    int takeFirstFd();
    // Gives up the data buffer (malloc) to the caller, who frees it.
    uint8_t* releaseData() { return mData.release(); }
    // Gives up the descriptors to the caller, who closes them.
    std::vector<int> releaseFds();

    // Checks everything that does not need the process's tables: header
    // fields for the kind, object offsets (ascending, 4-aligned, in bounds,
    // not overlapping), record types and that the descriptor records match
    // the descriptors received one for one.
    [[nodiscard]] status_t validate() const;

    // Whether a received header is within the transport's limits, before
    // anything is allocated for it; `layouts`: the layout bits allowed.
    [[nodiscard]] bool headerWithinLimits(uint32_t layouts) const;
    // Fills data and offsets from the `size` bytes that followed the header:
    // BAD_VALUE unless they are exactly the body the header announces.
    [[nodiscard]] status_t copyInlineBody(const uint8_t* body, size_t size);

    FrameHeader header{};
    std::vector<uint32_t> offsets;
    // A body that came in a memfd counts against its sender's share until
    // the frame goes.
    BodyCharge charge;

  private:
    struct Free {
        void operator()(uint8_t* data) const { free(data); }
    };
    std::unique_ptr<uint8_t, Free> mData;
    std::vector<int> mFds;
};

// A frame to send; points into memory the sender keeps alive.
struct OutgoingFrame {
    FrameHeader header{};
    const uint8_t* data = nullptr;
    std::vector<uint32_t> offsets;
    std::vector<int> fds;

    static OutgoingFrame make(FrameKind kind);
    // Whether it is within what a receiver accepts (sizes, objects, descriptors).
    bool withinLimits() const;
};

}  // namespace tvbinder
}  // namespace android
