// The `tavrin` command against live services in the test's own context, and
// the call records it reads, kept in process.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <sstream>

#include "CouplerTestSupport.h"
#include "JsonValue.h"
#include "ProcSupport.h"
#include "coupler/binder/monitor/CallMonitor.h"

extern char** environ;

namespace coupler_test {
namespace {

using tavrin_cli::JsonValue;
using testing::HasSubstr;

// One run of the tavrin command, its output kept line by line; killed and
// reaped when it overstays or when the object goes.
class Command {
  public:
    explicit Command(const std::vector<std::string>& args) {
        int out[2], err[2];
        EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(err, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, err[1], 2);
        std::string path = tvproc::besideThisProgram("tavrin");
        std::vector<char*> argv{path.data()};
        std::vector<std::string> copies(args);
        for (std::string& arg : copies) argv.push_back(arg.data());
        argv.push_back(nullptr);
        EXPECT_EQ(posix_spawn(&mPid, path.c_str(), &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        close(err[1]);
        mOut = out[0];
        mErr = err[0];
    }
    ~Command() {
        if (!mReaped) tvproc::killAndReap(mPid);
        close(mOut);
        close(mErr);
    }

    // The next line on stdout (or stderr), "" after `timeout` or at the end.
    std::string outLine(std::chrono::milliseconds timeout = 20s) {
        return line(mOut, &mOutText, timeout);
    }
    std::string errLine(std::chrono::milliseconds timeout = 20s) {
        return line(mErr, &mErrText, timeout);
    }
    // Waits for the end: the exit status, everything left on stdout in *out.
    int finish(std::string* out = nullptr) {
        while (tvproc::readSomeWithin(mOut, &mOutText, 20s)) {
        }
        while (tvproc::readSomeWithin(mErr, &mErrText, 1s)) {
        }
        if (out != nullptr) *out = mOutText;
        const int status = tvproc::waitForExit(mPid, 20s);
        mReaped = status != -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    const std::string& errText() const { return mErrText; }

  private:
    static std::string line(int fd, std::string* pending, std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            const size_t end = pending->find('\n');
            if (end != std::string::npos) {
                std::string taken = pending->substr(0, end);
                pending->erase(0, end + 1);
                return taken;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || !tvproc::readSomeWithin(fd, pending, left)) return "";
        }
    }

    pid_t mPid = -1;
    bool mReaped = false;
    int mOut = -1;
    int mErr = -1;
    std::string mOutText;
    std::string mErrText;
};

// Runs the command to its end: its status, and its stdout in *out.
int run(const std::vector<std::string>& args, std::string* out = nullptr) {
    return Command(args).finish(out);
}

JsonValue runJson(const std::vector<std::string>& args) {
    std::string out;
    EXPECT_EQ(run(args, &out), 0) << out;
    JsonValue value;
    EXPECT_TRUE(JsonValue::parse(out, &value)) << out;
    return value;
}

const JsonValue* findNamed(const JsonValue& array, const std::string& name) {
    for (const JsonValue& element : array.elements()) {
        if (element["name"].string() == name) return &element;
    }
    return nullptr;
}

// A service with a sub-service registered and this process bound to it.
struct LiveServices {
    LiveServices()
        : name(uniqueName("cmd")),
          subName(uniqueName("cmdsub")),
          service(startService(name)),
          subService(startSubService(subName, name)) {
        EXPECT_TRUE(awaitLine(service, "registered " + subName));
        client = bindService(name, 1);
        EXPECT_TRUE(client);
    }
    std::string name;
    std::string subName;
    tvtest::ChildProcess service;
    tvtest::ChildProcess subService;
    tavrin::tv_sp<tavrin::IClient> client;
};

TEST(TavrinCommand, ListStatusPingAndWaitShowLiveServices) {
    LiveServices live;
    const std::string self = tvproc::besideThisProgram("coupler_tests");

    const JsonValue list = runJson({"list", "--json"});
    const JsonValue* entry = findNamed(list, live.name);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ((*entry)["kind"].string(), "service");
    EXPECT_EQ((*entry)["pid"].number(), live.service.pid());
    EXPECT_EQ((*entry)["uid"].number(), getuid());
    EXPECT_EQ((*entry)["exe"].string(), self);
    EXPECT_EQ((*entry)["process"].string(), "AnnBdSrv");
    EXPECT_EQ((*entry)["clients"].number(), 1);
    ASSERT_EQ((*entry)["subServices"].elements().size(), 1u);
    EXPECT_EQ((*entry)["subServices"].elements()[0]["name"].string(), live.subName);
    EXPECT_EQ((*entry)["subServices"].elements()[0]["pid"].number(), live.subService.pid());
    const JsonValue* manager = findNamed(list, "manager");
    ASSERT_NE(manager, nullptr);
    EXPECT_EQ((*manager)["kind"].string(), "object");

    // A bind that waits for a sub-service shows as waiting while it waits.
    auto waitingBind = std::async(std::launch::async, [&] {
        return bool(bindSubService(uniqueName("absent"), live.name, 3000, 2));
    });
    EXPECT_TRUE(tvproc::waitUntil(
        [&] {
            return runJson({"status", live.name, "--json"})["waiting"].number() == 1;
        },
        20s));
    EXPECT_FALSE(waitingBind.get());
    const JsonValue status = runJson({"--json", "status", live.name});
    EXPECT_EQ(status["name"].string(), live.name);
    EXPECT_EQ(status["pid"].number(), live.service.pid());
    EXPECT_EQ(status["exe"].string(), self);
    ASSERT_EQ(status["clients"].elements().size(), 1u);
    EXPECT_EQ(status["clients"].elements()[0]["pid"].number(), getpid());
    EXPECT_EQ(status["clients"].elements()[0]["exe"].string(), self);
    EXPECT_EQ(status["subServices"].elements()[0]["pid"].number(), live.subService.pid());
    EXPECT_EQ(status["waiting"].number(), 0);
    std::string out;
    EXPECT_EQ(run({"status", live.name}, &out), 0);
    EXPECT_THAT(out, HasSubstr(live.subName));
    EXPECT_EQ(run({"status", "manager"}), 1);
    EXPECT_EQ(run({"status", uniqueName("absent")}), 1);

    EXPECT_EQ(run({"ping", live.name, "--count", "2"}, &out), 0);
    EXPECT_THAT(out, HasSubstr("2 sent, 2 answered"));
    EXPECT_EQ(run({"ping", uniqueName("absent")}), 1);
    EXPECT_EQ(run({"wait", live.name, "--timeout", "5"}), 0);
    EXPECT_EQ(run({"wait", uniqueName("absent"), "--timeout", "0.2"}), 1);
}

TEST(TavrinCommand, UsageContextsAndContextOption) {
    std::string out;
    EXPECT_EQ(run({"--help"}, &out), 0);
    EXPECT_THAT(out, HasSubstr("usage: tavrin"));
    EXPECT_EQ(run({"--version"}, &out), 0);
    EXPECT_THAT(out, HasSubstr("tavrin 2."));
    EXPECT_EQ(run({}), 2);
    EXPECT_EQ(run({"bogus"}), 2);
    EXPECT_EQ(run({"list", "--count", "3"}), 2);
    EXPECT_EQ(run({"status"}), 2);
    EXPECT_EQ(run({"monitor", "--count", "0"}), 2);

    const std::string context = getenv("TAVRIN_BINDER_CONTEXT");
    const JsonValue contexts = runJson({"contexts", "--json"});
    const JsonValue* ours = findNamed(contexts, context);
    ASSERT_NE(ours, nullptr);
    const JsonValue list = runJson({"list", "--json"});
    const JsonValue* manager = findNamed(list, "manager");
    ASSERT_NE(manager, nullptr);
    EXPECT_EQ((*ours)["pid"].number(), (*manager)["pid"].number());
    // --context after the command; a context nobody serves is not started.
    const std::string absent = uniqueName("nocontext");
    EXPECT_EQ(run({"list", "--context", absent}), 1);
    EXPECT_EQ(findNamed(runJson({"contexts", "--json"}), absent), nullptr);
}

// What the monitor shows of one record, ignoring time and sizes.
std::string shape(const JsonValue& record) {
    std::ostringstream text;
    text << record["kind"].string() << " " << record["from"].number() << ">"
         << record["to"].number() << " " << record["service"].string() << " "
         << record["class"].string() << " " << record["status"].number()
         << (record["us"].isNull() ? " async" : " sync");
    return text.str();
}

TEST(TavrinCommand, MonitorShowsEveryKindOfTransaction) {
    LiveServices live;
    tavrin::tv_sp<tavrin::IClient> subClient = bindSubService(live.subName, live.name, 5000, 3);
    ASSERT_TRUE(subClient);
    Command monitor({"monitor", "--json", "--count", "7", "--timeout", "60"});
    for (int watched = 0; watched < 2;) {
        const std::string line = monitor.errLine();
        ASSERT_FALSE(line.empty()) << monitor.errText();
        watched += line.find("watching " + live.name + " ") != std::string::npos ||
                   line.find("watching " + live.subName + " ") != std::string::npos;
    }
    EXPECT_EQ(call(live.client, "notify"), "answer null");
    EXPECT_EQ(call(subClient, "master hello"), "master got hello from " + live.subName);
    EXPECT_EQ(call(live.client, "sub " + live.subName + " hi"), "sub got hi");

    std::vector<std::string> shown;
    for (int i = 0; i < 7; ++i) {
        JsonValue record;
        ASSERT_TRUE(JsonValue::parse(monitor.outLine(), &record));
        EXPECT_GT(record["bytes"].number(), 0);
        EXPECT_GT(record["time"].number(), 0);
        shown.push_back(shape(record));
    }
    EXPECT_EQ(monitor.finish(), 0);
    const std::string me = std::to_string(getpid()), service = std::to_string(live.service.pid()),
                      sub = std::to_string(live.subService.pid());
    std::vector<std::string> expected{
        "call " + me + ">" + service + " " + live.name + " Msg 0 sync",
        "notify " + service + ">" + me + " " + live.name + " Msg 0 async",
        "notify-wait " + service + ">" + me + " " + live.name + " Msg 0 sync",
        "call " + me + ">" + sub + " " + live.subName + " Msg 0 sync",
        "up-call " + sub + ">" + service + " " + live.name + " Msg 0 sync",
        "call " + me + ">" + service + " " + live.name + " Msg 0 sync",
        "master-call " + service + ">" + sub + " " + live.subName + " Msg 0 sync",
    };
    std::sort(shown.begin(), shown.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(shown, expected);
}

TEST(CallMonitor, KeepsTheNewestRecordsCountsTheDroppedAndNamesTheirSources) {
    using tavrin_binder::CallMonitor;
    using tavrin_binder::CallRecord;
    CallMonitor& monitor = CallMonitor::self();
    int source = 0, other = 0;
    const CallMonitor::Batch start = monitor.read({&source}, "first", -1);
    EXPECT_TRUE(start.records.empty());
    EXPECT_TRUE(CallMonitor::attached());
    const size_t total = CallMonitor::kCapacity + 10;
    for (size_t i = 0; i < total; ++i) {
        CallRecord record;
        record.source = i % 2 == 0 ? static_cast<const void*>(&source) : &other;
        record.bytes = i;
        monitor.record(record);
    }
    const CallMonitor::Batch batch = monitor.read({&other}, "second", start.next);
    EXPECT_EQ(batch.dropped, 10u);
    ASSERT_EQ(batch.records.size(), CallMonitor::kCapacity);
    EXPECT_EQ(batch.next, start.next + total);
    EXPECT_EQ(batch.records.front().first.bytes, 10u);
    EXPECT_EQ(batch.records.front().second, "first");
    EXPECT_EQ(batch.records.back().second, "second");
    EXPECT_TRUE(monitor.read({&source}, "first", batch.next).records.empty());
}

}  // namespace
}  // namespace coupler_test
