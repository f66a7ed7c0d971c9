#include "IPCUCharArray.h"

#include "protocol/ArrayWire.h"

namespace tavrin {

IPCUCharArray::~IPCUCharArray() {
    free(value);
}

void IPCUCharArray::init(const unsigned char* data, int size) {
    array_wire::init(value, mSize, data, size, __PRETTY_FUNCTION__);
}

unsigned char& IPCUCharArray::operator[](int i) {
    return array_wire::at(value, mSize, i, __PRETTY_FUNCTION__);
}

void IPCUCharArray::serialization(Serialization& out) {
    array_wire::writeBlock(out, value, mSize);
}

void IPCUCharArray::deserialization(Deserialization& in) {
    array_wire::readBlock(in, value, mSize, "IPCUCharArray");
}

}  // namespace tavrin
