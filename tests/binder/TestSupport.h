#pragma once

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <signal.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "ChildProcess.h"
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
// Counts the death notices it gets and notes the last one; with
// unlinkItself, unlinks itself from inside the notice, which is allowed.
class CountingRecipient : public android::IBinder::DeathRecipient {
  public:
    explicit CountingRecipient(std::atomic<bool>* destroyed = nullptr) : mDestroyed(destroyed) {}
    ~CountingRecipient() override {
        if (mDestroyed != nullptr) *mDestroyed = true;
    }
    void binderDied(const android::wp<android::IBinder>& who) override {
        const android::sp<android::IBinder> binder = who.promote();
        died = binder.get();
        tid = currentTid();
        if (unlinkItself && binder != nullptr) unlinkStatus = binder->unlinkToDeath(this);
        ++calls;
    }
    std::atomic<bool> unlinkItself{false};
    std::atomic<int> calls{0};
    std::atomic<android::IBinder*> died{nullptr};
    std::atomic<int> tid{0};
    std::atomic<android::status_t> unlinkStatus{android::NO_ERROR};

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
// The SEQUENCE values `target` ran, once it has run `expected` of them; in
// *mostAtOnce the most it ran at the same time.
std::vector<int32_t> sequenceValues(const android::sp<android::IBinder>& target, int32_t expected,
                                    int32_t* mostAtOnce = nullptr);

// A child serving a TestService, and the test's proxy of it. Used by the
// thread that made it.
class ServedChild {
  public:
    explicit ServedChild(const std::vector<std::string>& options = {});

    const std::string& name() const { return mName; }
    ChildProcess& process() { return mProcess; }
    pid_t pid() const { return mProcess.pid(); }
    const android::sp<android::IBinder>& binder() const { return mBinder; }
    bool ready() const { return mBinder != nullptr; }
    // Waits up to `limit` for `pending`; past it, kills the child so that the
    // calls to it end, and says false.
    template <typename Result>
    bool finishedWithin(std::future<Result>& pending, std::chrono::milliseconds limit) {
        if (pending.wait_for(limit) == std::future_status::ready) return true;
        mProcess.kill(SIGKILL);
        pending.wait();
        return false;
    }

  private:
    std::string mName;
    ChildProcess mProcess;
    android::sp<android::IBinder> mBinder;
};

}  // namespace tvtest
