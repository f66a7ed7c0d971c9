#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include "runtime/Runtime.h"
#include "wire/FlatObject.h"

namespace android {

namespace {

constexpr size_t pad4(size_t len) {
    return (len + 3) & ~size_t(3);
}

// Largest Parcel we build: keeps every offset representable in 32 bits, as on
// the platform, and stops a runaway writer long before memory runs out.
constexpr size_t kMaxParcelSize = std::numeric_limits<int32_t>::max();

bool isNullBinderRecord(const tvbinder::FlatObject& rec) {
    return rec.type == tvbinder::FlatObject::kTypeBinder && rec.endpoint == 0 && rec.tokenHi == 0 &&
           rec.tokenLo == 0;
}

}  // namespace

Parcel::Parcel() = default;

Parcel::~Parcel() {
    freeData();
}

const uint8_t* Parcel::data() const {
    return mData;
}
size_t Parcel::dataSize() const {
    return mDataSize;
}
size_t Parcel::dataAvail() const {
    return mDataPos < mDataSize ? mDataSize - mDataPos : 0;
}
size_t Parcel::dataPosition() const {
    return mDataPos;
}
size_t Parcel::dataCapacity() const {
    return mDataCapacity;
}
status_t Parcel::errorCheck() const {
    return mError;
}
void Parcel::setError(status_t err) {
    mError = err;
}

status_t Parcel::setDataSize(size_t size) {
    if (size > mDataCapacity) {
        status_t err = growTo(size);
        if (err != NO_ERROR) return err;
        memset(mData + mDataSize, 0, size - mDataSize);
    }
    mDataSize = size;
    if (mDataPos > size) mDataPos = size;
    // Objects cut off by the new size are gone.
    while (!mObjects.empty() && mObjects.back().offset + sizeof(tvbinder::FlatObject) > mDataSize) {
        Object& last = mObjects.back();
        if (last.ownsFd) close(last.fd);
        mObjects.pop_back();
    }
    return NO_ERROR;
}

void Parcel::setDataPosition(size_t pos) const {
    mDataPos = pos;
}

status_t Parcel::setDataCapacity(size_t size) {
    return size > mDataCapacity ? growTo(size) : NO_ERROR;
}

void Parcel::freeData() {
    closeOwnedFds();
    mObjects.clear();
    free(mData);
    mData = nullptr;
    mDataSize = mDataCapacity = mDataPos = 0;
    mError = NO_ERROR;
}

void Parcel::closeOwnedFds() {
    for (const Object& object : mObjects) {
        if (object.ownsFd) close(object.fd);
    }
}

status_t Parcel::growTo(size_t minCapacity) {
    if (minCapacity > kMaxParcelSize) return NO_MEMORY;
    size_t capacity = std::max(minCapacity, std::min(kMaxParcelSize, mDataCapacity * 3 / 2 + 64));
    void* grown = realloc(mData, capacity);
    if (grown == nullptr) return NO_MEMORY;
    mData = static_cast<uint8_t*>(grown);
    mDataCapacity = capacity;
    return NO_ERROR;
}

// Reserves len bytes (padded) at the write position and zeroes the padding.
// Writing happens at the current position, as on the platform; the data grows
// when the position reaches its end.
void* Parcel::writeSlot(size_t len) {
    if (len > kMaxParcelSize) return nullptr;
    const size_t padded = pad4(len);
    const size_t end = mDataPos + padded;
    if (mDataPos > kMaxParcelSize || end > kMaxParcelSize) return nullptr;
    if (end > mDataCapacity && growTo(end) != NO_ERROR) return nullptr;
    if (mDataPos > mDataSize) memset(mData + mDataSize, 0, mDataPos - mDataSize);
    uint8_t* slot = mData + mDataPos;
    if (padded > len) memset(slot + len, 0, padded - len);
    mDataPos = end;
    if (end > mDataSize) mDataSize = end;
    return slot;
}

// Returns the next len bytes and consumes their padded length, or null (and
// consumes nothing) when they are not all there.
const void* Parcel::readSlot(size_t len) const {
    const size_t padded = pad4(len);
    if (padded < len || mDataPos > mDataSize || padded > mDataSize - mDataPos) return nullptr;
    const uint8_t* slot = mData + mDataPos;
    mDataPos += padded;
    return slot;
}

status_t Parcel::write(const void* data, size_t len) {
    void* slot = writeSlot(len);
    if (slot == nullptr) return NO_MEMORY;
    if (len > 0) memcpy(slot, data, len);
    return NO_ERROR;
}

void* Parcel::writeInplace(size_t len) {
    return writeSlot(len);
}

namespace {

// Fixed-size copies compile to plain stores.
template <typename T>
status_t writeValue(Parcel& parcel, T value) {
    void* slot = parcel.writeInplace(sizeof(value));
    if (slot == nullptr) return NO_MEMORY;
    memcpy(slot, &value, sizeof(value));
    return NO_ERROR;
}

}  // namespace

status_t Parcel::writeInt32(int32_t val) {
    return writeValue(*this, val);
}
status_t Parcel::writeUint32(uint32_t val) {
    return writeValue(*this, val);
}
status_t Parcel::writeInt64(int64_t val) {
    return writeValue(*this, val);
}
status_t Parcel::writeUint64(uint64_t val) {
    return writeValue(*this, val);
}
status_t Parcel::writeFloat(float val) {
    return write(&val, sizeof(val));
}
status_t Parcel::writeDouble(double val) {
    return write(&val, sizeof(val));
}
status_t Parcel::writeBool(bool val) {
    return writeInt32(val ? 1 : 0);
}

status_t Parcel::writeCString(const char* str) {
    if (str == nullptr) return BAD_VALUE;
    return write(str, strlen(str) + 1);
}

status_t Parcel::writeString8(const String8& str) {
    status_t err = writeInt32(static_cast<int32_t>(str.bytes()));
    if (err != NO_ERROR) return err;
    return write(str.string(), str.bytes() + 1);
}

status_t Parcel::writeString16(const String16& str) {
    return writeString16(str.string(), str.size());
}

status_t Parcel::writeString16(const char16_t* str, size_t len) {
    if (str == nullptr) return writeInt32(-1);
    if (len > kMaxParcelSize / sizeof(char16_t) - 1) return BAD_VALUE;
    status_t err = writeInt32(static_cast<int32_t>(len));
    if (err != NO_ERROR) return err;
    const size_t bytes = len * sizeof(char16_t);
    uint8_t* slot = static_cast<uint8_t*>(writeSlot(bytes + sizeof(char16_t)));
    if (slot == nullptr) return NO_MEMORY;
    memcpy(slot, str, bytes);
    memset(slot + bytes, 0, sizeof(char16_t));
    return NO_ERROR;
}

status_t Parcel::writeInterfaceToken(const String16& interface) {
    return writeString16(interface);
}

status_t Parcel::writeObject(Object object, const void* record, size_t recordSize) {
    const size_t offset = mDataPos;
    // An object may not be written over another one: the table stays sorted
    // and free of overlaps, which is what the receiver checks too.
    auto next = std::lower_bound(mObjects.begin(), mObjects.end(), offset,
                                 [](const Object& o, size_t off) { return o.offset < off; });
    if (next != mObjects.end() && next->offset < offset + recordSize) return BAD_VALUE;
    if (next != mObjects.begin() && std::prev(next)->offset + recordSize > offset) {
        return BAD_VALUE;
    }
    status_t err = write(record, recordSize);
    if (err != NO_ERROR) return err;
    object.offset = offset;
    mObjects.insert(next, std::move(object));
    return NO_ERROR;
}

status_t Parcel::writeStrongBinder(const sp<IBinder>& val) {
    tvbinder::FlatObject rec{};
    rec.type = tvbinder::FlatObject::kTypeBinder;
    if (val == nullptr) return write(&rec, sizeof(rec));
    status_t err = ProcessState::self()->runtime().objects().flatten(val, &rec);
    if (err != NO_ERROR) return err;
    Object object;
    object.binder = val;
    return writeObject(std::move(object), &rec, sizeof(rec));
}

status_t Parcel::writeFileDescriptor(int fd, bool takeOwnership) {
    if (fd < 0) return BAD_VALUE;
    tvbinder::FlatObject rec{};
    rec.type = tvbinder::FlatObject::kTypeFd;
    Object object;
    object.fd = fd;
    object.ownsFd = takeOwnership;
    return writeObject(std::move(object), &rec, sizeof(rec));
}

status_t Parcel::writeDupFileDescriptor(int fd) {
    const int dupFd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (dupFd < 0) return -errno;
    status_t err = writeFileDescriptor(dupFd, true);
    if (err != NO_ERROR) close(dupFd);
    return err;
}

status_t Parcel::read(void* outData, size_t len) const {
    const void* slot = readSlot(len);
    if (slot == nullptr) return NOT_ENOUGH_DATA;
    if (len > 0) memcpy(outData, slot, len);
    return NO_ERROR;
}

const void* Parcel::readInplace(size_t len) const {
    return readSlot(len);
}

namespace {

// Fixed-size copies compile to plain loads: these readers run for every
// field of every message.
template <typename T>
T readValue(const Parcel& parcel) {
    T value{};
    const void* slot = parcel.readInplace(sizeof(value));
    if (slot != nullptr) memcpy(&value, slot, sizeof(value));
    return value;
}

template <typename T>
status_t readValue(const Parcel& parcel, T* out) {
    if (out == nullptr) return BAD_VALUE;
    return parcel.read(out, sizeof(T));
}

}  // namespace

int32_t Parcel::readInt32() const {
    return readValue<int32_t>(*this);
}
status_t Parcel::readInt32(int32_t* pArg) const {
    return readValue(*this, pArg);
}
uint32_t Parcel::readUint32() const {
    return readValue<uint32_t>(*this);
}
status_t Parcel::readUint32(uint32_t* pArg) const {
    return readValue(*this, pArg);
}
int64_t Parcel::readInt64() const {
    return readValue<int64_t>(*this);
}
status_t Parcel::readInt64(int64_t* pArg) const {
    return readValue(*this, pArg);
}
uint64_t Parcel::readUint64() const {
    return readValue<uint64_t>(*this);
}
status_t Parcel::readUint64(uint64_t* pArg) const {
    return readValue(*this, pArg);
}
float Parcel::readFloat() const {
    return readValue<float>(*this);
}
status_t Parcel::readFloat(float* pArg) const {
    return readValue(*this, pArg);
}
double Parcel::readDouble() const {
    return readValue<double>(*this);
}
status_t Parcel::readDouble(double* pArg) const {
    return readValue(*this, pArg);
}
bool Parcel::readBool() const {
    return readInt32() != 0;
}

status_t Parcel::readBool(bool* pArg) const {
    if (pArg == nullptr) return BAD_VALUE;
    int32_t value = 0;
    status_t err = readInt32(&value);
    if (err == NO_ERROR) *pArg = value != 0;
    return err;
}

const char* Parcel::readCString() const {
    const size_t avail = dataAvail();
    if (avail == 0) return nullptr;
    const char* str = reinterpret_cast<const char*>(mData + mDataPos);
    const void* nul = memchr(str, 0, avail);
    if (nul == nullptr) return nullptr;
    // A string that ends the data may lack its padding: it still moves the
    // position, to the end, so that a reading loop always finishes.
    if (readSlot(static_cast<const char*>(nul) - str + 1) == nullptr) mDataPos = mDataSize;
    return str;
}

String8 Parcel::readString8() const {
    const int32_t len = readInt32();
    if (len < 0) return String8();
    const size_t start = mDataPos;
    const char* str = static_cast<const char*>(readSlot(size_t(len) + 1));
    if (str == nullptr || str[len] != '\0') {
        mDataPos = start;
        return String8();
    }
    return String8(str, len);
}

const char16_t* Parcel::readString16Inplace(size_t* outLen) const {
    const size_t start = mDataPos;
    const int32_t len = readInt32();
    if (len >= 0 && size_t(len) < kMaxParcelSize / sizeof(char16_t)) {
        const size_t bytes = (size_t(len) + 1) * sizeof(char16_t);
        const char16_t* str = static_cast<const char16_t*>(readSlot(bytes));
        // Units read in place must be 2-aligned: a position moved to an odd
        // offset (past an unpadded C string at the end) refuses the string.
        const bool aligned = reinterpret_cast<uintptr_t>(str) % alignof(char16_t) == 0;
        if (str != nullptr && aligned && str[len] == 0) {
            if (outLen != nullptr) *outLen = size_t(len);
            return str;
        }
    }
    mDataPos = start;
    if (outLen != nullptr) *outLen = 0;
    return nullptr;
}

String16 Parcel::readString16() const {
    String16 value;
    readString16(&value);
    return value;
}

status_t Parcel::readString16(String16* pArg) const {
    if (pArg == nullptr) return BAD_VALUE;
    size_t len = 0;
    const char16_t* str = readString16Inplace(&len);
    if (str == nullptr) {
        *pArg = String16();
        return UNEXPECTED_NULL;
    }
    *pArg = String16(str, len);
    return NO_ERROR;
}

bool Parcel::enforceInterface(const String16& interface) const {
    size_t len = 0;
    const char16_t* str = readString16Inplace(&len);
    return str != nullptr && len == interface.size() &&
           memcmp(str, interface.string(), len * sizeof(char16_t)) == 0;
}

const Parcel::Object* Parcel::objectAt(size_t offset) const {
    auto it = std::lower_bound(mObjects.begin(), mObjects.end(), offset,
                               [](const Object& o, size_t off) { return o.offset < off; });
    return it != mObjects.end() && it->offset == offset ? &*it : nullptr;
}

status_t Parcel::readStrongBinder(sp<IBinder>* val) const {
    if (val == nullptr) return BAD_VALUE;
    *val = nullptr;
    const Object* object = objectAt(mDataPos);
    if (object != nullptr && object->binder != nullptr) {
        readSlot(sizeof(tvbinder::FlatObject));
        *val = object->binder;
        return NO_ERROR;
    }
    // Bytes that merely look like a record are no object: only the table counts.
    tvbinder::FlatObject rec;
    if (object == nullptr && dataAvail() >= sizeof(rec)) {
        memcpy(&rec, mData + mDataPos, sizeof(rec));
        if (isNullBinderRecord(rec)) {
            readSlot(sizeof(rec));
            return UNEXPECTED_NULL;
        }
    }
    return BAD_TYPE;
}

sp<IBinder> Parcel::readStrongBinder() const {
    sp<IBinder> val;
    readStrongBinder(&val);
    return val;
}

int Parcel::readFileDescriptor() const {
    const Object* object = objectAt(mDataPos);
    if (object == nullptr || object->fd < 0) return BAD_TYPE;
    readSlot(sizeof(tvbinder::FlatObject));
    return object->fd;
}

size_t Parcel::objectsCount() const {
    return mObjects.size();
}

const std::vector<Parcel::Object>& Parcel::ipcObjects() const {
    return mObjects;
}

void Parcel::ipcSetReceived(uint8_t* data, size_t size, std::vector<Object> objects) {
    freeData();
    mData = data;
    mDataSize = mDataCapacity = size;
    mObjects = std::move(objects);
    for (Object& object : mObjects) object.ownsFd = object.fd >= 0;
}

}  // namespace android
