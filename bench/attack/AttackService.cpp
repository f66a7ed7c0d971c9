#include "AttackService.h"

#include <chrono>

using android::NO_ERROR;
using android::Parcel;
using android::status_t;

namespace {
constexpr std::chrono::minutes kLongestBlock{1};
constexpr std::chrono::seconds kLongestReportWait{10};
}  // namespace

void AttackService::unblock() {
    std::lock_guard<std::mutex> guard(mLock);
    mUnblocked = true;
    mChanged.notify_all();
}

status_t AttackService::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                   uint32_t flags) {
    switch (code) {
        case ECHO:
            return reply->writeInt32(data.readInt32());
        case BLOCK: {
            std::unique_lock<std::mutex> guard(mLock);
            mChanged.wait_for(guard, kLongestBlock, [this] { return mUnblocked; });
            return NO_ERROR;
        }
        case COUNT: {
            const int32_t value = data.readInt32();
            std::lock_guard<std::mutex> guard(mLock);
            mInOrder = mInOrder && value == mCount;
            ++mCount;
            mChanged.notify_all();
            return NO_ERROR;
        }
        case COUNT_REPORT:
            return report(data.readInt32(), reply);
        default:
            return BBinder::onTransact(code, data, reply, flags);
    }
}

status_t AttackService::report(int32_t expected, Parcel* reply) {
    std::unique_lock<std::mutex> guard(mLock);
    mChanged.wait_for(guard, kLongestReportWait, [&] { return mCount >= expected; });
    reply->writeInt32(mCount);
    const status_t status = reply->writeInt32(mInOrder ? 1 : 0);
    mCount = 0;
    mInOrder = true;
    return status;
}
