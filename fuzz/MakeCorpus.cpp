// Writes the seed inputs of every fuzz target: well-formed messages of each
// kind the targets take, from which the fuzzer starts.
//
//   build-fuzz/bin/fuzz_make_corpus fuzz/corpus

#include <sys/stat.h>

#include <string>

#include "FuzzFormats.h"
#include "FuzzSupport.h"
#include "FuzzValues.h"
#include "coupler/binder/service/ServiceCarrierCode.h"
#include "coupler/binder/sub-service/SubServiceCarrierCode.h"
#include "protocol/UniversalSerialization.h"
#include "wire/Frame.h"

namespace {

using android::Parcel;
using android::tvbinder::FlatObject;
using android::tvbinder::FrameHeader;
using android::tvbinder::FrameKind;
using fuzz::Bytes;
using tavrin_binder::ServiceCarrierCode;
using tavrin_binder::SubServiceCarrierCode;
using tavrin_binder::UniversalSerialization;

std::string gRoot;

class Seed {
  public:
    Seed& byte(uint8_t value) {
        bytes.push_back(value);
        return *this;
    }
    Seed& u32(uint32_t value) {
        for (int shift = 0; shift < 32; shift += 8) byte(uint8_t(value >> shift));
        return *this;
    }
    Seed& append(const Bytes& more) {
        bytes.insert(bytes.end(), more.begin(), more.end());
        return *this;
    }
    Seed& chunk(const Bytes& more) {
        byte(uint8_t(more.size()));
        byte(uint8_t(more.size() >> 8));
        return append(more);
    }
    void save(const std::string& target, const std::string& name) const {
        const std::string dir = gRoot + "/" + target;
        mkdir(dir.c_str(), 0755);
        FILE* file = fopen((dir + "/" + name).c_str(), "wb");
        FUZZ_CHECK(file != nullptr);
        FUZZ_CHECK(fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size());
        fclose(file);
    }

    Bytes bytes;
};

Bytes bytesOf(const Parcel& parcel) {
    return Bytes(parcel.data(), parcel.data() + parcel.dataSize());
}

void writeRecord(Parcel& parcel, uint32_t type) {
    FlatObject record{};
    record.type = type;
    if (type == FlatObject::kTypeBinder) record.endpoint = record.tokenLo = 1;
    parcel.write(&record, sizeof(record));
}

// ---- FrameFuzzer: mode byte, then the message.

Bytes frame(FrameKind kind, const Bytes& data, const std::vector<uint32_t>& offsets,
            uint32_t layout = 0) {
    FrameHeader header{};
    header.magic = android::tvbinder::kFrameMagic;
    header.kind = uint32_t(kind);
    header.code = 2;
    header.layout = layout;
    header.dataSize = uint32_t(data.size());
    header.objectCount = uint32_t(offsets.size());
    header.tokenHi = 0x1234;
    header.tokenLo = 0x5678;
    header.argument = 0x9abc;
    Bytes out(sizeof(header));
    memcpy(out.data(), &header, sizeof(header));
    out.insert(out.end(), data.begin(), data.end());
    const auto* raw = reinterpret_cast<const uint8_t*>(offsets.data());
    out.insert(out.end(), raw, raw + offsets.size() * sizeof(uint32_t));
    return out;
}

void frameSeeds() {
    Parcel body;
    body.writeInt32(7);
    body.writeCString("hello");
    writeRecord(body, FlatObject::kTypeFd);
    writeRecord(body, FlatObject::kTypeBinder);
    const std::vector<uint32_t> offsets = {12, 44};
    using namespace fuzz::frame_mode;
    constexpr uint8_t kOneFd = 1 << kExtraFdsShift;  // for the descriptor record
    Seed().byte(0).append(frame(FrameKind::kHello, {}, {})).save("FrameFuzzer", "hello");
    Seed().byte(0).append(frame(FrameKind::kRelease, {}, {})).save("FrameFuzzer", "release");
    Seed().byte(kBatch).append(frame(FrameKind::kAck, {}, {})).save("FrameFuzzer", "ack-batch");
    Seed()
        .byte(kOneFd)
        .append(frame(FrameKind::kTransaction, bytesOf(body), offsets))
        .save("FrameFuzzer", "transaction");
    Seed()
        .byte(kBatch | kOneFd)
        .append(frame(FrameKind::kReply, bytesOf(body), offsets))
        .save("FrameFuzzer", "reply-batch");
    Seed()
        .byte(kBodyInMemfd | kSealed | kOneFd)
        .append(frame(FrameKind::kTransaction, bytesOf(body), offsets, 1))
        .save("FrameFuzzer", "transaction-memfd");
}

// ---- ParcelFuzzer: the content as a chunk, then one byte per reader.

void parcelSeeds() {
    Parcel content;
    content.writeInt32(-5);
    content.writeInt64(1ll << 40);
    content.writeString8(android::String8("eight"));
    content.writeString16(android::String16("sixteen"));
    content.writeCString("c");
    writeRecord(content, FlatObject::kTypeBinder);
    writeRecord(content, FlatObject::kTypeFd);
    content.writeDouble(2.5);
    using namespace fuzz;
    Seed()
        .chunk(bytesOf(content))
        .append({kReadInt32To, kReadInt64To, kReadString8, kReadString16, kReadCString,
                 kReadStrongBinder, kReadFileDescriptor, kReadDouble})
        .save("ParcelFuzzer", "all");
    Seed()
        .chunk(bytesOf(content))
        .append({kReadInplace, 4, kReadInplace, 8, kRead, 12, kReadString16Inplace, kReadCString,
                 kReadInplace, 32, kReadInplace, 32, kSetPosition, 0, 0, 0, 0, kReadInt32,
                 kReadUint64})
        .save("ParcelFuzzer", "inplace");
    Seed()
        .chunk(bytesOf(content))
        .append({kCutData, 20, 0, 0, 0, kReadStrongBinder, kReadFileDescriptor, kReadString8,
                 kReadCString})
        .save("ParcelFuzzer", "cut");
}

// ---- ValueFuzzer: a Parcel of values in universal form.

template <typename T, const char* kName>
Bytes boxed(void (*fill)(T&)) {
    fuzz::Boxed<T, kName> value;
    fill(value.value);
    Parcel parcel;
    UniversalSerialization::writeValue(value, parcel);
    return bytesOf(parcel);
}

Bytes record() {
    fuzz::Record value;
    value.text.set("text");
    value.int32.set(-1);
    const int ints[] = {1, -2, 3};
    value.ints.init(ints, 3);
    value.fd.set(-1);
    const bool bools[] = {true, false};
    value.bools.init(bools, 2);
    value.int64.set(-(1ll << 50));
    const unsigned char chars[] = {'a', 'b', 'c', 'd', 'e'};
    value.bytes.init(chars, 5);
    value.flag.set(true);
    const unsigned uints[] = {4000000000u};
    value.uints.init(uints, 1);
    value.real.set(-0.5);
    Parcel parcel;
    UniversalSerialization::writeValue(value, parcel);
    return bytesOf(parcel);
}

Bytes withDescriptor() {
    Parcel parcel;
    parcel.writeCString(fuzz::kFileDescriptor);
    writeRecord(parcel, FlatObject::kTypeFd);
    return bytesOf(parcel);
}

void valueSeeds() {
    using namespace tavrin;
    const Bytes values[] = {
        boxed<IPCInt32, fuzz::kInt32>([](IPCInt32& v) { v.set(42); }),
        boxed<IPCInt64, fuzz::kInt64>([](IPCInt64& v) { v.set(-42); }),
        boxed<IPCBool, fuzz::kBool>([](IPCBool& v) { v.set(true); }),
        boxed<IPCDouble, fuzz::kDouble>([](IPCDouble& v) { v.set(3.25); }),
        boxed<IPCString, fuzz::kString>([](IPCString& v) { v.set("a string"); }),
        boxed<IPCIntArray, fuzz::kIntArray>([](IPCIntArray& v) {
            const int data[] = {5, 6};
            v.init(data, 2);
        }),
        boxed<IPCUIntArray, fuzz::kUIntArray>([](IPCUIntArray& v) {
            const unsigned data[] = {7};
            v.init(data, 1);
        }),
        boxed<IPCBoolArray, fuzz::kBoolArray>([](IPCBoolArray& v) {
            const bool data[] = {false, true, true};
            v.init(data, 3);
        }),
        boxed<IPCUCharArray, fuzz::kUCharArray>([](IPCUCharArray& v) {
            const unsigned char data[] = {1, 2, 3};
            v.init(data, 3);
        }),
        withDescriptor(),
        record(),
    };
    Seed all;
    for (const Bytes& value : values) {
        // named after the class name that starts it
        Seed().append(value).save("ValueFuzzer", reinterpret_cast<const char*>(value.data()));
        all.append(value);
    }
    all.save("ValueFuzzer", "all");
}

// ---- CarrierFuzzer: target byte, then (code, flags, data chunk) per transaction.

Bytes request(const std::vector<int32_t>& ints, const char* name, const Bytes& tail) {
    Parcel parcel;
    for (int32_t value : ints) parcel.writeInt32(value);
    if (name != nullptr) parcel.writeCString(name);
    Bytes out = bytesOf(parcel);
    out.insert(out.end(), tail.begin(), tail.end());
    return out;
}

Bytes binderRecord() {
    Parcel parcel;
    writeRecord(parcel, FlatObject::kTypeBinder);
    return bytesOf(parcel);
}

void carrierSeeds() {
    const Bytes value = record();
    const Bytes number =
        boxed<tavrin::IPCInt32, fuzz::kInt32>([](tavrin::IPCInt32& v) { v.set(9); });
    const Bytes timeout = request({0}, nullptr, {});
    Seed service;
    service.byte(fuzz::kServiceCarrier);
    service.u32(ServiceCarrierCode::ADD_NOTIFIER).byte(0).chunk(binderRecord());
    service.u32(ServiceCarrierCode::IPC_CALL).byte(0).chunk(request({1, 2, 3}, nullptr, value));
    service.u32(ServiceCarrierCode::REGISTER_SUB_SERVICE)
        .byte(0)
        .chunk(request({}, "fuzz.sub", binderRecord()));
    service.u32(ServiceCarrierCode::GET_SUB_SERVICE)
        .byte(0)
        .chunk(request({}, "fuzz.sub", timeout));
    service.u32(ServiceCarrierCode::SUB_SERVICE_IPC_CALL)
        .byte(0)
        .chunk(request({}, "fuzz.sub", number));
    service.u32(ServiceCarrierCode::REMOVE_NOTIFIER).byte(1).chunk({});
    service.save("CarrierFuzzer", "service");

    Seed refused;
    refused.byte(fuzz::kServiceCarrier);
    for (const char* name : {"denied", "unknown", "unconfigured", "unconfigured"}) {
        refused.u32(ServiceCarrierCode::REGISTER_SUB_SERVICE)
            .byte(0)
            .chunk(request({}, name, binderRecord()));
    }
    refused.u32(ServiceCarrierCode::GET_SUB_SERVICE).byte(0).chunk(request({}, "missing", timeout));
    refused.save("CarrierFuzzer", "service-registrations");

    Seed subService;
    subService.byte(fuzz::kSubServiceCarrier);
    subService.u32(SubServiceCarrierCode::ADD_NOTIFIER).byte(0).chunk(binderRecord());
    subService.u32(SubServiceCarrierCode::IPC_CALL)
        .byte(0)
        .chunk(request({1, 2, 3}, nullptr, value));
    subService.u32(SubServiceCarrierCode::MASTER_IPC_CALL).byte(1).chunk(number);
    subService.u32(android::IBinder::INTERFACE_TRANSACTION).byte(0).chunk({});
    subService.save("CarrierFuzzer", "sub-service");

    // pid 0 stands for the fuzzing process; objIDs 1 and 2 are its clients
    Seed receiver;
    receiver.byte(fuzz::kReceiver);
    receiver.u32(0).byte(0).chunk(request({0, 1, 1, 1}, nullptr, value));
    receiver.u32(0).byte(1).chunk(request({0, 2, 2, 0}, nullptr, number));
    receiver.u32(0).byte(0).chunk(request({0, 1, 7, 1}, nullptr, number));
    receiver.save("CarrierFuzzer", "receiver");
}

// An honest exchange, a message streamed through the ring in records, and
// one of each lie after an honest message.
void shmRingSeeds() {
    using namespace fuzz;
    auto u16 = [](Seed& seed, uint16_t value) {
        seed.byte(uint8_t(value)).byte(uint8_t(value >> 8));
    };
    Seed honest;
    for (uint16_t length : {15, 99, 1000}) {
        honest.byte(kShmNewMessage);
        u16(honest, length);
        honest.byte(kShmSendPart);
        u16(honest, 0xffff);
        honest.byte(kShmRead);
    }
    honest.save("ShmRingFuzzer", "honest");
    Seed streamed;
    streamed.byte(kShmNewMessage);
    u16(streamed, 20000);
    for (int i = 0; i < 12; ++i) {
        streamed.byte(kShmSendPart);
        u16(streamed, 3000);
        streamed.byte(kShmRead);
    }
    streamed.save("ShmRingFuzzer", "streamed");
    for (uint8_t lie : {kShmReadScribbled, kShmScribble, kShmSetTail, kShmSetWords}) {
        Seed seed;
        seed.byte(kShmNewMessage);
        u16(seed, 40);
        seed.byte(kShmSendPart);
        u16(seed, 0xffff);
        seed.byte(lie).u32(0x00100000).u32(0xffffffff).byte(kShmRead).byte(kShmRead);
        seed.save("ShmRingFuzzer", "lie-" + std::to_string(lie));
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s CORPUS_DIR\n", argv[0]);
        return 2;
    }
    gRoot = argv[1];
    mkdir(gRoot.c_str(), 0755);
    frameSeeds();
    parcelSeeds();
    valueSeeds();
    carrierSeeds();
    shmRingSeeds();
    return 0;
}
