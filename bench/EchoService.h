#pragma once

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <stdint.h>

#include <condition_variable>
#include <mutex>

// The service that the binder measurements call.
class EchoService : public android::BBinder {
  public:
    enum : uint32_t {
        // Answers the request's payload.
        ECHO = FIRST_CALL_TRANSACTION,
        // One-way; only counted.
        COUNT,
        // Answers once COUNT has arrived as often as the int64 in the request says.
        AWAIT_COUNT,
        // Answers after a few milliseconds, to keep pool threads busy.
        SLOW_ECHO,
        // Answers 16 bytes, whatever the request carries.
        TAKE_BODY,
    };

  protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;

  private:
    android::status_t echo(const android::Parcel& data, android::Parcel* reply);
    android::status_t awaitCount(const android::Parcel& data, android::Parcel* reply);

    std::mutex mLock;
    std::condition_variable mCounted;
    int64_t mCount = 0;
    // The lowest count a waiter waits for: COUNT wakes waiters only when it
    // is reached, not once per message, like the raw receiver that answers
    // once per batch.
    int64_t mNextTarget = INT64_MAX;
};
