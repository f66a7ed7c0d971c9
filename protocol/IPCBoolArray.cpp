#include "IPCBoolArray.h"

#include "protocol/ArrayWire.h"

namespace tavrin {
namespace {

// Each element travels as an int32.
constexpr uint64_t kWireElementBytes = 4;

}  // namespace

IPCBoolArray::~IPCBoolArray() {
    free(value);
}

void IPCBoolArray::init(const bool* data, int size) {
    array_wire::init(value, mSize, data, size, __PRETTY_FUNCTION__);
}

bool& IPCBoolArray::operator[](int i) {
    return array_wire::at(value, mSize, i, __PRETTY_FUNCTION__);
}

void IPCBoolArray::serialization(Serialization& out) {
    out.writeInt32(mSize);
    for (int32_t i = 0; i < mSize; ++i) out.writeInt32(value[i] ? 1 : 0);
}

void IPCBoolArray::deserialization(Deserialization& in) {
    array_wire::clear(value, mSize);
    const int32_t count = in.readInt32();
    if (count <= 0) {
        mSize = count;
        return;
    }
    const uint64_t bytes = static_cast<uint64_t>(count) * sizeof(bool);
    if (!array_wire::admitReceivedCount(count, bytes, count * kWireElementBytes, in.dataAvail(),
                                        "IPCBoolArray")) {
        return;
    }
    value = static_cast<bool*>(malloc(bytes));
    if (value == nullptr) {
        array_wire::warnAllocationFailed(count, "IPCBoolArray");
        return;
    }
    for (int32_t i = 0; i < count; ++i) value[i] = in.readInt32() != 0;
    mSize = count;
}

}  // namespace tavrin
