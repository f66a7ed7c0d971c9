#include "IPCIntArray.h"

#include "protocol/ArrayWire.h"

namespace tavrin {

IPCIntArray::~IPCIntArray() {
    free(value);
}

void IPCIntArray::init(const int* data, int size) {
    array_wire::init(value, mSize, data, size, __PRETTY_FUNCTION__);
}

int& IPCIntArray::operator[](int i) {
    return array_wire::at(value, mSize, i, __PRETTY_FUNCTION__);
}

void IPCIntArray::serialization(Serialization& out) {
    array_wire::writeBlock(out, value, mSize);
}

void IPCIntArray::deserialization(Deserialization& in) {
    array_wire::readBlock(in, value, mSize, "IPCIntArray");
}

}  // namespace tavrin
