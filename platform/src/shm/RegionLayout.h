#pragma once

// The shared region of one connection, as both processes see it. Everything
// here is written by one side and read by the other, so a reader copies a
// value out once and checks the copy; nothing is trusted for longer.
//
//   offset 0                 RegionHeader (written once by the creator)
//   kControlOffset           DirectionControl for direction 0 (creator -> adopter)
//   + sizeof(DirectionControl) DirectionControl for direction 1 (adopter -> creator)
//   kDataOffset              ring data of direction 0, ringBytes
//   kDataOffset + ringBytes  ring data of direction 1, ringBytes

#include <stddef.h>
#include <stdint.h>
#include <utils/Errors.h>

#include <atomic>

namespace android {
namespace tvbinder {
namespace shm {

// The peer broke the ring's rules (an impossible index, a record that
// overruns, a length beyond the limits). Latched: the caller closes the
// connection, and only that one.
constexpr status_t kPeerCorrupted = BAD_VALUE;

constexpr uint32_t kRegionMagic = 0x48535654;  // "TVSH"
constexpr uint32_t kRegionVersion = 1;
constexpr size_t kCacheLine = 128;  // two lines: the adjacent-line prefetcher pairs them
constexpr size_t kControlOffset = kCacheLine;
constexpr size_t kDataOffset = 4096;
constexpr size_t kMinRingBytes = 4096;
constexpr size_t kMaxRingBytes = size_t{16} << 20;

struct RegionHeader {
    uint32_t magic;
    uint32_t version;
    uint32_t ringBytes;  // per direction, a power of two
    uint32_t reserved;
};

// What a consumer (or a producer waiting for space) is doing: the futex word.
// Only its owner stores kRunning, kSleeping and kPolling; the other side only
// turns kSleeping or kPolling into kWoken.
enum WaiterState : uint32_t {
    kRunning = 0,   // awake: it checks the ring before it sleeps again
    kSleeping = 1,  // in (or entering) a futex wait on this word
    kPolling = 2,   // a pool waits in epoll on the consumer's eventfd
    kWoken = 3,     // the other side woke it; it has not run since
};

static_assert(std::atomic<uint64_t>::is_always_lock_free, "shared indexes need lock-free atomics");
static_assert(std::atomic<uint32_t>::is_always_lock_free, "futex words need lock-free atomics");
static_assert(sizeof(std::atomic<uint32_t>) == 4, "a futex word is 32 bits");

// The indexes and futex words of one direction. Indexes count bytes since
// the start and never wrap in practice (64 bits); position = index % ringBytes.
// Each word sits on lines of its own so that the two sides do not share a
// line they both write.
struct DirectionControl {
    alignas(kCacheLine) std::atomic<uint64_t> tail;      // producer: end of published records
    alignas(kCacheLine) std::atomic<uint64_t> head;      // consumer: end of consumed records
    alignas(kCacheLine) std::atomic<uint32_t> consumer;  // WaiterState of the consumer
    std::atomic<uint32_t> consumerCpu;  // currentCpu() where it last woke up: a hint
    std::atomic<uint32_t> closed;       // consumer: non-zero once it reads no more
    alignas(kCacheLine) std::atomic<uint32_t> producer;  // WaiterState of a producer out of space
};

static_assert(kControlOffset + 2 * sizeof(DirectionControl) <= kDataOffset, "controls fit");

// Every record starts with this, 8-aligned; a message is one record or more.
struct RecordHeader {
    uint32_t payload;    // bytes of message in this record
    uint32_t remaining;  // bytes of the message from this record on, this one's included
};
constexpr size_t kRecordAlign = 8;
// `remaining` of a record that only skips to the end of the ring (its payload
// being the bytes up to there): the producer starts again at the front of an
// empty ring, so that small messages keep to the first pages.
constexpr uint32_t kSkipToWrap = UINT32_MAX;
static_assert(sizeof(RecordHeader) == kRecordAlign, "headers never straddle the wrap");

constexpr size_t regionBytes(size_t ringBytes) {
    return kDataOffset + 2 * ringBytes;
}

constexpr size_t alignRecord(size_t bytes) {
    return (bytes + kRecordAlign - 1) & ~(kRecordAlign - 1);
}

}  // namespace shm
}  // namespace tvbinder
}  // namespace android
