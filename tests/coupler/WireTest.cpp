// The carriers' wire protocol, spoken by hand: every code's exact reply
// bytes, the layout of notifications, the sub-service registry and its
// waiters, and requests no well-behaved peer sends.
#include <binder/Binder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <vector>

#include "ContextInspector.h"
#include "CouplerTestSupport.h"
#include "ProcSupport.h"

namespace coupler_test {
namespace {

using android::IBinder;
using android::Parcel;
using android::sp;
using android::status_t;
using Bytes = std::vector<uint8_t>;

// The carriers' codes, as a peer knows them.
enum : uint32_t {
    ADD_NOTIFIER = 0,
    REMOVE_NOTIFIER = 1,
    IPC_CALL = 2,
    GET_SUB_SERVICE = 3,
    SUB_SERVICE_IPC_CALL = 4,
    REGISTER_SUB_SERVICE = 5,
    MASTER_IPC_CALL = 6,
};

// One item of a message: an int32, a C string or an object. A value in its
// universal form is two C strings: its class name, then the Msg's text.
class Item {
  public:
    Item(int32_t number) : mWrite([=](Parcel& p) { p.writeInt32(number); }) {}
    Item(const char* text) : Item(std::string(text)) {}
    Item(const std::string& text) : mWrite([=](Parcel& p) { p.writeCString(text.c_str()); }) {}
    template <typename T>
    Item(const sp<T>& object) : mWrite([=](Parcel& p) { p.writeStrongBinder(object); }) {}
    void writeTo(Parcel& parcel) const { mWrite(parcel); }

  private:
    std::function<void(Parcel&)> mWrite;
};
using Message = std::vector<Item>;

Bytes bytesOf(const Parcel& parcel) {
    return Bytes(parcel.data(), parcel.data() + parcel.dataSize());
}

Bytes layout(const Message& message) {
    Parcel parcel;
    for (const Item& item : message) item.writeTo(parcel);
    return bytesOf(parcel);
}

// A result holding a Msg.
Message result(const std::string& text) {
    return {1, "Msg", text};
}

struct Answer {
    status_t status;
    Bytes bytes;
};

Answer ask(const sp<IBinder>& binder, uint32_t code, const Message& request) {
    Parcel data;
    Parcel reply;
    for (const Item& item : request) item.writeTo(data);
    const status_t status = binder->transact(code, data, &reply);
    return {status, bytesOf(reply)};
}

// A GET_SUB_SERVICE for `name` that waits up to `timeoutMs`, on a thread of
// its own: the reply's bytes and how long it took.
std::future<std::pair<Bytes, std::chrono::milliseconds>> waitFor(const sp<IBinder>& carrier,
                                                                 const char* name,
                                                                 int32_t timeoutMs) {
    return std::async(std::launch::async, [=] {
        const auto start = std::chrono::steady_clock::now();
        Bytes bytes = ask(carrier, GET_SUB_SERVICE, {name, timeoutMs}).bytes;
        return std::make_pair(bytes, std::chrono::duration_cast<std::chrono::milliseconds>(
                                         std::chrono::steady_clock::now() - start));
    });
}

void expectAnswer(const sp<IBinder>& binder, uint32_t code, const Message& request,
                  const Message& expected) {
    const Answer answer = ask(binder, code, request);
    EXPECT_EQ(answer.status, android::NO_ERROR) << "code " << code;
    EXPECT_EQ(answer.bytes, layout(expected)) << "code " << code;
}

// A notifier or sub-service object of this process: keeps what it receives
// and answers synchronous requests with a fixed result.
class RawObject : public android::BBinder {
  public:
    struct Received {
        uint32_t code;
        uint32_t flags;
        Bytes bytes;
    };

    std::vector<Received> received() {
        std::lock_guard<std::mutex> hold(mLock);
        return mReceived;
    }

  protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        {
            std::lock_guard<std::mutex> hold(mLock);
            mReceived.push_back({code, flags, bytesOf(data)});
        }
        if ((flags & FLAG_ONEWAY) == 0 && reply != nullptr) {
            for (const Item& item : result("raw answer")) item.writeTo(*reply);
        }
        return android::NO_ERROR;
    }

  private:
    std::mutex mLock;
    std::vector<Received> mReceived;
};

sp<IBinder> lookUp(const std::string& name) {
    return android::defaultServiceManager()->getService(android::String16(name.c_str()));
}

// A call from this process as client (tag 5, objID 3) with a value.
Message callWith(const char* text, const char* className = "Msg") {
    return {getpid(), 5, 3, className, text};
}

class Wire : public testing::Test {
  protected:
    void SetUp() override {
        android::ProcessState::self()->startThreadPool();
        mName = uniqueName("svc");
        mService.reset(new tvtest::ChildProcess("service", {mName}));
        mCarrier = lookUp(mName);
        ASSERT_NE(mCarrier, nullptr);
    }

    std::string mName;
    std::unique_ptr<tvtest::ChildProcess> mService;
    sp<IBinder> mCarrier;
};

TEST_F(Wire, ServiceAndSubServiceCodesAnswerExactlyAndNotificationsHaveTheirLayout) {
    sp<RawObject> notifier = new RawObject();
    expectAnswer(mCarrier, ADD_NOTIFIER, {notifier}, {0});
    expectAnswer(mCarrier, ADD_NOTIFIER, {}, {-1});

    // From inside the call the service notifies one-way, then asks.
    expectAnswer(mCarrier, IPC_CALL, callWith("notify"), result("answer raw answer"));
    ASSERT_TRUE(tvproc::waitUntil([&] { return notifier->received().size() == 2; }, 20s));
    for (const RawObject::Received& notification : notifier->received()) {
        const bool oneWay = (notification.flags & IBinder::FLAG_ONEWAY) != 0;
        EXPECT_EQ(notification.code, 0u);
        EXPECT_EQ(notification.bytes,
                  layout({getpid(), 5, 3, oneWay ? 0 : 1, "Msg", oneWay ? "note" : "ask"}));
    }
    expectAnswer(mCarrier, IPC_CALL, callWith("nothing"), {0});
    expectAnswer(mCarrier, IPC_CALL, callWith("x", "Stranger"), {});
    expectAnswer(mCarrier, IPC_CALL, {}, {});
    expectAnswer(mCarrier, REMOVE_NOTIFIER, {}, {0});
    expectAnswer(mCarrier, REMOVE_NOTIFIER, {}, {0});
    // Unknown codes get the platform's default handling.
    EXPECT_EQ(ask(mCarrier, 6, {}).status, android::UNKNOWN_TRANSACTION);
    EXPECT_EQ(ask(mCarrier, IBinder::INTERFACE_TRANSACTION, {}).status, android::NO_ERROR);

    // A sub-service's carrier answers its own codes and no others.
    const std::string subName = uniqueName("sub");
    tvtest::ChildProcess subService("subservice", {subName, mName});
    ASSERT_TRUE(awaitLine(subService, "published 0"));
    sp<IBinder> carrier = tavrin_cli::ContextInspector::subService(mCarrier, subName);
    ASSERT_NE(carrier, nullptr);

    expectAnswer(carrier, ADD_NOTIFIER, {notifier}, {0});
    expectAnswer(carrier, ADD_NOTIFIER, {}, {-1});
    expectAnswer(carrier, IPC_CALL, callWith("whoami"),
                 result("sub " + std::to_string(getpid()) + " 5 3"));
    expectAnswer(carrier, IPC_CALL, callWith("notify"), result("answer raw answer"));
    expectAnswer(carrier, IPC_CALL, callWith("x", "Stranger"), {});
    expectAnswer(carrier, MASTER_IPC_CALL, {"Msg", "m"}, result("sub got m"));
    expectAnswer(carrier, MASTER_IPC_CALL, {}, {});
    for (uint32_t code :
         {REMOVE_NOTIFIER, GET_SUB_SERVICE, SUB_SERVICE_IPC_CALL, REGISTER_SUB_SERVICE}) {
        EXPECT_EQ(ask(carrier, code, {}).status, android::UNKNOWN_TRANSACTION);
    }
}

TEST_F(Wire, SubServiceRegistryAnswersExactlyWakesItsWaitersAndKeepsServingBesideThem) {
    sp<RawObject> sub = new RawObject();
    expectAnswer(mCarrier, REGISTER_SUB_SERVICE, {}, {});
    expectAnswer(mCarrier, REGISTER_SUB_SERVICE, {"deny-a", sub}, {-1});
    expectAnswer(mCarrier, REGISTER_SUB_SERVICE, {"b"}, {-1});
    expectAnswer(mCarrier, REGISTER_SUB_SERVICE, {"noproto-c", sub}, {});
    expectAnswer(mCarrier, REGISTER_SUB_SERVICE, {"noconf-d", sub}, {0, 0});
    expectAnswer(mCarrier, REGISTER_SUB_SERVICE, {"e", sub}, {0, 1, "Msg", "config for e"});
    // A live sub-service keeps its name.
    expectAnswer(mCarrier, REGISTER_SUB_SERVICE, {"e", sub}, {-1});
    EXPECT_TRUE(awaitLine(*mService, "registered e"));

    expectAnswer(mCarrier, GET_SUB_SERVICE, {}, {});
    expectAnswer(mCarrier, GET_SUB_SERVICE, {"f", 0}, {-1});
    expectAnswer(mCarrier, GET_SUB_SERVICE, {"f", -1}, {-1});
    expectAnswer(mCarrier, GET_SUB_SERVICE, {"e", -1}, {0, sub});
    expectAnswer(mCarrier, SUB_SERVICE_IPC_CALL, {}, {});
    expectAnswer(mCarrier, SUB_SERVICE_IPC_CALL, {"f"}, {0});
    expectAnswer(mCarrier, SUB_SERVICE_IPC_CALL, {"e", "Msg", "x"}, result("master got x from e"));
    expectAnswer(mCarrier, SUB_SERVICE_IPC_CALL, {"e", "Stranger", "x"}, {0});

    // Two waiters for one name are both answered by its registration, long
    // before their time-out; a registration of another name wakes them too.
    auto first = waitFor(mCarrier, "late", 20000);
    auto second = waitFor(mCarrier, "late", 20000);
    ASSERT_TRUE(tvproc::waitUntil([&] { return waitingIn(mName) == 2; }, 20s));
    expectAnswer(mCarrier, REGISTER_SUB_SERVICE, {"noconf-early", sub}, {0, 0});
    expectAnswer(mCarrier, REGISTER_SUB_SERVICE, {"late", sub}, {0, 1, "Msg", "config for late"});
    for (auto* pending : {&first, &second}) {
        auto [bytes, waited] = pending->get();
        EXPECT_EQ(bytes, layout({0, sub}));
        EXPECT_LT(waited, std::chrono::seconds(10));
    }

    // Waiters for sub-services leave every service of the process serving.
    const std::vector<std::string> names{mName + ".1", mName + ".2", mName + ".3"};
    tvtest::ChildProcess services("service", names);
    ASSERT_TRUE(awaitLine(services, "second 0"));
    ASSERT_TRUE(awaitLine(services, "second 0"));
    std::vector<sp<IBinder>> carriers;
    for (const std::string& name : names) carriers.push_back(lookUp(name));

    // More waiters than the pool has threads, from this one process.
    constexpr std::chrono::milliseconds kTimeout = 2s;
    std::vector<std::future<std::pair<Bytes, std::chrono::milliseconds>>> waiters;
    for (int i = 0; i < 21; ++i) {
        waiters.push_back(
            waitFor(carriers[i % 3], "never", static_cast<int32_t>(kTimeout.count())));
    }
    // Each waits, or was refused.
    ASSERT_TRUE(tvproc::waitUntil(
        [&] {
            int settled = 0;
            for (const std::string& name : names) settled += waitingIn(name);
            for (auto& waiter : waiters)
                settled += waiter.wait_for(0s) == std::future_status::ready;
            return settled == static_cast<int>(waiters.size());
        },
        20s));
    // Every service answers at once, and another process still gets a waiter.
    for (const sp<IBinder>& carrier : carriers) {
        const auto start = std::chrono::steady_clock::now();
        expectAnswer(carrier, IPC_CALL, callWith("say hi"), result("echo hi"));
        EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    }
    // Parked, it fails only at its time-out.
    const auto otherStart = std::chrono::steady_clock::now();
    tvtest::ChildProcess other("client", {mName + ".1", "late", "1500"});
    EXPECT_TRUE(awaitLine(other, "unbound"));
    EXPECT_GE(std::chrono::steady_clock::now() - otherStart, 1500ms);
    int refused = 0;
    for (auto& waiter : waiters) {
        auto [bytes, waited] = waiter.get();
        EXPECT_EQ(bytes, layout({-1}));
        EXPECT_LT(waited, kTimeout + 1s);
        refused += waited < kTimeout;
    }
    EXPECT_GT(refused, 0);
    EXPECT_TRUE(
        awaitLine(services, "log get sub service failed!:too many waiters,sub service[never]"));
}

}  // namespace
}  // namespace coupler_test
