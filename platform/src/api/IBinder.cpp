#include <binder/IBinder.h>
#include <binder/IInterface.h>

namespace android {

IBinder::IBinder() : RefBase() {}

IBinder::~IBinder() = default;

sp<IInterface> IBinder::queryLocalInterface(const String16& /*descriptor*/) {
    return nullptr;
}

BBinder* IBinder::localBinder() {
    return nullptr;
}

BpBinder* IBinder::remoteBinder() {
    return nullptr;
}

}  // namespace android
