#pragma once

#include <stdint.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>
#include <utils/Vector.h>

#define B_PACK_CHARS(c1, c2, c3, c4) ((((c1) << 24)) | (((c2) << 16)) | (((c3) << 8)) | (c4))

namespace android {

class BBinder;
class BpBinder;
class IInterface;
class Parcel;

// An object that can be called from any process that holds a reference to it.
// Local objects are BBinders; references to another process's objects are
// BpBinder proxies (one per remote object and process).
class IBinder : public virtual RefBase {
  public:
    enum {
        FIRST_CALL_TRANSACTION = 0x00000001,
        LAST_CALL_TRANSACTION = 0x00ffffff,

        PING_TRANSACTION = B_PACK_CHARS('_', 'P', 'N', 'G'),
        DUMP_TRANSACTION = B_PACK_CHARS('_', 'D', 'M', 'P'),
        SHELL_COMMAND_TRANSACTION = B_PACK_CHARS('_', 'C', 'M', 'D'),
        INTERFACE_TRANSACTION = B_PACK_CHARS('_', 'N', 'T', 'F'),
        SYSPROPS_TRANSACTION = B_PACK_CHARS('_', 'S', 'P', 'R'),

        FLAG_ONEWAY = 0x00000001,
    };

    IBinder();

    virtual const String16& getInterfaceDescriptor() const = 0;
    virtual bool isBinderAlive() const = 0;
    virtual status_t pingBinder() = 0;
    virtual status_t dump(int fd, const Vector<String16>& args) = 0;

    virtual status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                              uint32_t flags = 0) = 0;

    class DeathRecipient : public virtual RefBase {
      public:
        virtual void binderDied(const wp<IBinder>& who) = 0;
    };

    // Only proxies can be linked to; a local object answers INVALID_OPERATION.
    virtual status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                                 uint32_t flags = 0) = 0;
    virtual status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                                   uint32_t flags = 0,
                                   wp<DeathRecipient>* outRecipient = nullptr) = 0;

    // The local interface object for `descriptor`, when this is a local object implementing it.
    virtual sp<IInterface> queryLocalInterface(const String16& descriptor);

    virtual BBinder* localBinder();
    virtual BpBinder* remoteBinder();

  protected:
    virtual ~IBinder();
};

}  // namespace android
