#pragma once

#include <binder/IBinder.h>
#include <stddef.h>
#include <stdint.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include <vector>

namespace android {

// A message: flat data plus a table of the binder objects and file
// descriptors embedded in it. Every item starts on a 4-byte boundary and is
// padded to a multiple of 4 bytes with zero bytes.
class Parcel {
  public:
    Parcel();
    ~Parcel();
    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;

    const uint8_t* data() const;
    size_t dataSize() const;
    size_t dataAvail() const;
    size_t dataPosition() const;
    size_t dataCapacity() const;
    status_t setDataSize(size_t size);
    void setDataPosition(size_t pos) const;
    status_t setDataCapacity(size_t size);
    // Drops all data, objects and owned descriptors.
    void freeData();

    status_t errorCheck() const;
    void setError(status_t err);

    status_t write(const void* data, size_t len);
    void* writeInplace(size_t len);
    status_t writeInt32(int32_t val);
    status_t writeUint32(uint32_t val);
    status_t writeInt64(int64_t val);
    status_t writeUint64(uint64_t val);
    status_t writeFloat(float val);
    status_t writeDouble(double val);
    status_t writeBool(bool val);
    status_t writeCString(const char* str);
    status_t writeString8(const String8& str);
    status_t writeString16(const String16& str);
    status_t writeString16(const char16_t* str, size_t len);
    status_t writeInterfaceToken(const String16& interface);
    status_t writeStrongBinder(const sp<IBinder>& val);
    // Records fd; the Parcel closes it on destruction only when it takes ownership.
    status_t writeFileDescriptor(int fd, bool takeOwnership = false);
    // Records a close-on-exec duplicate of fd, owned by the Parcel.
    status_t writeDupFileDescriptor(int fd);

    status_t read(void* outData, size_t len) const;
    const void* readInplace(size_t len) const;
    int32_t readInt32() const;
    status_t readInt32(int32_t* pArg) const;
    uint32_t readUint32() const;
    status_t readUint32(uint32_t* pArg) const;
    int64_t readInt64() const;
    status_t readInt64(int64_t* pArg) const;
    uint64_t readUint64() const;
    status_t readUint64(uint64_t* pArg) const;
    float readFloat() const;
    status_t readFloat(float* pArg) const;
    double readDouble() const;
    status_t readDouble(double* pArg) const;
    bool readBool() const;
    status_t readBool(bool* pArg) const;
    // A pointer into the Parcel, or null when no NUL lies within the remaining data.
    const char* readCString() const;
    String8 readString8() const;
    String16 readString16() const;
    status_t readString16(String16* pArg) const;
    const char16_t* readString16Inplace(size_t* outLen) const;
    bool enforceInterface(const String16& interface) const;
    sp<IBinder> readStrongBinder() const;
    status_t readStrongBinder(sp<IBinder>* val) const;
    // A descriptor that stays owned by the Parcel, or BAD_TYPE when none is here.
    int readFileDescriptor() const;

    size_t objectsCount() const;

    // ---- For the transport only ----
    // One embedded object: a binder (binder set) or a descriptor (fd >= 0).
    struct Object {
        size_t offset = 0;
        sp<IBinder> binder;
        int fd = -1;
        bool ownsFd = false;
    };
    const std::vector<Object>& ipcObjects() const;
    // Replaces the content with a message received from another process. Takes
    // `data` (allocated with malloc) and the descriptors of `objects`; the
    // caller has already checked that every object lies inside the data.
    void ipcSetReceived(uint8_t* data, size_t size, std::vector<Object> objects);

  private:
    status_t growTo(size_t minCapacity);
    void* writeSlot(size_t len);
    const void* readSlot(size_t len) const;
    status_t writeObject(Object object, const void* record, size_t recordSize);
    const Object* objectAt(size_t offset) const;
    void closeOwnedFds();

    uint8_t* mData = nullptr;
    size_t mDataSize = 0;
    size_t mDataCapacity = 0;
    mutable size_t mDataPos = 0;
    status_t mError = NO_ERROR;
    std::vector<Object> mObjects;  // ascending offsets
};

}  // namespace android
