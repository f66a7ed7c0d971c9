#pragma once

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <stdint.h>

#include <condition_variable>
#include <mutex>

// What the attacked process serves: calls a legitimate client measures, and a
// way for an attacker to hold the process's threads and one-way queues.
class AttackService : public android::BBinder {
  public:
    enum : uint32_t {
        ECHO = FIRST_CALL_TRANSACTION,  // int32 -> the same
        BLOCK,                          // waits until unblock(), at most a minute
        COUNT,                          // one-way int32: must come in order from 0
        COUNT_REPORT,  // int32 n: waits a while for n -> count, in order?; starts again from 0
    };

    void unblock();

  protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;

  private:
    android::status_t report(int32_t expected, android::Parcel* reply);

    std::mutex mLock;
    std::condition_variable mChanged;
    bool mUnblocked = false;
    int32_t mCount = 0;
    bool mInOrder = true;
};
