#pragma once

#include <binder/Binder.h>

namespace android {

// A typed interface on top of a binder object.
class IInterface : public virtual RefBase {
  public:
    IInterface();
    static sp<IBinder> asBinder(const IInterface* iface);
    static sp<IBinder> asBinder(const sp<IInterface>& iface);

  protected:
    ~IInterface() override;
    virtual IBinder* onAsBinder() = 0;
};

template <typename INTERFACE>
inline sp<INTERFACE> interface_cast(const sp<IBinder>& obj) {
    return INTERFACE::asInterface(obj);
}

// The local side of INTERFACE.
template <typename INTERFACE>
class BnInterface : public INTERFACE, public BBinder {
  public:
    sp<IInterface> queryLocalInterface(const String16& descriptor) override {
        if (descriptor == INTERFACE::descriptor) return sp<IInterface>(this);
        return nullptr;
    }
    const String16& getInterfaceDescriptor() const override { return INTERFACE::descriptor; }

  protected:
    IBinder* onAsBinder() override { return this; }
};

// Holds the remote object for a proxy class.
class BpRefBase : public virtual RefBase {
  protected:
    explicit BpRefBase(const sp<IBinder>& remote) : mRemote(remote) {}
    IBinder* remote() const { return mRemote.get(); }

  private:
    const sp<IBinder> mRemote;
};

// The remote side of INTERFACE.
template <typename INTERFACE>
class BpInterface : public INTERFACE, public BpRefBase {
  public:
    explicit BpInterface(const sp<IBinder>& remote) : BpRefBase(remote) {}

  protected:
    IBinder* onAsBinder() override { return remote(); }
};

}  // namespace android

#define DECLARE_META_INTERFACE(INTERFACE)                                                         \
  public:                                                                                         \
    static const ::android::String16 descriptor;                                                  \
    static ::android::sp<I##INTERFACE> asInterface(const ::android::sp<::android::IBinder>& obj); \
    virtual const ::android::String16& getInterfaceDescriptor() const;                            \
    I##INTERFACE();                                                                               \
    virtual ~I##INTERFACE();

#define IMPLEMENT_META_INTERFACE(INTERFACE, NAME)                             \
    const ::android::String16 I##INTERFACE::descriptor(NAME);                 \
    const ::android::String16& I##INTERFACE::getInterfaceDescriptor() const { \
        return I##INTERFACE::descriptor;                                      \
    }                                                                         \
    ::android::sp<I##INTERFACE> I##INTERFACE::asInterface(                    \
        const ::android::sp<::android::IBinder>& obj) {                       \
        ::android::sp<I##INTERFACE> intr;                                     \
        if (obj != nullptr) {                                                 \
            intr = static_cast<I##INTERFACE*>(                                \
                obj->queryLocalInterface(I##INTERFACE::descriptor).get());    \
            if (intr == nullptr) intr = new Bp##INTERFACE(obj);               \
        }                                                                     \
        return intr;                                                          \
    }                                                                         \
    I##INTERFACE::I##INTERFACE() {}                                           \
    I##INTERFACE::~I##INTERFACE() {}
