#pragma once

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "ProcSupport.h"

namespace tvtest {

void becomeTestContextManager();
void publish(const std::string& name, const android::sp<android::IBinder>& object);
// The object published under `name`, waiting for it for up to `timeout`.
android::sp<android::IBinder> lookup(const std::string& name,
                                     std::chrono::milliseconds timeout = std::chrono::seconds(20));

using tvproc::waitUntil;

int currentTid();
using tvproc::countOpenFds;
// Counts the death notices it gets and notes the last one.
class CountingRecipient : public android::IBinder::DeathRecipient {
  public:
    explicit CountingRecipient(std::atomic<bool>* destroyed = nullptr) : mDestroyed(destroyed) {}
    ~CountingRecipient() override {
        if (mDestroyed != nullptr) *mDestroyed = true;
    }
    void binderDied(const android::wp<android::IBinder>& who) override {
        died = who.promote().get();
        tid = currentTid();
        ++calls;
    }
    std::atomic<int> calls{0};
    std::atomic<android::IBinder*> died{nullptr};
    std::atomic<int> tid{0};

  private:
    std::atomic<bool>* mDestroyed;
};

// A local object that answers ECHO and notes who ran it and for whom.
class Recorder : public android::BBinder {
  public:
    std::atomic<int> lastTid{0};
    std::atomic<int> lastCallingPid{0};

  protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;
};

// Threads of the transport's pool (named "tvbinder:<n>").
size_t countPoolThreads(pid_t pid);

using tvproc::uniqueName;

// Calls with one int32 argument and an int32 result; status in *status.
int32_t callInt(const android::sp<android::IBinder>& binder, uint32_t code, int32_t argument,
                android::status_t* status = nullptr);

// Sends `object` (none when null) under `code`.
android::status_t sendObject(const android::sp<android::IBinder>& service, uint32_t code,
                             const android::sp<android::IBinder>& object = nullptr,
                             uint32_t flags = 0);
// Has a TestService make call `code` with `argument` on the object it holds;
// the first int32 of that reply, status in *status.
int32_t heldCall(const android::sp<android::IBinder>& service, uint32_t code, int32_t argument,
                 android::status_t* status = nullptr);

// A new object of the TestService `service`.
android::sp<android::IBinder> newObject(const android::sp<android::IBinder>& service);
// The SEQUENCE values `target` ran, once it has run `expected` of them.
std::vector<int32_t> sequenceValues(const android::sp<android::IBinder>& target, int32_t expected);

}  // namespace tvtest
