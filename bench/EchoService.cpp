#include "EchoService.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "BenchOptions.h"

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
            if (++mCount >= mNextTarget) {
                mNextTarget = INT64_MAX;
                mCounted.notify_all();
            }
            return NO_ERROR;
        }
        case AWAIT_COUNT:
            return awaitCount(data, reply);
        case TAKE_BODY: {
            static const char answer[kPayloadSize] = "got-the-body!!!";
            return reply == nullptr ? android::BAD_VALUE : reply->write(answer, sizeof answer);
        }
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
    const auto deadline = std::chrono::steady_clock::now() + kLongestCountWait;
    while (mCount < target) {
        // Every waiter that is still short sets its target again after a wake-up.
        mNextTarget = std::min(mNextTarget, target);
        if (mCounted.wait_until(lock, deadline) == std::cv_status::timeout) break;
    }
    return reply->writeInt64(mCount);
}
