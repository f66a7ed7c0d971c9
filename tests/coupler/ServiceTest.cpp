// A master service and its clients in separate processes: binding, calls,
// notifications, deaths and failures as the application sees them.
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "CouplerTestSupport.h"
#include "ProcSupport.h"
#include "tavrin/LogCapture.h"
#include "utils/Semaphore.h"

namespace coupler_test {
namespace {

using tavrin::IClient;
using tavrin::IPCClass;
using tavrin::tv_sp;
using tavrin_test::LogCapture;
using tavrin_test::LogLine;
using testing::Contains;

size_t countLines(const LogCapture& log, const LogLine& wanted) {
    size_t count = 0;
    for (const LogLine& line : log.lines()) count += line == wanted;
    return count;
}

bool awaitLog(const LogCapture& log, const LogLine& wanted) {
    return tvproc::waitUntil([&] { return countLines(log, wanted) > 0; }, 20s);
}

int objIDOf(const std::string& clientInfo) {
    int pid = 0, tag = 0, objID = 0;
    std::istringstream(clientInfo) >> pid >> tag >> objID;
    return objID;
}

TEST(ServiceCalls, ConcurrentBindsShareOneProxyAndCallsCarryTheirClientInfo) {
    LogCapture log;
    const std::string name = uniqueName("svc");
    tvtest::ChildProcess service = startService(name, {name + ".second"});
    // The first publish serves on its thread; a second one from another thread returns.
    ASSERT_TRUE(awaitLine(service, "second 0"));
    EXPECT_EQ(processNameOf(service.pid()), "AnnBdSrv");

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
    EXPECT_EQ(countLines(log, {ANDROID_LOG_INFO, "[Tavrin][Discoverer_Binder]",
                               "create service proxy,service[" + name + "]"}),
              1u);
    EXPECT_EQ(processNameOf(getpid()), "DiscvBd");

    // Results are read with the client's own Protocol.
    EXPECT_EQ(call(clients[0], "stranger"), "null");
    EXPECT_THAT(log.lines(),
                Contains(LogLine{ANDROID_LOG_WARN, "[Tavrin][UniversalSerialization]",
                                 "deserialization ipcclass fail,class name[Stranger]"}));
    EXPECT_EQ(call(clients[0], "nothing"), "null");
    EXPECT_EQ(call(clients[0], "say hi"), "echo hi");

    tv_sp<IClient> second = bindService(name + ".second", 5);
    ASSERT_TRUE(second);
    EXPECT_EQ(call(second, "whoami"), clientInfoText(5, 1));
}

// Records what reaches one client handle.
class RecordingNotifier : public tavrin::IClientNotifier {
  public:
    explicit RecordingNotifier(std::string name) : mName(std::move(name)) {}

    void onNotify(IPCClass& value) override {
        std::lock_guard<std::mutex> hold(mLock);
        mNotes.push_back(static_cast<Msg&>(value).text());
    }
    tv_sp<IPCClass> onNotifyEx(IPCClass& value) override {
        std::lock_guard<std::mutex> hold(mLock);
        mQuestions.push_back(static_cast<Msg&>(value).text());
        mAnsweringThread = std::this_thread::get_id();
        return tv_sp<IPCClass>(new Msg("from " + mName));
    }
    std::vector<std::string> notes() {
        std::lock_guard<std::mutex> hold(mLock);
        return mNotes;
    }
    std::vector<std::string> questions() {
        std::lock_guard<std::mutex> hold(mLock);
        return mQuestions;
    }
    std::thread::id answeringThread() {
        std::lock_guard<std::mutex> hold(mLock);
        return mAnsweringThread;
    }

  private:
    const std::string mName;
    std::mutex mLock;
    std::vector<std::string> mNotes;
    std::vector<std::string> mQuestions;
    std::thread::id mAnsweringThread;
};

TEST(ServiceNotifications, ReachExactlyTheAddressedHandleAlsoInsideItsCall) {
    const std::string name = uniqueName("svc");
    tvtest::ChildProcess service = startService(name);
    tv_sp<IClient> first = bindService(name, 1);
    tv_sp<IClient> second = bindService(name, 2);
    tv_sp<IClient> silent = bindService(name, 3);
    ASSERT_TRUE(first && second && silent);
    auto* firstSink = new RecordingNotifier("first");
    auto* secondSink = new RecordingNotifier("second");
    tv_sp<tavrin::IClientNotifier> firstNotifier(firstSink), secondNotifier(secondSink);
    first->setNotifier(firstNotifier);
    second->setNotifier(secondNotifier);

    // The service asks while this thread waits in the call: the question is
    // answered on this very thread, no pool thread needed.
    EXPECT_EQ(call(first, "notify"), "answer from first");
    EXPECT_EQ(firstSink->answeringThread(), std::this_thread::get_id());
    ASSERT_TRUE(tvproc::waitUntil([&] { return firstSink->notes().size() == 1; }, 20s));
    EXPECT_EQ(firstSink->notes(), std::vector<std::string>{"note"});
    EXPECT_EQ(firstSink->questions(), std::vector<std::string>{"ask"});
    EXPECT_TRUE(secondSink->notes().empty() && secondSink->questions().empty());

    LogCapture log;
    EXPECT_EQ(call(silent, "notify"), "answer null");
    EXPECT_THAT(log.lines(), Contains(LogLine{ANDROID_LOG_WARN, "[Tavrin][ClientShadow]",
                                              "notify was not processed!!!:notifier not "
                                              "set,notify[Msg]"}));
    // A dropped handle is no longer addressable.
    second = tv_sp<IClient>();
    EXPECT_EQ(call(first, "notifyex 2 2"), "answer null");
    EXPECT_THAT(log.lines(), Contains(LogLine{ANDROID_LOG_WARN, "[Tavrin][ClientsManager]",
                                              "send notify fail,notifier invaild,objID[2]"}));
    // A replaced notifier is the one asked from then on.
    tv_sp<tavrin::IClientNotifier> replacement(new RecordingNotifier("replacement"));
    first->setNotifier(replacement);
    EXPECT_EQ(call(first, "notifyex 1 1"), "answer from replacement");
}

bool isFree(const std::string& name) {
    return android::defaultServiceManager()->checkService(android::String16(name.c_str())) ==
           nullptr;
}

bool nameIsFree(const std::string& name) {
    return tvproc::waitUntil([&] { return isFree(name); }, 20s);
}

TEST(ServiceDeaths, ClientDeathIsReportedOnceAndServiceDeathOrphansTheProxy) {
    const std::string name = uniqueName("svc");
    // The first client dies while the service files its notifier, before
    // the service watches it: it is told all the same.
    setenv("TVTEST_STALL_ON", "[NotifierManager][addNotifier]", 1);
    tvtest::ChildProcess service = startService(name);
    unsetenv("TVTEST_STALL_ON");
    {
        tvtest::ChildProcess client("client", {name});
        ASSERT_TRUE(awaitLine(service, "stalled"));
        client.kill(SIGKILL);
        client.wait();
        std::this_thread::sleep_for(300ms);  // for the service to learn of the death first
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

    LogCapture log;
    tv_sp<IClient> client = bindService(name, 4);
    ASSERT_TRUE(client);
    EXPECT_EQ(call(client, "whoami"), clientInfoText(4, 1));
    service.kill(SIGKILL);
    service.wait();
    EXPECT_TRUE(
        awaitLog(log, {ANDROID_LOG_VERBOSE, "[Tavrin]", "[ServiceProxy][binderDied] [-OUT-]\n"}));
    EXPECT_THAT(log.lines(), Contains(LogLine{ANDROID_LOG_INFO, "[Tavrin][ServiceProxy]",
                                              "service died [" + name + "]"}));
    EXPECT_EQ(call(client, "whoami"), "null");
}

// Holds threads of the library at chosen points: the first thread that logs
// a line the test closed waits there until the test opens it. One at a time
// per process.
class LogGate {
  public:
    LogGate() : mPreviousPriority(__android_log_set_minimum_priority(ANDROID_LOG_VERBOSE)) {
        __android_log_set_logger(&LogGate::log);
    }
    ~LogGate() {
        __android_log_set_logger(__android_log_stderr_logger);
        __android_log_set_minimum_priority(mPreviousPriority);
        std::lock_guard<std::mutex> hold(lock());
        for (auto& stop : stops()) stop.second.open.post();
    }

    void close(const std::string& line) {
        std::lock_guard<std::mutex> hold(lock());
        stops()[line];
    }
    bool awaitStopped(const std::string& line) {
        return tvproc::waitUntil([&] { return stop(line).reached.load(); }, 20s);
    }
    void open(const std::string& line) { stop(line).open.post(); }

  private:
    struct Stop {
        std::atomic<bool> reached{false};
        tavrin::Semaphore open;
    };

    static std::mutex& lock() {
        static std::mutex* const instance = new std::mutex;
        return *instance;
    }
    static std::map<std::string, Stop>& stops() {  // guarded by lock()
        static auto* const instance = new std::map<std::string, Stop>;
        return *instance;
    }
    static Stop& stop(const std::string& line) {
        std::lock_guard<std::mutex> hold(lock());
        return stops().at(line);
    }
    static void log(const __android_logger_data* /*data*/, const char* message) {
        Stop* reached = nullptr;
        {
            std::lock_guard<std::mutex> hold(lock());
            auto entry = stops().find(message);
            if (entry != stops().end() && !entry->second.reached.exchange(true)) {
                reached = &entry->second;
            }
        }
        if (reached != nullptr) reached->open.wait();
    }

    const int mPreviousPriority;
};

TEST(ServiceDeaths, ALateNoticeLeavesTheNextProxyOfTheNameAlone) {
    const std::string name = uniqueName("svc");
    tvtest::ChildProcess first = startService(name);
    std::unique_ptr<tvtest::ChildProcess> second;
    std::future<tv_sp<IClient>> binds;  // goes after the gate has let everybody go
    // The first service dies after its bind connected and before the proxy
    // is registered; the notice waits until that bind has dropped the proxy
    // and a new one, perhaps at the same address, serves the second service.
    LogGate gate;
    // The notice needs a pool thread while the bind that would start the
    // pool is held at the gate: this process has one from earlier work.
    android::ProcessState::self()->startThreadPool();
    const std::string registering = "[ServiceProxyManager][registered] [-IN-]\n";
    const std::string lookingUp = "[ServiceProxyManager][get] [-IN-]\n";
    const std::string noticed = "[ServiceProxy][binderDied] [-OUT-]\n";
    gate.close(registering);
    binds = std::async(std::launch::async, [&] {
        tv_sp<IClient> orphaned = bindService(name, 4);
        EXPECT_EQ(call(orphaned, "whoami"), "null");
        orphaned = tv_sp<IClient>();
        return bindService(name, 4);
    });
    ASSERT_TRUE(gate.awaitStopped(registering));
    gate.close(lookingUp);  // only the death notice looks the name up meanwhile
    first.kill(SIGKILL);
    first.wait();
    ASSERT_TRUE(gate.awaitStopped(lookingUp));
    ASSERT_TRUE(nameIsFree(name));
    second.reset(new tvtest::ChildProcess(startService(name)));
    ASSERT_TRUE(tvproc::waitUntil([&] { return !isFree(name); }, 20s));
    gate.open(registering);
    tv_sp<IClient> again = binds.get();
    ASSERT_TRUE(again);
    gate.close(noticed);
    gate.open(lookingUp);
    ASSERT_TRUE(gate.awaitStopped(noticed));
    gate.open(noticed);
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

TEST(ServiceFailures, AreReportedAndLeaveNothingBroken) {
    android::defaultServiceManager()->setGetServiceTimeout(1s);
    LogCapture log;
    // Binds at the same time share one connection attempt, and its failure.
    EXPECT_LT(slowestOf(6, [] { EXPECT_FALSE(bindService("absent", 1)); }), 3s);
    EXPECT_EQ(countLines(log, {ANDROID_LOG_ERROR, "[Tavrin][ServiceProxy]",
                               "connect failed:ServiceManager have no service named [absent]"}),
              1u);
    EXPECT_EQ(countLines(log, {ANDROID_LOG_INFO, "[Tavrin][Discoverer_Binder]",
                               "create service proxy failed,connect faild[absent]"}),
              6u);
    android::defaultServiceManager()->setGetServiceTimeout(300ms);
    EXPECT_FALSE(bindSubService("tuner", "absent", 0, 1));
    EXPECT_THAT(
        log.lines(),
        Contains(LogLine{ANDROID_LOG_INFO, "[Tavrin][Discoverer_Binder]",
                         "create service proxy failed,connect master service faild[absent]"}));

    const std::string name = uniqueName("svc");
    tvtest::ChildProcess service = startService(name);
    for (int timeout : {0, -1}) {
        EXPECT_FALSE(bindSubService("nosuch", name, timeout, 1));
    }
    EXPECT_EQ(countLines(log, {ANDROID_LOG_ERROR, "[Tavrin][ServiceProxy]",
                               "connect sub service failed!!!! [nosuch]"}),
              2u);
    // A bind never waits much longer than its own time-out, whatever other
    // binds to the same sub-service wait for.
    auto patient = std::async(std::launch::async, [&] {
        return slowestOf(1, [&] { EXPECT_FALSE(bindSubService("nosuch", name, 3000, 1)); });
    });
    std::this_thread::sleep_for(300ms);
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
    EXPECT_EQ(countLines(log, {ANDROID_LOG_INFO, "[Tavrin][Discoverer_Binder]",
                               "create service proxy,service[nosuch]"}),
              1u);

    // A second copy of the service is refused, not left unreachable.
    tvtest::ChildProcess copy = startService(name);
    EXPECT_TRUE(awaitLine(copy, "log publish failed:service manager refused [" + name +
                                    "],status[" + std::to_string(android::ALREADY_EXISTS) + "]"));
    EXPECT_TRUE(awaitLine(copy, "published -1"));
    // Nothing of the copy is kept: the application's service goes too.
    EXPECT_TRUE(awaitLine(copy, "released"));
    EXPECT_NE(processNameOf(copy.pid()), "AnnBdSrv");
    EXPECT_EQ(call(client, "whoami"), clientInfoText(1, 1));
}

}  // namespace
}  // namespace coupler_test
