// Sends transactions straight to the library's binder objects, made in this
// process: a service's carrier (fresh for each input), the process's
// sub-service carrier, and a client's notification receiver (fresh for each
// input). The application behind them echoes every value it is given.
//
// Input: one byte choosing the object, then up to kMaxTransactions of: code
// (uint32), flags byte (bit 0: one-way), data as a chunk. Two rewrites keep
// runs short and seeds portable: a GET_SUB_SERVICE waits 0 ms at most, and a
// notification addressed to pid 0 goes to this process.

#include <binder/IBinder.h>

#include <memory>

#include "FuzzFormats.h"
#include "FuzzSupport.h"
#include "FuzzValues.h"
#include "IService.h"
#include "ISubService.h"
#include "SubServiceInfo.h"
#include "coupler/binder/clients/ClientsManager.h"
#include "coupler/binder/clients/NotificationReceiver.h"
#include "coupler/binder/clients/ServiceProxy.h"
#include "coupler/binder/service/ServiceCarrier.h"
#include "coupler/binder/service/ServiceCarrierCode.h"
#include "coupler/binder/sub-service/SubServiceCarrier.h"
#include "coupler/binder/sub-service/SubServiceCarrierCode.h"
#include "protocol/UniversalSerialization.h"

namespace {

using android::Parcel;
using android::sp;
using tavrin::ClientInfo;
using tavrin::IPCClass;
using tavrin::tv_sp;
using tavrin_binder::ServiceCarrierCode;
using tavrin_binder::SubServiceCarrierCode;
using tavrin_binder::UniversalSerialization;

constexpr int kMaxTransactions = 8;
using fuzz::CarrierTarget;

tavrin::Protocol& protocol() {
    static auto* made = new tavrin::Protocol(fuzz::valueProtocol());
    return *made;
}

tv_sp<IPCClass> echo(IPCClass& value) {
    Parcel parcel;
    UniversalSerialization::writeValue(value, parcel);
    parcel.setDataPosition(0);
    return tv_sp<IPCClass>(UniversalSerialization::readValue(protocol(), parcel));
}

// The application behind the carrier. The sub-service names "denied",
// "unknown" and "unconfigured" take the other ways through a registration.
class Service : public tavrin::IService {
  public:
    tv_sp<IPCClass> onAction(IPCClass* action, ClientInfo&) override { return echo(*action); }
    void setNotifier(tavrin::INotifier*) override {}
    void onClientDied(int) override {}
    bool acceptSubService(std::string& name) override { return name != "denied"; }
    void onSubServiceRemoved(std::string&) override {}
    void onSubServiceRegistered(std::string&, tavrin::ISubServiceClient*) override {}
    tavrin::Protocol* getSubServiceProtocol(std::string& name) override {
        return name == "unknown" ? nullptr : &protocol();
    }
    tv_sp<IPCClass> getSubServiceConfig(std::string& name) override {
        if (name == "unconfigured") return tv_sp<IPCClass>(nullptr);
        auto* config = new fuzz::Boxed<tavrin::IPCString, fuzz::kString>();
        config->value.set(name);
        return tv_sp<IPCClass>(config);
    }
    tv_sp<IPCClass> onSubServiceAction(IPCClass* action, std::string&) override {
        return echo(*action);
    }
};

class SubService : public tavrin::ISubService {
  public:
    void onConfig(IPCClass*) override {}
    tv_sp<IPCClass> onMasterAction(IPCClass* action) override { return echo(*action); }
    tv_sp<IPCClass> onAction(IPCClass* action, ClientInfo&) override { return echo(*action); }
    void setMasterServiceProxy(tavrin::IMasterServiceProxy*) override {}
    void setNotifier(tavrin::INotifier*) override {}
};

class ClientNotifier : public tavrin::IClientNotifier {
  public:
    void onNotify(IPCClass&) override {}
    tv_sp<IPCClass> onNotifyEx(IPCClass& value) override { return echo(value); }
};

tv_sp<tavrin::IService>& service() {
    static auto* made = new tv_sp<tavrin::IService>(new Service());
    return *made;
}

sp<android::BBinder> subServiceCarrier() {
    static tavrin_binder::SubServiceCarrier* const carrier = [] {
        tavrin::SubServiceInfo info("fuzz.sub", "fuzz.service", "Binder");
        tv_sp<tavrin::ISubService> subService(new SubService());
        return tavrin_binder::SubServiceCarrier::self(info, subService, protocol(), protocol());
    }();
    return carrier;
}

// The clients of one service proxy, each with a notifier: a service client
// (tag 1, objID 1) and a sub-service client (tag 2, objID 2).
tv_sp<tavrin_binder::ClientsManager>& clients() {
    static auto* made = [] {
        auto* manager =
            new tv_sp<tavrin_binder::ClientsManager>(new tavrin_binder::ClientsManager());
        tv_sp<tavrin_binder::ServiceProxy> proxy(
            new tavrin_binder::ServiceProxy(*manager, "fuzz.service", protocol()));
        tv_sp<tavrin::IClientNotifier> notifier(new ClientNotifier());
        std::string subServiceName = "fuzz.sub";
        (*manager)->create(proxy, 1)->setNotifier(notifier);
        (*manager)->create(proxy, subServiceName, 1, 2)->setNotifier(notifier);
        return manager;
    }();
    return *made;
}

sp<android::BBinder> makeTarget(CarrierTarget target) {
    switch (target) {
        case fuzz::kServiceCarrier:
            return new tavrin_binder::ServiceCarrier(service(), protocol());
        case fuzz::kSubServiceCarrier:
            return subServiceCarrier();
        default:
            return new tavrin_binder::NotificationReceiver("[Tavrin][Fuzz]", clients(), protocol());
    }
}

// The codes whose outcome travels in the reply, under a status of NO_ERROR.
bool answersInReply(CarrierTarget target, uint32_t code) {
    switch (target) {
        case fuzz::kServiceCarrier:
            return code <= ServiceCarrierCode::REGISTER_SUB_SERVICE;
        case fuzz::kSubServiceCarrier:
            return code == SubServiceCarrierCode::ADD_NOTIFIER ||
                   code == SubServiceCarrierCode::IPC_CALL ||
                   code == SubServiceCarrierCode::MASTER_IPC_CALL;
        default:
            return true;
    }
}

// GET_SUB_SERVICE: name, then the time-out in ms, cut to 0 (negative ones stay).
void boundWait(fuzz::Bytes& data) {
    if (data.empty()) return;
    const auto* nul = static_cast<const uint8_t*>(memchr(data.data(), 0, data.size()));
    if (nul == nullptr) return;
    const size_t at = (size_t(nul - data.data()) + 4) & ~size_t{3};
    int32_t timeout;
    if (at + sizeof(timeout) > data.size()) return;
    memcpy(&timeout, data.data() + at, sizeof(timeout));
    timeout = std::min(timeout, 0);
    memcpy(data.data() + at, &timeout, sizeof(timeout));
}

// A notification starts with the addressed client's pid.
void addressThisProcess(fuzz::Bytes& data) {
    int32_t pid;
    if (data.size() < sizeof(pid)) return;
    memcpy(&pid, data.data(), sizeof(pid));
    if (pid != 0) return;
    pid = getpid();
    memcpy(data.data(), &pid, sizeof(pid));
}

// An answer flagged as a value must read back as one.
void checkAnswer(const Parcel& reply) {
    reply.setDataPosition(0);
    if (reply.readInt32() != 1) return;
    std::unique_ptr<IPCClass> value(UniversalSerialization::readValue(protocol(), reply));
    FUZZ_CHECK(value != nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    const auto target = static_cast<CarrierTarget>(input.byte() % fuzz::kCarrierTargetCount);
    sp<android::BBinder> binder = makeTarget(target);
    for (int i = 0; i < kMaxTransactions && !input.empty(); ++i) {
        const uint32_t code = input.u32();
        const bool oneWay = (input.byte() & 1) != 0;
        fuzz::Bytes body = input.chunk();
        if (target == fuzz::kServiceCarrier && code == ServiceCarrierCode::GET_SUB_SERVICE) {
            boundWait(body);
        }
        if (target == fuzz::kReceiver) addressThisProcess(body);
        Parcel request;
        fuzz::fillReceived(request, body);
        Parcel reply;
        const android::status_t status = binder->transact(
            code, request, oneWay ? nullptr : &reply, oneWay ? android::IBinder::FLAG_ONEWAY : 0);
        if (answersInReply(target, code)) FUZZ_CHECK(status == android::NO_ERROR);
        checkAnswer(reply);
    }
    return 0;
}
