#include "TestSupport.h"

#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <map>
#include <mutex>

#include "TestService.h"

using namespace android;

namespace tvtest {

namespace {

class TestRegistry : public BBinder {
  public:
    enum { PUBLISH = IBinder::FIRST_CALL_TRANSACTION, LOOKUP };

  protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code != PUBLISH && code != LOOKUP) return BBinder::onTransact(code, data, reply, flags);
        const std::string name = String8(data.readString16()).c_str();
        const sp<IBinder> object = code == PUBLISH ? data.readStrongBinder() : nullptr;
        std::lock_guard<std::mutex> guard(mLock);
        if (code == PUBLISH) {
            mEntries[name] = object;
            return NO_ERROR;
        }
        auto it = mEntries.find(name);
        return reply->writeStrongBinder(it == mEntries.end() ? nullptr : it->second);
    }

  private:
    std::mutex mLock;
    std::map<std::string, sp<IBinder>> mEntries;
};

// The first int32 of the reply to `code` with `data`; status in *status.
int32_t firstInt32(const sp<IBinder>& binder, uint32_t code, const Parcel& data, status_t* status) {
    Parcel reply;
    const status_t result = binder->transact(code, data, &reply);
    if (status != nullptr) *status = result;
    return reply.readInt32();
}

}  // namespace

void becomeTestContextManager() {
    std::string context = "tvtest-" + std::to_string(getpid());
    setenv("TAVRIN_BINDER_CONTEXT", context.c_str(), 1);
    sp<ProcessState> process = ProcessState::self();
    if (!process->becomeContextManager()) abort();
    android::IPCThreadState::self()->setTheContextObject(new TestRegistry());
    process->startThreadPool();
}

void publish(const std::string& name, const sp<IBinder>& object) {
    sp<IBinder> registry = ProcessState::self()->getContextObject(nullptr);
    Parcel data;
    Parcel reply;
    data.writeString16(String16(name.c_str()));
    data.writeStrongBinder(object);
    if (registry == nullptr ||
        registry->transact(TestRegistry::PUBLISH, data, &reply) != NO_ERROR) {
        abort();
    }
}

sp<IBinder> lookup(const std::string& name, std::chrono::milliseconds timeout) {
    sp<IBinder> found;
    waitUntil(
        [&] {
            sp<IBinder> registry = ProcessState::self()->getContextObject(nullptr);
            if (registry == nullptr) return false;
            Parcel data;
            Parcel reply;
            data.writeString16(String16(name.c_str()));
            if (registry->transact(TestRegistry::LOOKUP, data, &reply) != NO_ERROR) return false;
            found = reply.readStrongBinder();
            return found != nullptr;
        },
        timeout);
    return found;
}

status_t Recorder::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    if (code != TestService::ECHO) return BBinder::onTransact(code, data, reply, flags);
    lastTid = currentTid();
    lastCallingPid = android::IPCThreadState::self()->getCallingPid();
    return reply->writeInt32(data.readInt32());
}

int currentTid() {
    return static_cast<int>(syscall(SYS_gettid));
}

size_t countPoolThreads(pid_t pid) {
    return tvproc::countEntries(
        "/proc/" + std::to_string(pid) + "/task", [&](int, const char* tid) {
            return tvproc::processNameOf(atoi(tid)).rfind("tvbinder:", 0) == 0;
        });
}

int32_t callInt(const sp<IBinder>& binder, uint32_t code, int32_t argument, status_t* status) {
    Parcel data;
    data.writeInt32(argument);
    return firstInt32(binder, code, data, status);
}

status_t sendObject(const sp<IBinder>& service, uint32_t code, const sp<IBinder>& object,
                    uint32_t flags) {
    Parcel data;
    Parcel reply;
    if (object != nullptr) data.writeStrongBinder(object);
    return service->transact(code, data, &reply, flags);
}

int32_t heldCall(const sp<IBinder>& service, uint32_t code, int32_t argument, status_t* status) {
    Parcel data;
    data.writeUint32(code);
    data.writeInt32(argument);
    return firstInt32(service, TestService::HELD_CALL, data, status);
}

sp<IBinder> newObject(const sp<IBinder>& service) {
    Parcel data;
    Parcel reply;
    if (service->transact(TestService::NEW_OBJECT, data, &reply) != NO_ERROR) return nullptr;
    return reply.readStrongBinder();
}

std::vector<int32_t> sequenceValues(const sp<IBinder>& target, int32_t expected,
                                    int32_t* mostAtOnce) {
    Parcel data;
    Parcel reply;
    data.writeInt32(expected);
    std::vector<int32_t> values;
    if (target->transact(TestService::SEQUENCE_VALUES, data, &reply) != NO_ERROR) return values;
    for (int32_t count = reply.readInt32(); count > 0 && reply.dataAvail() >= 4; --count) {
        values.push_back(reply.readInt32());
    }
    if (mostAtOnce != nullptr) *mostAtOnce = reply.readInt32();
    return values;
}

ServedChild::ServedChild(const std::vector<std::string>& options)
    : mName(uniqueName("service")), mProcess("service", [&] {
          std::vector<std::string> args{mName};
          args.insert(args.end(), options.begin(), options.end());
          return args;
      }()) {
    if (mProcess.readLine() == "ready") mBinder = lookup(mName);
}

}  // namespace tvtest
