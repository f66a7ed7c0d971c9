#include "coupler/binder/monitor/MonitorHooks.h"

#include <binder/IPCThreadState.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "coupler/binder/service/ServiceCarrierCode.h"
#include "coupler/binder/sub-service/SubServiceCarrierCode.h"

namespace tavrin_binder {
namespace {

// Class names are short; a peer's request must not make the ring hoard memory.
constexpr size_t kMaxClassName = 255;

std::string boundedClassName(const char* name) {
    if (name == nullptr) return "";
    return std::string(name, strnlen(name, kMaxClassName));
}

double secondsSinceEpoch() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double microsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
        .count();
}

// The kind of a carrier's transaction; false for those that are not calls.
bool kindOf(MonitoredCall::Carrier type, uint32_t code, CallKind* kind) {
    if (code == ServiceCarrierCode::IPC_CALL) {  // the same code at both carriers
        *kind = CallKind::kCall;
        return true;
    }
    if (type == MonitoredCall::Carrier::kService &&
        code == ServiceCarrierCode::SUB_SERVICE_IPC_CALL) {
        *kind = CallKind::kUpCall;
        return true;
    }
    if (type == MonitoredCall::Carrier::kSubService &&
        code == SubServiceCarrierCode::MASTER_IPC_CALL) {
        *kind = CallKind::kMasterCall;
        return true;
    }
    return false;
}

// The class name of the value in a request, read ahead of the carrier: after
// the ClientInfo of a client's call, after the sub-service's name of an
// up-call, first in a master's call. The carrier reads from the start again.
std::string peekClassName(CallKind kind, const android::Parcel& data) {
    data.setDataPosition(0);
    if (kind == CallKind::kCall) {
        for (int field = 0; field < 3; ++field) data.readInt32();
    } else if (kind == CallKind::kUpCall) {
        data.readCString();
    }
    std::string className = boundedClassName(data.readCString());
    data.setDataPosition(0);
    return className;
}

}  // namespace

void MonitoredCall::start(const void* carrier, Carrier type, uint32_t code,
                          const android::Parcel& data) {
    CallKind kind;
    if (!kindOf(type, code, &kind)) return;
    Pending& pending = mPending.emplace();
    pending.start = std::chrono::steady_clock::now();
    CallRecord& record = pending.record;
    record.time = secondsSinceEpoch();
    record.from = android::IPCThreadState::self()->getCallingPid();
    record.to = getpid();
    record.source = carrier;
    record.kind = kind;
    record.className = peekClassName(kind, data);
    record.bytes = data.dataSize();
}

// A carrier that could not read the request answers nothing at all.
void MonitoredCall::record(const android::Parcel& reply) {
    mPending->record.micros = microsSince(mPending->start);
    mPending->record.status = reply.dataSize() > 0 ? android::NO_ERROR : android::BAD_VALUE;
    CallMonitor::self().record(std::move(mPending->record));
}

void MonitoredNotice::start(const void* notifierManager, CallKind kind, int clientPid,
                            tavrin::IPCClass& value) {
    Pending& pending = mPending.emplace();
    pending.start = std::chrono::steady_clock::now();
    CallRecord& record = pending.record;
    record.time = secondsSinceEpoch();
    record.from = getpid();
    record.to = clientPid;
    record.source = notifierManager;
    record.kind = kind;
    record.className = boundedClassName(value.getClassName().c_str());
}

void MonitoredNotice::record(android::status_t status, const android::Parcel& request) {
    CallRecord& record = mPending->record;
    if (record.kind == CallKind::kNotifyWait) record.micros = microsSince(mPending->start);
    record.bytes = request.dataSize();
    record.status = status;
    CallMonitor::self().record(std::move(record));
}

}  // namespace tavrin_binder
