// Master services, sub-services and their clients in processes of their own.
// First the carriers' wire protocol, spoken by hand: every code's exact reply
// bytes, the layout of notifications, the sub-service registry and its
// waiters, and requests no well-behaved peer sends. Then what the application
// sees: binding, calls every way, notifications, deaths on every side,
// restarts and failures.
#include <binder/Binder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "ContextView.h"
#include "CouplerTestSupport.h"
#include "LogCapture.h"
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

// One service, spoken to by hand: its codes, the layout of its notifications,
// a sub-service's carrier, and the sub-service registry with its waiters.
TEST(Wire, CodesAnswerExactlyNotificationsHaveTheirLayoutAndTheRegistryWakesItsWaiters) {
    android::ProcessState::self()->startThreadPool();
    const std::string name = uniqueName("svc");
    const std::vector<std::string> names{name, name + ".1", name + ".2"};
    tvtest::ChildProcess service("service", names);
    // The first publish serves on its thread; the others, from another thread, return.
    ASSERT_TRUE(awaitLine(service, "second 0"));
    ASSERT_TRUE(awaitLine(service, "second 0"));
    const sp<IBinder> carrier = lookUp(name);
    ASSERT_NE(carrier, nullptr);

    sp<RawObject> notifier = new RawObject();
    expectAnswer(carrier, ADD_NOTIFIER, {notifier}, {0});
    expectAnswer(carrier, ADD_NOTIFIER, {}, {-1});

    // From inside the call the service notifies one-way, then asks.
    expectAnswer(carrier, IPC_CALL, callWith("notify"), result("answer raw answer"));
    ASSERT_TRUE(tvproc::waitUntil([&] { return notifier->received().size() == 2; }, 20s));
    for (const RawObject::Received& notification : notifier->received()) {
        const bool oneWay = (notification.flags & IBinder::FLAG_ONEWAY) != 0;
        EXPECT_EQ(notification.code, 0u);
        EXPECT_EQ(notification.bytes,
                  layout({getpid(), 5, 3, oneWay ? 0 : 1, "Msg", oneWay ? "note" : "ask"}));
    }
    expectAnswer(carrier, IPC_CALL, callWith("nothing"), {0});
    expectAnswer(carrier, IPC_CALL, callWith("x", "Stranger"), {});
    expectAnswer(carrier, IPC_CALL, {}, {});
    expectAnswer(carrier, REMOVE_NOTIFIER, {}, {0});
    expectAnswer(carrier, REMOVE_NOTIFIER, {}, {0});
    // Unknown codes get the platform's default handling.
    EXPECT_EQ(ask(carrier, 6, {}).status, android::UNKNOWN_TRANSACTION);
    EXPECT_EQ(ask(carrier, IBinder::INTERFACE_TRANSACTION, {}).status, android::NO_ERROR);

    // A sub-service's carrier answers its own codes and no others.
    const std::string subName = uniqueName("sub");
    tvtest::ChildProcess subService("subservice", {subName, name});
    ASSERT_TRUE(awaitLine(subService, "published 0"));
    sp<IBinder> subCarrier = tavrin_cli::ContextView::subService(carrier, subName);
    ASSERT_NE(subCarrier, nullptr);

    expectAnswer(subCarrier, ADD_NOTIFIER, {notifier}, {0});
    expectAnswer(subCarrier, ADD_NOTIFIER, {}, {-1});
    expectAnswer(subCarrier, IPC_CALL, callWith("whoami"),
                 result("sub " + std::to_string(getpid()) + " 5 3"));
    expectAnswer(subCarrier, IPC_CALL, callWith("notify"), result("answer raw answer"));
    expectAnswer(subCarrier, IPC_CALL, callWith("x", "Stranger"), {});
    expectAnswer(subCarrier, MASTER_IPC_CALL, {"Msg", "m"}, result("sub got m"));
    expectAnswer(subCarrier, MASTER_IPC_CALL, {}, {});
    for (uint32_t code :
         {REMOVE_NOTIFIER, GET_SUB_SERVICE, SUB_SERVICE_IPC_CALL, REGISTER_SUB_SERVICE}) {
        EXPECT_EQ(ask(subCarrier, code, {}).status, android::UNKNOWN_TRANSACTION);
    }

    // The sub-service registry.
    sp<RawObject> sub = new RawObject();
    expectAnswer(carrier, REGISTER_SUB_SERVICE, {}, {});
    expectAnswer(carrier, REGISTER_SUB_SERVICE, {"deny-a", sub}, {-1});
    expectAnswer(carrier, REGISTER_SUB_SERVICE, {"b"}, {-1});
    expectAnswer(carrier, REGISTER_SUB_SERVICE, {"noproto-c", sub}, {});
    expectAnswer(carrier, REGISTER_SUB_SERVICE, {"noconf-d", sub}, {0, 0});
    expectAnswer(carrier, REGISTER_SUB_SERVICE, {"e", sub}, {0, 1, "Msg", "config for e"});
    // A live sub-service keeps its name.
    expectAnswer(carrier, REGISTER_SUB_SERVICE, {"e", sub}, {-1});
    EXPECT_TRUE(awaitLine(service, "registered e"));

    expectAnswer(carrier, GET_SUB_SERVICE, {}, {});
    expectAnswer(carrier, GET_SUB_SERVICE, {"f", 0}, {-1});
    expectAnswer(carrier, GET_SUB_SERVICE, {"f", -1}, {-1});
    expectAnswer(carrier, GET_SUB_SERVICE, {"e", -1}, {0, sub});
    expectAnswer(carrier, SUB_SERVICE_IPC_CALL, {}, {});
    expectAnswer(carrier, SUB_SERVICE_IPC_CALL, {"f"}, {0});
    expectAnswer(carrier, SUB_SERVICE_IPC_CALL, {"e", "Msg", "x"}, result("master got x from e"));
    expectAnswer(carrier, SUB_SERVICE_IPC_CALL, {"e", "Stranger", "x"}, {0});

    // Two waiters for one name are both answered by its registration, long
    // before their time-out; a registration of another name wakes them too.
    auto first = waitFor(carrier, "late", 20000);
    auto second = waitFor(carrier, "late", 20000);
    ASSERT_TRUE(tvproc::waitUntil([&] { return waitingIn(name) == 2; }, 20s));
    expectAnswer(carrier, REGISTER_SUB_SERVICE, {"noconf-early", sub}, {0, 0});
    expectAnswer(carrier, REGISTER_SUB_SERVICE, {"late", sub}, {0, 1, "Msg", "config for late"});
    for (auto* pending : {&first, &second}) {
        auto [bytes, waited] = pending->get();
        EXPECT_EQ(bytes, layout({0, sub}));
        EXPECT_LT(waited, std::chrono::seconds(10));
    }

    // Waiters for sub-services leave every service of the process serving.
    std::vector<sp<IBinder>> carriers;
    for (const std::string& each : names) carriers.push_back(lookUp(each));

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
            for (const std::string& each : names) settled += waitingIn(each);
            for (auto& waiter : waiters)
                settled += waiter.wait_for(0s) == std::future_status::ready;
            return settled == static_cast<int>(waiters.size());
        },
        20s));
    // Every service answers at once, and another process still gets a waiter.
    for (const sp<IBinder>& each : carriers) {
        const auto start = std::chrono::steady_clock::now();
        expectAnswer(each, IPC_CALL, callWith("say hi"), result("echo hi"));
        EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    }
    // Parked, it fails only at its time-out.
    const auto otherStart = std::chrono::steady_clock::now();
    tvtest::ChildProcess other("client", {name + ".1", "late", "1500"});
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
        awaitLine(service, "log get sub service failed!:too many waiters,sub service[never]"));
}

using tavrin::IClient;
using tavrin::tv_sp;
using tavrin_test::LogCapture;
using tavrin_test::LogLine;
using testing::Contains;

int objIDOf(const std::string& clientInfo) {
    int pid = 0, tag = 0, objID = 0;
    std::istringstream(clientInfo) >> pid >> tag >> objID;
    return objID;
}

TEST(ServiceCalls, ConcurrentBindsShareOneProxyCallsCarryTheirClientInfoNotificationsTheirHandle) {
    LogCapture log;
    const std::string name = uniqueName("svc");
    tvtest::ChildProcess service("service", {name, name + ".second"});
    // The first publish serves on its thread; a second one from another thread returns.
    ASSERT_TRUE(awaitLine(service, "second 0"));

    constexpr int kClients = 8;
    std::vector<tv_sp<IClient>> clients(kClients);
    std::vector<std::string> seen(kClients);
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i) {
        threads.emplace_back([&, i] {
            clients[i] = bindService(name, 100 + i);
            if (clients[i]) seen[i] = call(clients[i], "whoami");
        });
    }
    for (std::thread& thread : threads) thread.join();
    std::set<int> objIDs;
    for (int i = 0; i < kClients; ++i) {
        ASSERT_TRUE(clients[i]);
        const int objID = objIDOf(seen[i]);
        EXPECT_EQ(seen[i], clientInfoText(100 + i, objID));
        objIDs.insert(objID);
    }
    EXPECT_EQ(objIDs, (std::set<int>{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(log.count({ANDROID_LOG_INFO, "[Tavrin][Discoverer_Binder]",
                         "create service proxy,service[" + name + "]"}),
              1u);
    EXPECT_EQ(processNameOf(getpid()), "DiscvBd");

    // Results are read with the client's own Protocol.
    EXPECT_EQ(call(clients[0], "stranger"), "null");
    EXPECT_EQ(log.count({ANDROID_LOG_WARN, "[Tavrin][UniversalSerialization]",
                         "deserialization ipcclass fail,class name[Stranger]"}),
              1u);
    EXPECT_EQ(call(clients[0], "nothing"), "null");
    tv_sp<IClient> other = bindService(name + ".second", 5);
    ASSERT_TRUE(other);
    EXPECT_EQ(call(other, "whoami"), clientInfoText(5, 1));

    // Notifications reach exactly the addressed handle. The service asks
    // while this thread waits in the call: the question is answered on this
    // very thread, no pool thread needed.
    tv_sp<IClient>&first = clients[0], &second = clients[1], &silent = clients[2];
    auto* firstSink = new RecordingNotifier("first");
    auto* secondSink = new RecordingNotifier("second");
    tv_sp<tavrin::IClientNotifier> firstNotifier(firstSink), secondNotifier(secondSink);
    first->setNotifier(firstNotifier);
    second->setNotifier(secondNotifier);
    EXPECT_EQ(call(first, "notify"), "answer from first");
    EXPECT_EQ(firstSink->answeringThread(), std::this_thread::get_id());
    ASSERT_TRUE(tvproc::waitUntil([&] { return firstSink->received().size() == 2; }, 20s));
    EXPECT_EQ(firstSink->received(), (std::multiset<std::string>{"note note", "question ask"}));
    EXPECT_TRUE(secondSink->received().empty());
    EXPECT_EQ(call(silent, "notify"), "answer null");
    EXPECT_THAT(log.lines(), Contains(LogLine{ANDROID_LOG_WARN, "[Tavrin][ClientShadow]",
                                              "notify was not processed!!!:notifier not "
                                              "set,notify[Msg]"}));
    // A dropped handle is no longer addressable.
    second = tv_sp<IClient>();
    EXPECT_EQ(call(first, "notifyex 101 " + std::to_string(objIDOf(seen[1]))), "answer null");
    EXPECT_THAT(log.lines(), Contains(LogLine{ANDROID_LOG_WARN, "[Tavrin][ClientsManager]",
                                              "send notify fail,notifier invaild,objID[" +
                                                  std::to_string(objIDOf(seen[1])) + "]"}));
    // A replaced notifier is the one asked from then on.
    tv_sp<tavrin::IClientNotifier> replacement(new RecordingNotifier("replacement"));
    first->setNotifier(replacement);
    EXPECT_EQ(call(first, "notifyex 100 " + std::to_string(objIDOf(seen[0]))),
              "answer from replacement");
}

bool isFree(const std::string& name) {
    return android::defaultServiceManager()->checkService(android::String16(name.c_str())) ==
           nullptr;
}

TEST(ServiceDeaths, ALateNoticeLeavesTheNextProxyOfTheNameAlone) {
    const std::string name = uniqueName("svc");
    tvtest::ChildProcess first("service", {name});
    std::unique_ptr<tvtest::ChildProcess> second;
    std::future<tv_sp<IClient>> binds;  // goes after the log has let everybody go
    // The first service dies after its bind connected and before the proxy
    // is registered; the notice waits until that bind has dropped the proxy
    // and a new one, perhaps at the same address, serves the second service.
    LogCapture log;
    // The notice needs a pool thread while the bind that would start the
    // pool is held: this process has one from earlier work.
    android::ProcessState::self()->startThreadPool();
    const std::string registering = "[ServiceProxyManager][registered] [-IN-]\n";
    const std::string lookingUp = "[ServiceProxyManager][get] [-IN-]\n";
    const std::string noticed = "[ServiceProxy][binderDied] [-OUT-]\n";
    log.holdAt(registering);
    binds = std::async(std::launch::async, [&] {
        tv_sp<IClient> orphaned = bindService(name, 4);
        EXPECT_EQ(call(orphaned, "whoami"), "null");
        orphaned = tv_sp<IClient>();
        return bindService(name, 4);
    });
    ASSERT_TRUE(log.awaitHeld(registering));
    log.holdAt(lookingUp);  // only the death notice looks the name up meanwhile
    first.kill(SIGKILL);
    first.wait();
    ASSERT_TRUE(log.awaitHeld(lookingUp));
    ASSERT_TRUE(tvproc::waitUntil([&] { return isFree(name); }, 20s));
    second.reset(new tvtest::ChildProcess("service", {name}));
    ASSERT_TRUE(tvproc::waitUntil([&] { return !isFree(name); }, 20s));
    log.release(registering);
    tv_sp<IClient> again = binds.get();
    ASSERT_TRUE(again);
    log.holdAt(noticed);
    log.release(lookingUp);
    ASSERT_TRUE(log.awaitHeld(noticed));
    log.release(noticed);
    // The new proxy stays registered: the next bind shares it.
    tv_sp<IClient> shared = bindService(name, 5);
    ASSERT_TRUE(shared);
    EXPECT_EQ(call(shared, "whoami"), clientInfoText(5, 2));
}

// Runs `bind` on `count` threads at once; the slowest one's time.
std::chrono::milliseconds slowestOf(int count, const std::function<void()>& bind) {
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) threads.emplace_back(bind);
    for (std::thread& thread : threads) thread.join();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start);
}

TEST(ServiceDeathsAndFailures, AreReportedOnceAndLeaveNothingBroken) {
    android::defaultServiceManager()->setGetServiceTimeout(1s);
    LogCapture log;
    // Binds at the same time share one connection attempt, and its failure.
    EXPECT_LT(slowestOf(6, [] { EXPECT_FALSE(bindService("absent", 1)); }), 3s);
    EXPECT_EQ(log.count({ANDROID_LOG_ERROR, "[Tavrin][ServiceProxy]",
                         "connect failed:ServiceManager have no service named [absent]"}),
              1u);
    EXPECT_EQ(log.count({ANDROID_LOG_INFO, "[Tavrin][Discoverer_Binder]",
                         "create service proxy failed,connect faild[absent]"}),
              6u);
    android::defaultServiceManager()->setGetServiceTimeout(300ms);
    EXPECT_FALSE(bindSubService("tuner", "absent", 0, 1));
    EXPECT_EQ(log.count({ANDROID_LOG_INFO, "[Tavrin][Discoverer_Binder]",
                         "create service proxy failed,connect master service faild[absent]"}),
              1u);

    const std::string name = uniqueName("svc");
    // The first client dies while the service files its notifier, before
    // the service watches it: it is told all the same.
    tvtest::ChildProcess service("service", {name},
                                 {"TVTEST_STALL_ON=[NotifierManager][addNotifier]"});
    {
        tvtest::ChildProcess client("client", {name});
        ASSERT_TRUE(awaitLine(service, "stalled"));
        killSeenBy(client, service.pid());
        service.writeLine("go");
        EXPECT_TRUE(awaitLine(service, "died " + std::to_string(client.pid())));
    }
    {
        tvtest::ChildProcess client("client", {name});
        ASSERT_TRUE(awaitLine(client, "bound"));
        const std::string died = "died " + std::to_string(client.pid());
        client.kill(SIGKILL);
        client.wait();
        EXPECT_TRUE(awaitLine(service, died));
        EXPECT_FALSE(awaitLine(service, died, 300ms));
    }

    for (int timeout : {0, -1}) {
        EXPECT_FALSE(bindSubService("nosuch", name, timeout, 1));
    }
    EXPECT_EQ(log.count({ANDROID_LOG_ERROR, "[Tavrin][ServiceProxy]",
                         "connect sub service failed!!!! [nosuch]"}),
              2u);
    // A bind never waits much longer than its own time-out, whatever other
    // binds to the same sub-service wait for.
    auto patient = std::async(std::launch::async, [&] {
        return slowestOf(1, [&] { EXPECT_FALSE(bindSubService("nosuch", name, 3000, 1)); });
    });
    EXPECT_TRUE(tvproc::waitUntil([&] { return waitingIn(name) == 1; }, 20s));
    EXPECT_LT(slowestOf(1, [&] { EXPECT_FALSE(bindSubService("nosuch", name, 0, 1)); }), 1s);
    EXPECT_LT(slowestOf(1, [&] { EXPECT_FALSE(bindSubService("nosuch", name, 1000, 1)); }), 2s);
    EXPECT_GE(patient.get(), 2500ms);
    EXPECT_THAT(log.lines(), Contains(LogLine{ANDROID_LOG_INFO, "[Tavrin][Discoverer_Binder]",
                                              "create service proxy failed,connect sub service "
                                              "faild[nosuch]"}));
    // The master's proxy that the failed binds connected serves a service bind.
    tv_sp<IClient> client = bindService(name, 1);
    ASSERT_TRUE(client);
    EXPECT_EQ(call(client, "whoami"), clientInfoText(1, 1));
    EXPECT_EQ(log.count({ANDROID_LOG_INFO, "[Tavrin][Discoverer_Binder]",
                         "create service proxy,service[nosuch]"}),
              1u);

    // A second copy of the service is refused, not left unreachable.
    tvtest::ChildProcess copy("service", {name});
    EXPECT_TRUE(awaitLine(copy, "log publish failed:service manager refused [" + name +
                                    "],status[" + std::to_string(android::ALREADY_EXISTS) + "]"));
    EXPECT_TRUE(awaitLine(copy, "published -1"));
    // Nothing of the copy is kept: the application's service goes too.
    EXPECT_TRUE(awaitLine(copy, "released"));
    EXPECT_NE(processNameOf(copy.pid()), "AnnBdSrv");
    EXPECT_EQ(call(client, "whoami"), clientInfoText(1, 1));

    // The service's death orphans the proxy. (The notice of an earlier
    // test's service may come meanwhile: wait for this one's by name.)
    service.kill(SIGKILL);
    service.wait();
    const LogLine died{ANDROID_LOG_INFO, "[Tavrin][ServiceProxy]", "service died [" + name + "]"};
    EXPECT_TRUE(log.await(died));
    EXPECT_TRUE(
        log.await({ANDROID_LOG_VERBOSE, "[Tavrin]", "[ServiceProxy][binderDied] [-OUT-]\n"}));
    EXPECT_EQ(log.count(died), 1u);
    EXPECT_EQ(call(client, "whoami"), "null");
}

class SubServices : public testing::Test {
  protected:
    void SetUp() override {
        mMasterName = uniqueName("master");
        mSubName = uniqueName("sub");
        mMaster.reset(new tvtest::ChildProcess("service", {mMasterName}));
    }

    // Starts the sub-service `name` and waits until the master has recorded it.
    std::unique_ptr<tvtest::ChildProcess> startSub(const std::string& name) {
        std::unique_ptr<tvtest::ChildProcess> sub(
            new tvtest::ChildProcess("subservice", {name, mMasterName}));
        EXPECT_TRUE(awaitLine(*sub, "published 0"));
        EXPECT_TRUE(awaitLine(*mMaster, "registered " + name));
        return sub;
    }

    std::string mMasterName;
    std::string mSubName;
    std::unique_ptr<tvtest::ChildProcess> mMaster;
};

TEST_F(SubServices, RegisterWithTheMasterAndTalkToClientsAndMasterBothWays) {
    tv_sp<IClient> serviceClient = bindService(mMasterName, 1);
    ASSERT_TRUE(serviceClient);
    // This bind waits in the master until the sub-service registers.
    auto waiting = std::async(std::launch::async,
                              [&] { return bindSubService(mSubName, mMasterName, 20000, 2); });
    ASSERT_TRUE(tvproc::waitUntil([&] { return waitingIn(mMasterName) == 1; }, 20s));
    const std::string ignored = mSubName + ".second";
    tvtest::ChildProcess sub("subservice", {mSubName, mMasterName, ignored});
    EXPECT_TRUE(awaitLine(sub, "config config for " + mSubName));
    // The process carries one sub-service: a second publish, made from
    // inside the configuration, changes nothing.
    EXPECT_TRUE(awaitLine(sub, "log sub service already active,[" + mSubName + "]"));
    EXPECT_TRUE(awaitLine(sub, "published 0"));
    EXPECT_TRUE(awaitLine(sub, "published 0"));
    EXPECT_TRUE(awaitLine(*mMaster, "registered " + mSubName));
    tv_sp<IClient> subClient = waiting.get();
    ASSERT_TRUE(subClient);
    EXPECT_EQ(processNameOf(sub.pid()), "AnnBdPb");
    EXPECT_FALSE(awaitLine(*mMaster, "registered " + ignored, 300ms));

    // Clients of a master and of its sub-services share one sequence of objIDs.
    EXPECT_EQ(call(subClient, "whoami"), "sub " + clientInfoText(2, 2));
    auto* sink = new RecordingNotifier("client");
    tv_sp<tavrin::IClientNotifier> notifier(sink);
    subClient->setNotifier(notifier);
    EXPECT_EQ(call(subClient, "notify"), "answer from client");
    EXPECT_TRUE(tvproc::waitUntil([&] { return sink->received().count("note note") == 1; }, 20s));
    EXPECT_EQ(call(subClient, "master hello"), "master got hello from " + mSubName);
    EXPECT_EQ(call(serviceClient, "sub " + mSubName + " hi"), "sub got hi");

    // A sub-service under a live name is refused; one the master denies or
    // has no Protocol for behaves as the master says.
    tvtest::ChildProcess duplicate("subservice", {mSubName, mMasterName});
    EXPECT_TRUE(awaitLine(duplicate, "log registered fail sub_service[" + mSubName + "] service[" +
                                         mMasterName + "]"));
    EXPECT_TRUE(awaitLine(duplicate, "published -1"));
    tvtest::ChildProcess denied("subservice", {"deny-" + mSubName, mMasterName});
    EXPECT_TRUE(awaitLine(denied, "published -1"));
    EXPECT_NE(processNameOf(denied.pid()), "AnnBdPb");
    tvtest::ChildProcess unprotocoled("subservice", {"noproto-" + mSubName, mMasterName});
    EXPECT_TRUE(awaitLine(unprotocoled, "log master servcie is not configured!!!"));
    EXPECT_TRUE(awaitLine(unprotocoled, "published 0"));
    EXPECT_FALSE(bindSubService("noproto-" + mSubName, mMasterName, 0, 3));
    EXPECT_EQ(call(subClient, "whoami"), "sub " + clientInfoText(2, 2));
}

TEST_F(SubServices, DeathsReachEverySideARestartedSubServiceServesNewBindsAndNoneWithoutMaster) {
    std::unique_ptr<tvtest::ChildProcess> sub = startSub(mSubName);
    LogCapture log;
    tv_sp<IClient> before = bindSubService(mSubName, mMasterName, 0, 1);
    ASSERT_TRUE(before);
    EXPECT_EQ(call(before, "whoami"), "sub " + clientInfoText(1, 1));

    sub->kill(SIGKILL);
    sub->wait();
    EXPECT_TRUE(awaitLine(*mMaster, "removed " + mSubName + " null"));
    EXPECT_FALSE(awaitLine(*mMaster, "removed " + mSubName + " null", 300ms));
    EXPECT_TRUE(log.await({ANDROID_LOG_WARN, "[Tavrin][ServiceProxy]",
                           "sub service removed,service name[" + mSubName + "]"}));
    EXPECT_EQ(call(before, "whoami"), "null");
    EXPECT_THAT(log.lines(), Contains(LogLine{ANDROID_LOG_ERROR, "[Tavrin][ServiceProxy]",
                                              "ipc call fail,sub service proxy is null!!!,sub "
                                              "service[" +
                                                  mSubName + "]"}));
    EXPECT_FALSE(bindSubService(mSubName, mMasterName, 0, 1));

    sub = startSub(mSubName);
    tv_sp<IClient> after = bindSubService(mSubName, mMasterName, 0, 1);
    ASSERT_TRUE(after);
    EXPECT_EQ(call(after, "whoami"), "sub " + clientInfoText(1, 2));
    EXPECT_EQ(call(before, "whoami"), "null");
    EXPECT_THAT(log.lines(),
                Contains(LogLine{ANDROID_LOG_ERROR, "[Tavrin][ServiceProxy]",
                                 "ipc call fail,session error!!!,sub service[" + mSubName + "]"}));

    // A sub-service does not outlive its master.
    mMaster->kill(SIGKILL);
    EXPECT_TRUE(awaitLine(*sub, "log controoler died!!!,sub service[" + mSubName + "]"));
    const int status = sub->wait(20s);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == EXIT_FAILURE) << status;
    // Without a running master a publish fails and starts nothing.
    tvtest::ChildProcess orphan("subservice", {mSubName, "absent"},
                                {"TAVRIN_GETSERVICE_TIMEOUT_MS=200"});
    EXPECT_TRUE(awaitLine(orphan, "log ServiceManager have no service named [absent]"));
    EXPECT_TRUE(awaitLine(orphan, "published -1"));
    EXPECT_NE(processNameOf(orphan.pid()), "AnnBdPb");
}

TEST_F(SubServices, DeathsWhileTheMasterRegistersOrRemovesAreAnnouncedInOrderOrNotAtAll) {
    tv_sp<IClient> serviceClient = bindService(mMasterName, 1);
    ASSERT_TRUE(serviceClient);
    // Killed while the master makes its configuration: never announced.
    const std::string unconfigured = uniqueName("holdconf");
    tvtest::ChildProcess first("subservice", {unconfigured, mMasterName});
    ASSERT_TRUE(awaitLine(*mMaster, "configuring " + unconfigured));
    killSeenBy(first, mMaster->pid());
    mMaster->writeLine("go");
    // Killed while the master is told of it: told of its removal afterwards,
    // through a handle that still answers.
    const std::string announced = uniqueName("holdreg");
    tvtest::ChildProcess second("subservice", {announced, mMasterName});
    ASSERT_TRUE(awaitLine(*mMaster, "registering " + announced));
    killSeenBy(second, mMaster->pid());
    mMaster->writeLine("go");
    EXPECT_EQ(linesUntil(*mMaster, "removed " + announced + " null"),
              std::vector<std::string>{"registered " + announced});
    EXPECT_EQ(call(serviceClient, "sub " + announced + " hi"), "unregistered");
    EXPECT_EQ(call(serviceClient, "sub " + unconfigured + " hi"), "unregistered");

    // A held removal holds up nothing but itself.
    const std::string held = uniqueName("holdbye");
    std::unique_ptr<tvtest::ChildProcess> heldSub = startSub(held);
    std::unique_ptr<tvtest::ChildProcess> other = startSub(mSubName);
    heldSub->kill(SIGKILL);
    ASSERT_TRUE(awaitLine(*mMaster, "removing " + held));
    // While that removal waits, another death is told, and the restarted
    // sub-service registers; it is announced after the removal.
    other->kill(SIGKILL);
    EXPECT_TRUE(linesUntil(*mMaster, "removed " + mSubName + " null").empty());
    tvtest::ChildProcess restarted("subservice", {held, mMasterName});
    EXPECT_TRUE(awaitLine(restarted, "published 0"));
    mMaster->writeLine("go");
    EXPECT_EQ(linesUntil(*mMaster, "registered " + held),
              std::vector<std::string>{"removed " + held + " null"});
}

}  // namespace
}  // namespace coupler_test
