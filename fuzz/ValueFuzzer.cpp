// Reads values by class name from a received Parcel, as the carriers do,
// until nothing more can be read. Each value read must write out in a form
// that reads back to the very same bytes: what a receiver accepted, it must
// be able to send on unchanged.
//
// Input: the Parcel's content.

#include <memory>

#include "FuzzSupport.h"
#include "FuzzValues.h"
#include "protocol/UniversalSerialization.h"

namespace {

using android::Parcel;
using tavrin_binder::UniversalSerialization;

constexpr int kMaxValues = 32;

tavrin::Protocol& protocol() {
    static auto* made = new tavrin::Protocol(fuzz::valueProtocol());
    return *made;
}

fuzz::Bytes bytesOf(const Parcel& parcel) {
    return fuzz::Bytes(parcel.data(), parcel.data() + parcel.dataSize());
}

void checkResends(tavrin::IPCClass& value) {
    Parcel first;
    UniversalSerialization::writeValue(value, first);
    first.setDataPosition(0);
    std::unique_ptr<tavrin::IPCClass> again(UniversalSerialization::readValue(protocol(), first));
    FUZZ_CHECK(again != nullptr);
    Parcel second;
    UniversalSerialization::writeValue(*again, second);
    FUZZ_CHECK(bytesOf(first) == bytesOf(second));
    FUZZ_CHECK(first.objectsCount() == second.objectsCount());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Parcel parcel;
    fuzz::fillReceived(parcel, fuzz::Bytes(data, data + size));
    for (int i = 0; i < kMaxValues; ++i) {
        std::unique_ptr<tavrin::IPCClass> value(
            UniversalSerialization::readValue(protocol(), parcel));
        if (value == nullptr) break;
        checkResends(*value);
    }
    return 0;
}
