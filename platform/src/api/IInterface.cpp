#include <binder/IInterface.h>

namespace android {

IInterface::IInterface() : RefBase() {}

IInterface::~IInterface() = default;

sp<IBinder> IInterface::asBinder(const IInterface* iface) {
    return iface == nullptr ? nullptr : const_cast<IInterface*>(iface)->onAsBinder();
}

sp<IBinder> IInterface::asBinder(const sp<IInterface>& iface) {
    return iface == nullptr ? nullptr : iface->onAsBinder();
}

}  // namespace android
