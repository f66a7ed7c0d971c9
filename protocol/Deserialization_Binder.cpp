#include "protocol/Deserialization_Binder.h"

namespace tavrin_binder {

int Deserialization_Binder::read(void* destination, size_t length) {
    return mParcel->read(destination, length);
}

int32_t Deserialization_Binder::readInt32() {
    return mParcel->readInt32();
}

int64_t Deserialization_Binder::readInt64() {
    return mParcel->readInt64();
}

float Deserialization_Binder::readFloat() {
    return mParcel->readFloat();
}

double Deserialization_Binder::readDouble() {
    return mParcel->readDouble();
}

const char* Deserialization_Binder::readCString() {
    return mParcel->readCString();
}

int Deserialization_Binder::readFileDescriptor() {
    return mParcel->readFileDescriptor();
}

size_t Deserialization_Binder::dataAvail() const {
    return mParcel->dataAvail();
}

}  // namespace tavrin_binder
