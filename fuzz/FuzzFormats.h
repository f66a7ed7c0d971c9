#pragma once

// The input formats of the fuzz targets, shared with the seed writer.

#include <stdint.h>

namespace fuzz {

// FrameFuzzer: a mode byte of these bits, then the message.
namespace frame_mode {
constexpr uint8_t kBodyInMemfd = 1;  // the message is the header; the rest goes in a memfd
constexpr uint8_t kSealed = 2;       // seals that memfd as a sender must
constexpr uint8_t kBatch = 4;        // receives through receiveWaiting()
constexpr uint8_t kOversize = 8;     // pads the message past the largest inline frame
constexpr int kExtraFdsShift = 4;    // bits 4-6: descriptors of /dev/null sent along
}  // namespace frame_mode

// ParcelFuzzer: the Parcel's content as a chunk, then one step per byte.
enum ParcelStep : uint8_t {
    kReadInt32,
    kReadInt32To,
    kReadUint32To,
    kReadInt64To,
    kReadUint64,
    kReadFloatTo,
    kReadDouble,
    kReadBoolTo,
    kReadCString,
    kReadString8,
    kReadString16,
    kReadString16Inplace,
    kEnforceInterface,
    kRead,         // then a length byte
    kReadInplace,  // then a length byte
    kReadStrongBinder,
    kReadFileDescriptor,
    kReadBool,
    kParcelStepCount,     // other bytes choose a reader modulo this count
    kSetPosition = 0xfe,  // then a uint32, modulo the data size + 16, 4-aligned
    kCutData = 0xff,      // then a uint32, modulo the data size + 1
};

// CarrierFuzzer: a byte choosing the object, then transactions.
enum CarrierTarget : uint8_t {
    kServiceCarrier,
    kSubServiceCarrier,
    kReceiver,
    kCarrierTargetCount
};

// ShmRingFuzzer: one step per byte, modulo the count, each followed by its
// operands (little-endian). Steps of a lie end the check against what the
// honest writer sent.
enum ShmRingStep : uint8_t {
    kShmNewMessage,     // uint16 length - 1: an honest message, sent by kShmSendPart
    kShmSendPart,       // uint16 bytes at most: the honest writer's next record
    kShmRead,           // the reader reads
    kShmReadScribbled,  // then kShmScribble's operands, applied while the reader reserves
    kShmScribble,  // uint16 offset, uint16 payload, uint16 remaining (0xffff: a skip to the wrap):
                   // a header put there
    kShmSetTail,   // int16 distance from the published tail, or 0x7fff then a uint32
    kShmSetWords,  // uint32 for the consumer word, uint32 for the producer word
    kShmStepCount,
};

}  // namespace fuzz
