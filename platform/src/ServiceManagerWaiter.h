#pragma once

#include <binder/Binder.h>
#include <binder/Parcel.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace android {
namespace tvbinder {

// The callback that one getService() call hands to the service manager: the
// service manager calls it, one way, when the awaited name is registered, so
// the caller sleeps until then instead of asking again and again.
class ServiceManagerWaiter : public BBinder {
  public:
    explicit ServiceManagerWaiter(const String16& name);

    // The registered object, or null if none arrived before `deadline`.
    sp<IBinder> waitUntil(std::chrono::steady_clock::time_point deadline);

  protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override;

  private:
    const String16 mName;
    std::mutex mLock;
    std::condition_variable mArrived;
    sp<IBinder> mService;
};

}  // namespace tvbinder
}  // namespace android
