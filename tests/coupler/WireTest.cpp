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
#include <thread>
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
using Fill = std::function<void(Parcel&)>;

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

Bytes bytesOf(const Parcel& parcel) {
    return Bytes(parcel.data(), parcel.data() + parcel.dataSize());
}

Bytes layout(const Fill& fill) {
    Parcel parcel;
    fill(parcel);
    return bytesOf(parcel);
}

// A value in its universal form: class name, then the Msg's one string.
void writeMsg(Parcel& parcel, const char* text, const char* className = "Msg") {
    parcel.writeCString(className);
    parcel.writeCString(text);
}

Fill ints(std::vector<int32_t> values) {
    return [values](Parcel& parcel) {
        for (int32_t value : values) parcel.writeInt32(value);
    };
}

Fill result(const std::string& text) {
    return [text](Parcel& parcel) {
        parcel.writeInt32(1);
        writeMsg(parcel, text.c_str());
    };
}

struct Answer {
    status_t status;
    Bytes bytes;
};

Answer ask(const sp<IBinder>& binder, uint32_t code, const Fill& fill) {
    Parcel data;
    Parcel reply;
    fill(data);
    const status_t status = binder->transact(code, data, &reply);
    return {status, bytesOf(reply)};
}

void expectAnswer(const sp<IBinder>& binder, uint32_t code, const Fill& request,
                  const Fill& expected) {
    const Answer answer = ask(binder, code, request);
    EXPECT_EQ(answer.status, android::NO_ERROR) << "code " << code;
    EXPECT_EQ(answer.bytes, layout(expected)) << "code " << code;
}

const Fill kNothing = [](Parcel&) {};

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
        if ((flags & FLAG_ONEWAY) == 0 && reply != nullptr) result("raw answer")(*reply);
        return android::NO_ERROR;
    }

  private:
    std::mutex mLock;
    std::vector<Received> mReceived;
};

sp<IBinder> lookUp(const std::string& name) {
    return android::defaultServiceManager()->getService(android::String16(name.c_str()));
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

    Fill record(int32_t tag, int32_t objID) { return ints({getpid(), tag, objID}); }
    Fill callWith(const char* text, const char* className = "Msg") {
        Fill clientInfo = record(5, 3);
        return [=](Parcel& parcel) {
            clientInfo(parcel);
            writeMsg(parcel, text, className);
        };
    }

    std::string mName;
    std::unique_ptr<tvtest::ChildProcess> mService;
    sp<IBinder> mCarrier;
};

TEST_F(Wire, ServiceCodesAnswerExactlyAndNotificationsHaveTheirLayout) {
    sp<RawObject> notifier = new RawObject();
    expectAnswer(
        mCarrier, ADD_NOTIFIER, [&](Parcel& p) { p.writeStrongBinder(notifier); }, ints({0}));
    expectAnswer(mCarrier, ADD_NOTIFIER, kNothing, ints({-1}));

    // From inside the call the service notifies one-way, then asks.
    expectAnswer(mCarrier, IPC_CALL, callWith("notify"), result("answer raw answer"));
    ASSERT_TRUE(tvproc::waitUntil([&] { return notifier->received().size() == 2; }, 20s));
    for (const RawObject::Received& notification : notifier->received()) {
        const bool oneWay = (notification.flags & IBinder::FLAG_ONEWAY) != 0;
        EXPECT_EQ(notification.code, 0u);
        EXPECT_EQ(notification.bytes, layout([&](Parcel& p) {
                      record(5, 3)(p);
                      p.writeInt32(oneWay ? 0 : 1);
                      writeMsg(p, oneWay ? "note" : "ask");
                  }));
    }
    expectAnswer(mCarrier, IPC_CALL, callWith("nothing"), ints({0}));
    expectAnswer(mCarrier, IPC_CALL, callWith("x", "Stranger"), kNothing);
    expectAnswer(mCarrier, IPC_CALL, kNothing, kNothing);
    expectAnswer(mCarrier, REMOVE_NOTIFIER, kNothing, ints({0}));
    expectAnswer(mCarrier, REMOVE_NOTIFIER, kNothing, ints({0}));
    // Unknown codes get the platform's default handling.
    EXPECT_EQ(ask(mCarrier, 6, kNothing).status, android::UNKNOWN_TRANSACTION);
    EXPECT_EQ(ask(mCarrier, IBinder::INTERFACE_TRANSACTION, kNothing).status, android::NO_ERROR);
}

TEST_F(Wire, SubServiceRegistryAnswersExactlyAndWakesItsWaiters) {
    sp<RawObject> subService = new RawObject();
    auto registration = [&](const char* name, bool withBinder = true) {
        return [=](Parcel& p) {
            p.writeCString(name);
            if (withBinder) p.writeStrongBinder(subService);
        };
    };
    auto lookup = [](const char* name, int32_t timeout) {
        return [=](Parcel& p) {
            p.writeCString(name);
            p.writeInt32(timeout);
        };
    };
    expectAnswer(mCarrier, REGISTER_SUB_SERVICE, kNothing, kNothing);
    expectAnswer(mCarrier, REGISTER_SUB_SERVICE, registration("deny-a"), ints({-1}));
    expectAnswer(mCarrier, REGISTER_SUB_SERVICE, registration("b", false), ints({-1}));
    expectAnswer(mCarrier, REGISTER_SUB_SERVICE, registration("noproto-c"), kNothing);
    expectAnswer(mCarrier, REGISTER_SUB_SERVICE, registration("noconf-d"), ints({0, 0}));
    expectAnswer(mCarrier, REGISTER_SUB_SERVICE, registration("e"), [](Parcel& p) {
        p.writeInt32(0);
        result("config for e")(p);
    });
    // A live sub-service keeps its name.
    expectAnswer(mCarrier, REGISTER_SUB_SERVICE, registration("e"), ints({-1}));
    EXPECT_TRUE(awaitLine(*mService, "registered e"));

    expectAnswer(mCarrier, GET_SUB_SERVICE, kNothing, kNothing);
    expectAnswer(mCarrier, GET_SUB_SERVICE, lookup("f", 0), ints({-1}));
    expectAnswer(mCarrier, GET_SUB_SERVICE, lookup("f", -1), ints({-1}));
    expectAnswer(mCarrier, GET_SUB_SERVICE, lookup("e", -1), [&](Parcel& p) {
        p.writeInt32(0);
        p.writeStrongBinder(subService);
    });
    expectAnswer(mCarrier, SUB_SERVICE_IPC_CALL, kNothing, kNothing);
    expectAnswer(
        mCarrier, SUB_SERVICE_IPC_CALL, [](Parcel& p) { p.writeCString("f"); }, ints({0}));
    expectAnswer(
        mCarrier, SUB_SERVICE_IPC_CALL,
        [](Parcel& p) {
            p.writeCString("e");
            writeMsg(p, "x");
        },
        result("master got x from e"));
    expectAnswer(
        mCarrier, SUB_SERVICE_IPC_CALL,
        [](Parcel& p) {
            p.writeCString("e");
            writeMsg(p, "x", "Stranger");
        },
        ints({0}));

    // Two waiters for one name are both answered by its registration, long
    // before their time-out; a registration of another name wakes them too.
    auto waiter = [&] {
        return std::async(std::launch::async, [&] {
            const auto start = std::chrono::steady_clock::now();
            Answer answer = ask(mCarrier, GET_SUB_SERVICE, lookup("late", 20000));
            return std::make_pair(answer.bytes, std::chrono::steady_clock::now() - start);
        });
    };
    auto first = waiter();
    auto second = waiter();
    ASSERT_TRUE(tvproc::waitUntil([&] { return waitingIn(mName) == 2; }, 20s));
    expectAnswer(mCarrier, REGISTER_SUB_SERVICE, registration("noconf-early"), ints({0, 0}));
    expectAnswer(mCarrier, REGISTER_SUB_SERVICE, registration("late"), [](Parcel& p) {
        p.writeInt32(0);
        result("config for late")(p);
    });
    const Bytes found = layout([&](Parcel& p) {
        p.writeInt32(0);
        p.writeStrongBinder(subService);
    });
    for (auto* pending : {&first, &second}) {
        auto [bytes, waited] = pending->get();
        EXPECT_EQ(bytes, found);
        EXPECT_LT(waited, std::chrono::seconds(10));
    }
}

TEST_F(Wire, WaitersForSubServicesLeaveEveryServiceOfTheProcessServing) {
    const std::vector<std::string> names{mName + ".1", mName + ".2", mName + ".3"};
    tvtest::ChildProcess services("service", names);
    ASSERT_TRUE(awaitLine(services, "second 0"));
    ASSERT_TRUE(awaitLine(services, "second 0"));
    std::vector<sp<IBinder>> carriers;
    for (const std::string& name : names) carriers.push_back(lookUp(name));

    // More waiters than the pool has threads, from this one process.
    constexpr auto kTimeout = 2s;
    std::vector<std::future<std::pair<Bytes, std::chrono::milliseconds>>> waiters;
    for (int i = 0; i < 21; ++i) {
        waiters.push_back(std::async(std::launch::async, [&, i] {
            const auto start = std::chrono::steady_clock::now();
            Answer answer = ask(carriers[i % 3], GET_SUB_SERVICE, [&](Parcel& p) {
                p.writeCString("never");
                p.writeInt32(std::chrono::milliseconds(kTimeout).count());
            });
            return std::make_pair(answer.bytes,
                                  std::chrono::duration_cast<std::chrono::milliseconds>(
                                      std::chrono::steady_clock::now() - start));
        }));
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
        EXPECT_EQ(bytes, layout(ints({-1})));
        EXPECT_LT(waited, kTimeout + 1s);
        refused += waited < kTimeout;
    }
    EXPECT_GT(refused, 0);
    EXPECT_TRUE(
        awaitLine(services, "log get sub service failed!:too many waiters,sub service[never]"));
}

TEST_F(Wire, SubServiceCodesAnswerExactly) {
    const std::string subName = uniqueName("sub");
    tvtest::ChildProcess subService("subservice", {subName, mName});
    ASSERT_TRUE(awaitLine(subService, "published 0"));
    sp<IBinder> carrier = tavrin_cli::ContextInspector::subService(mCarrier, subName);
    ASSERT_NE(carrier, nullptr);

    sp<RawObject> notifier = new RawObject();
    expectAnswer(
        carrier, ADD_NOTIFIER, [&](Parcel& p) { p.writeStrongBinder(notifier); }, ints({0}));
    expectAnswer(carrier, ADD_NOTIFIER, kNothing, ints({-1}));
    expectAnswer(carrier, IPC_CALL, callWith("whoami"),
                 result("sub " + std::to_string(getpid()) + " 5 3"));
    expectAnswer(carrier, IPC_CALL, callWith("notify"), result("answer raw answer"));
    expectAnswer(carrier, IPC_CALL, callWith("x", "Stranger"), kNothing);
    expectAnswer(
        carrier, MASTER_IPC_CALL, [](Parcel& p) { writeMsg(p, "m"); }, result("sub got m"));
    expectAnswer(carrier, MASTER_IPC_CALL, kNothing, kNothing);
    for (uint32_t code :
         {REMOVE_NOTIFIER, GET_SUB_SERVICE, SUB_SERVICE_IPC_CALL, REGISTER_SUB_SERVICE}) {
        EXPECT_EQ(ask(carrier, code, kNothing).status, android::UNKNOWN_TRANSACTION);
    }
}

}  // namespace
}  // namespace coupler_test
