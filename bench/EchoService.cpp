#include "EchoService.h"

#include <chrono>
#include <thread>

using android::NO_ERROR;
using android::Parcel;
using android::status_t;

namespace {
constexpr std::chrono::milliseconds kSlowEchoDelay{5};
constexpr std::chrono::seconds kLongestCountWait{30};
}  // namespace

status_t EchoService::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    switch (code) {
        case ECHO:
            return echo(data, reply);
        case COUNT: {
            std::lock_guard<std::mutex> lock(mLock);
            ++mCount;
            mCounted.notify_all();
            return NO_ERROR;
        }
        case AWAIT_COUNT:
            return awaitCount(data, reply);
        case SLOW_ECHO:
            std::this_thread::sleep_for(kSlowEchoDelay);
            return echo(data, reply);
        default:
            return BBinder::onTransact(code, data, reply, flags);
    }
}

status_t EchoService::echo(const Parcel& data, Parcel* reply) {
    if (reply == nullptr) return android::BAD_VALUE;
    return reply->write(data.data(), data.dataSize());
}

status_t EchoService::awaitCount(const Parcel& data, Parcel* reply) {
    int64_t target = 0;
    if (reply == nullptr || data.readInt64(&target) != NO_ERROR) return android::BAD_VALUE;
    std::unique_lock<std::mutex> lock(mLock);
    mCounted.wait_for(lock, kLongestCountWait, [&] { return mCount >= target; });
    return reply->writeInt64(mCount);
}
