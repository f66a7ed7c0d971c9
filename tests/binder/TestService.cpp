#include "TestService.h"

#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <optional>
#include <sstream>
#include <string>

#include "ChildProcess.h"
#include "TestSupport.h"

using android::IBinder;
using android::NO_ERROR;
using android::Parcel;
using android::sp;
using android::status_t;

namespace tvtest {

namespace {

constexpr auto kWaitLimit = std::chrono::seconds(20);

// Objects made by NEW_OBJECT that are still alive in this process.
std::atomic<int> gLiveObjects{0};

// Makes call `code` with `value` on `target` and answers with its result.
status_t relay(const sp<IBinder>& target, uint32_t code, int32_t value, Parcel* reply) {
    if (target == nullptr) return android::BAD_VALUE;
    status_t status;
    const int32_t result = callInt(target, code, value, &status);
    return status != NO_ERROR ? status : reply->writeInt32(result);
}

// Takes descriptors, as an application would, until only `spare` are left
// below the limit.
void holdDescriptorsLeaving(size_t spare) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const int devNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
    while (devNull >= 0 && countOpenFds(getpid()) + spare < limit.rlim_cur &&
           fcntl(devNull, F_DUPFD_CLOEXEC, 0) >= 0) {
    }
}

// Makes every thread started from now on fail to start: no stack that
// large can be mapped.
void refuseNewThreads() {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, size_t{1} << 46);
    pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);
}

// Runs a "relay" command from this thread (see serveTestService).
std::string relayCallBackFromHere(const std::string& command, TestService& service) {
    std::istringstream words(command);
    std::string verb, middleName, farName, blocked;
    words >> verb >> middleName >> farName >> blocked;
    if (blocked == "blocked" && !service.waitUntilBlocked()) return "not blocked";
    const sp<IBinder> middle = lookup(middleName);
    const sp<IBinder> far = lookup(farName);
    if (middle == nullptr || far == nullptr) return "not found";
    const sp<Recorder> recorder = new Recorder();
    Parcel data;
    Parcel reply;
    data.writeStrongBinder(far);
    data.writeStrongBinder(recorder);
    data.writeInt32(0);
    const status_t status = middle->transact(TestService::RELAY_CALL_BACK, data, &reply);
    return std::to_string(status) + (recorder->lastTid == currentTid() ? " 1" : " 0");
}

}  // namespace

bool TestService::waitUntilBlocked() {
    std::unique_lock<std::mutex> guard(mLock);
    return mChanged.wait_for(guard, kWaitLimit, [this] { return mBlocked; });
}

const android::String16& TestService::getInterfaceDescriptor() const {
    static const android::String16* const kDescriptor =
        new android::String16("tavrin.test.Service");
    return *kDescriptor;
}

TestService::~TestService() {
    if (mCounted) --gLiveObjects;
}

status_t TestService::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    switch (code) {
        case ECHO:
            return reply->writeInt32(data.readInt32());
        case GET_CALLER:
            reply->writeInt32(android::IPCThreadState::self()->getCallingPid());
            return reply->writeInt32(
                static_cast<int32_t>(android::IPCThreadState::self()->getCallingUid()));
        case CALL_BACK: {
            const sp<IBinder> target = data.readStrongBinder();
            const status_t status = relay(target, ECHO, data.readInt32(), reply);
            if (status != NO_ERROR) return status;
            // The caller's identity is back once the nested call is done.
            return reply->writeInt32(android::IPCThreadState::self()->getCallingPid());
        }
        case HOLD: {
            std::lock_guard<std::mutex> guard(mLock);
            mHeld = data.readStrongBinder();
            return NO_ERROR;
        }
        case DROP: {
            sp<IBinder> dropped;
            std::lock_guard<std::mutex> guard(mLock);
            dropped = std::move(mHeld);
            return NO_ERROR;
        }
        case SEQUENCE:
            return recordSequence(data.readInt32());
        case BLOCK: {
            std::unique_lock<std::mutex> guard(mLock);
            mBlocked = true;
            mChanged.notify_all();
            mChanged.wait_for(guard, kWaitLimit, [this] { return mUnblocked; });
            return NO_ERROR;
        }
        case UNBLOCK: {
            std::lock_guard<std::mutex> guard(mLock);
            mUnblocked = true;
            mChanged.notify_all();
            return reply->writeInt32(mBlocked ? 1 : 0);
        }
        case WRITE_FD: {
            int fd = data.readFileDescriptor();
            const char* text = data.readCString();
            if (fd < 0 || text == nullptr) return android::BAD_VALUE;
            ssize_t written = write(fd, text, strlen(text));
            return reply->writeInt32(static_cast<int32_t>(written));
        }
        case BARRIER:
            return barrier(data.readInt32(), reply);
        case FAIL:
            return -EINVAL;
        case SAME_AS_HELD: {
            const sp<IBinder> candidate = data.readStrongBinder();
            return reply->writeInt32(candidate != nullptr && candidate == held() ? 1 : 0);
        }
        case HELD_CALL: {
            const uint32_t heldCode = data.readUint32();
            return relay(held(), heldCode, data.readInt32(), reply);
        }
        case GET_HELD:
            return reply->writeStrongBinder(held());
        case GIVE_HELD: {
            const sp<IBinder> target = data.readStrongBinder();
            return target == nullptr ? android::BAD_VALUE : sendObject(target, HOLD, held());
        }
        case ECHO_BYTES: {
            int32_t size = data.readInt32();
            const void* bytes = size >= 0 ? data.readInplace(static_cast<size_t>(size)) : nullptr;
            if (bytes == nullptr) return android::BAD_VALUE;
            reply->writeInt32(size);
            return reply->write(bytes, static_cast<size_t>(size));
        }
        case SEQUENCE_VALUES:
            return reportSequence(data.readInt32(), reply);
        case NEW_OBJECT: {
            sp<TestService> object = new TestService();
            object->mCounted = true;
            ++gLiveObjects;
            return reply->writeStrongBinder(object);
        }
        case LIVE_OBJECTS:
            return reply->writeInt32(gLiveObjects.load());
        case SET_REPLY_ERROR:
            reply->setError(data.readInt32());
            return NO_ERROR;
        case RELAY_CALL_BACK:
            return relayCallBack(data, reply);
        case EXEC:
            execl("/bin/sleep", "sleep", "60", static_cast<char*>(nullptr));
            return -errno;
        default:
            return BBinder::onTransact(code, data, reply, flags);
    }
}

sp<IBinder> TestService::held() {
    std::lock_guard<std::mutex> guard(mLock);
    return mHeld;
}

status_t TestService::recordSequence(int32_t value) {
    {
        std::lock_guard<std::mutex> guard(mLock);
        ++mRunningOneWays;
        mMaxRunningOneWays = std::max(mMaxRunningOneWays, mRunningOneWays);
    }
    // Gives a second one-way every chance to overlap, were it allowed to.
    usleep(200);
    std::lock_guard<std::mutex> guard(mLock);
    --mRunningOneWays;
    mSequence.push_back(value);
    mChanged.notify_all();
    return NO_ERROR;
}

status_t TestService::reportSequence(int32_t expected, Parcel* reply) {
    std::unique_lock<std::mutex> guard(mLock);
    mChanged.wait_for(guard, kWaitLimit,
                      [&] { return mSequence.size() >= static_cast<size_t>(expected); });
    reply->writeInt32(static_cast<int32_t>(mSequence.size()));
    for (int32_t value : mSequence) reply->writeInt32(value);
    return reply->writeInt32(mMaxRunningOneWays);
}

status_t TestService::relayCallBack(const Parcel& data, Parcel* reply) {
    const sp<IBinder> target = data.readStrongBinder();
    const sp<IBinder> object = data.readStrongBinder();
    if (target == nullptr || object == nullptr) return android::BAD_VALUE;
    Parcel request;
    Parcel answer;
    request.writeStrongBinder(object);
    request.writeInt32(data.readInt32());
    const status_t status = target->transact(CALL_BACK, request, &answer);
    if (status != NO_ERROR) return status;
    reply->writeInt32(answer.readInt32());
    return reply->writeInt32(answer.readInt32());
}

status_t TestService::barrier(int32_t parties, Parcel* reply) {
    std::unique_lock<std::mutex> guard(mLock);
    ++mInsideBarrier;
    mBarrierThreads.insert(currentTid());
    mChanged.notify_all();
    bool met = mChanged.wait_for(guard, kWaitLimit, [&] { return mInsideBarrier >= parties; });
    reply->writeInt32(met ? 1 : 0);
    return reply->writeInt32(static_cast<int32_t>(mBarrierThreads.size()));
}

int serveTestService(const std::vector<std::string>& args) {
    if (args.empty()) return 2;
    const auto option = [&](const std::string& prefix) -> std::optional<std::string> {
        for (const std::string& given : args) {
            if (given.rfind(prefix, 0) == 0) return given.substr(prefix.size());
        }
        return std::nullopt;
    };
    // Before the transport starts, which sizes its limits from it.
    if (const auto soft = option("--nofile=")) {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = std::min<rlim_t>(std::stoul(*soft), limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    sp<android::ProcessState> process = android::ProcessState::self();
    if (const auto most = option("--max-threads=")) {
        process->setThreadPoolMaxThreadCount(std::stoul(*most));
    }
    if (const auto name = option("--name=")) process->setProcessName(name->c_str());
    if (!option("--no-pool")) process->startThreadPool();
    if (option("--no-new-threads")) refuseNewThreads();
    sp<TestService> service = new TestService();
    publish(args[0], service);
    if (const auto spare = option("--leave-fds=")) holdDescriptorsLeaving(std::stoul(*spare));
    ParentChannel::send("ready");
    // "" means the test went away.
    for (;;) {
        std::string command = ParentChannel::receive(std::chrono::hours(1));
        if (command == "quit" || command.empty()) return 0;
        if (command.rfind("relay ", 0) == 0) {
            ParentChannel::send(relayCallBackFromHere(command, *service));
        }
    }
}

TVTEST_CHILD_ROLE(service) {
    return serveTestService(args);
}

}  // namespace tvtest
