#pragma once

#include <binder/Parcel.h>
#include <stdint.h>

#include <chrono>
#include <optional>

#include "IPCClass.h"
#include "coupler/binder/monitor/CallMonitor.h"

namespace tavrin_binder {

// The carriers' hooks for monitors. With no monitor attached each costs one
// relaxed load of CallMonitor::attached(); only then is anything read,
// timed or recorded.

// One incoming transaction of a carrier: made before it is dispatched,
// finished with the reply once it was answered.
class MonitoredCall {
  public:
    enum class Carrier { kService, kSubService };

    MonitoredCall(const void* carrier, Carrier type, uint32_t code, const android::Parcel& data) {
        if (CallMonitor::attached()) start(carrier, type, code, data);
    }
    // Records the call and passes `status` through.
    android::status_t finish(android::status_t status, const android::Parcel& reply) {
        if (mPending) record(reply);
        return status;
    }

  private:
    struct Pending {
        CallRecord record;
        std::chrono::steady_clock::time_point start;
    };
    void start(const void* carrier, Carrier type, uint32_t code, const android::Parcel& data);
    void record(const android::Parcel& reply);

    std::optional<Pending> mPending;
};

// One notification sent to a client process, one-way or waiting for its answer.
class MonitoredNotice {
  public:
    MonitoredNotice(const void* notifierManager, CallKind kind, int clientPid,
                    tavrin::IPCClass& value) {
        if (CallMonitor::attached()) start(notifierManager, kind, clientPid, value);
    }
    // Records the notification as sent with `status` and passes it through.
    android::status_t finish(android::status_t status, const android::Parcel& request) {
        if (mPending) record(status, request);
        return status;
    }

  private:
    struct Pending {
        CallRecord record;
        std::chrono::steady_clock::time_point start;
    };
    void start(const void* notifierManager, CallKind kind, int clientPid, tavrin::IPCClass& value);
    void record(android::status_t status, const android::Parcel& request);

    std::optional<Pending> mPending;
};

}  // namespace tavrin_binder
