#include "IPCUIntArray.h"

#include "protocol/ArrayWire.h"

namespace tavrin {

IPCUIntArray::~IPCUIntArray() {
    free(value);
}

void IPCUIntArray::init(const unsigned int* data, int size) {
    array_wire::init(value, mSize, data, size, __PRETTY_FUNCTION__);
}

unsigned int& IPCUIntArray::operator[](int i) {
    return array_wire::at(value, mSize, i, __PRETTY_FUNCTION__);
}

void IPCUIntArray::serialization(Serialization& out) {
    array_wire::writeBlock(out, value, mSize);
}

void IPCUIntArray::deserialization(Deserialization& in) {
    array_wire::readBlock(in, value, mSize, "IPCUIntArray");
}

}  // namespace tavrin
