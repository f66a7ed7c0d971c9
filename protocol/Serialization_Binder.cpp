#include "protocol/Serialization_Binder.h"

namespace tavrin_binder {

int Serialization_Binder::write(const void* data, size_t length) {
    return mParcel->write(data, length);
}

int Serialization_Binder::writeInt32(int32_t value) {
    return mParcel->writeInt32(value);
}

int Serialization_Binder::writeInt64(int64_t value) {
    return mParcel->writeInt64(value);
}

int Serialization_Binder::writeFloat(float value) {
    return mParcel->writeFloat(value);
}

int Serialization_Binder::writeDouble(double value) {
    return mParcel->writeDouble(value);
}

int Serialization_Binder::writeCString(const char* text) {
    return mParcel->writeCString(text);
}

int Serialization_Binder::writeDupFileDescriptor(int fd) {
    return mParcel->writeDupFileDescriptor(fd);
}

}  // namespace tavrin_binder
