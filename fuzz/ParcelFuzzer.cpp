// Runs Parcel's readers, in an order the input chooses, over a Parcel made
// the way the transport hands one to a receiver, and checks what each one
// promises: results lie within the data, descriptors are open, and reading
// never moves the position back nor past the end.
//
// Input: the Parcel's content as a chunk, then one byte per step choosing
// the reader (FuzzFormats.h; some take an argument from the bytes that follow).

#include <utils/String16.h>
#include <utils/String8.h>

#include "FuzzFormats.h"
#include "FuzzSupport.h"

namespace {

using android::Parcel;

constexpr int kMaxSteps = 256;

bool within(const Parcel& parcel, const void* p, size_t length) {
    const auto* begin = static_cast<const uint8_t*>(p);
    return begin >= parcel.data() && begin + length <= parcel.data() + parcel.dataSize();
}

void readOnce(const Parcel& parcel, uint8_t choice, fuzz::Input& input) {
    switch (choice % fuzz::kParcelStepCount) {
        case fuzz::kReadInt32:
            parcel.readInt32();
            break;
        case fuzz::kReadInt32To: {
            int32_t value;
            parcel.readInt32(&value);
            break;
        }
        case fuzz::kReadUint32To: {
            uint32_t value;
            parcel.readUint32(&value);
            break;
        }
        case fuzz::kReadInt64To: {
            int64_t value;
            parcel.readInt64(&value);
            break;
        }
        case fuzz::kReadUint64:
            parcel.readUint64();
            break;
        case fuzz::kReadFloatTo: {
            float value;
            parcel.readFloat(&value);
            break;
        }
        case fuzz::kReadDouble:
            parcel.readDouble();
            break;
        case fuzz::kReadBoolTo: {
            bool value;
            parcel.readBool(&value);
            break;
        }
        case fuzz::kReadCString:
            if (const char* text = parcel.readCString()) {
                FUZZ_CHECK(within(parcel, text, strlen(text) + 1));
            }
            break;
        case fuzz::kReadString8:
            parcel.readString8();
            break;
        case fuzz::kReadString16:
            parcel.readString16();
            break;
        case fuzz::kReadString16Inplace: {
            size_t length = 0;
            if (const char16_t* text = parcel.readString16Inplace(&length)) {
                FUZZ_CHECK(within(parcel, text, (length + 1) * sizeof(char16_t)));
                FUZZ_CHECK(text[length] == 0);
            }
            break;
        }
        case fuzz::kEnforceInterface:
            parcel.enforceInterface(android::String16("fuzz.IFace"));
            break;
        case fuzz::kRead: {
            fuzz::Bytes buffer(input.byte());
            parcel.read(buffer.data(), buffer.size());
            break;
        }
        case fuzz::kReadInplace: {
            const size_t length = input.byte();
            if (const void* p = parcel.readInplace(length)) FUZZ_CHECK(within(parcel, p, length));
            break;
        }
        case fuzz::kReadStrongBinder: {
            android::sp<android::IBinder> binder;
            const android::status_t status = parcel.readStrongBinder(&binder);
            FUZZ_CHECK((status == android::NO_ERROR) == (binder != nullptr));
            break;
        }
        case fuzz::kReadFileDescriptor: {
            const int fd = parcel.readFileDescriptor();
            if (fd >= 0) FUZZ_CHECK(fcntl(fd, F_GETFD) != -1);
            break;
        }
        case fuzz::kReadBool:
            parcel.readBool();
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    Parcel parcel;
    fuzz::fillReceived(parcel, input.chunk());
    for (int step = 0; step < kMaxSteps && !input.empty(); ++step) {
        const uint8_t choice = input.byte();
        // Callers move the position (to where items start) and cut the data
        // too; readers must cope.
        if (choice == fuzz::kSetPosition) {
            parcel.setDataPosition((input.u32() % (parcel.dataSize() + 16)) & ~size_t{3});
            continue;
        }
        if (choice == fuzz::kCutData) {
            parcel.setDataSize(input.u32() % (parcel.dataSize() + 1));
            continue;
        }
        const size_t before = parcel.dataPosition();
        readOnce(parcel, choice, input);
        const size_t after = parcel.dataPosition();
        FUZZ_CHECK(after >= before);
        FUZZ_CHECK(after <= std::max(before, parcel.dataSize()));
    }
    return 0;
}
