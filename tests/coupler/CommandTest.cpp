// The `tavrin` command against live services in the test's own context, and
// the call records it reads, kept in process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <sstream>

#include "CouplerTestSupport.h"
#include "JsonValue.h"
#include "ProcSupport.h"
#include "coupler/binder/monitor/CallMonitor.h"

namespace coupler_test {
namespace {

using tavrin_cli::JsonValue;
using testing::HasSubstr;

// The tavrin command, its stdout as the channel and its stderr as errors().
tvtest::ChildProcess tavrin(const std::vector<std::string>& args) {
    std::vector<std::string> argv{tvproc::besideThisProgram("tavrin")};
    argv.insert(argv.end(), args.begin(), args.end());
    return tvtest::ChildProcess(tvtest::Program{argv});
}

// Runs the command to its end: its exit code, and its stdout in *out.
int run(const std::vector<std::string>& args, std::string* out = nullptr) {
    tvtest::ChildProcess command = tavrin(args);
    const std::string printed = command.channel().receiveAll();
    if (out != nullptr) *out = printed;
    return command.finish();
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

// What the monitor shows of one record, ignoring time and sizes.
std::string shape(const JsonValue& record) {
    std::ostringstream text;
    text << record["kind"].string() << " " << record["from"].number() << ">"
         << record["to"].number() << " " << record["service"].string() << " "
         << record["class"].string() << " " << record["status"].number()
         << (record["us"].isNull() ? " async" : " sync");
    return text.str();
}

TEST(TavrinCommand, ListStatusPingWaitMonitorAndContextsShowLiveServicesAndBadUsageIsRefused) {
    // A service with a sub-service registered and this process bound to it.
    const std::string name = uniqueName("cmd"), subName = uniqueName("cmdsub");
    tvtest::ChildProcess service("service", {name});
    tvtest::ChildProcess subService("subservice", {subName, name});
    ASSERT_TRUE(awaitLine(service, "registered " + subName));
    tavrin::tv_sp<tavrin::IClient> client = bindService(name, 1);
    ASSERT_TRUE(client);
    const std::string self = tvproc::besideThisProgram("coupler_tests");

    const JsonValue list = runJson({"list", "--json"});
    const JsonValue* entry = findNamed(list, name);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ((*entry)["kind"].string(), "service");
    EXPECT_EQ((*entry)["pid"].number(), service.pid());
    EXPECT_EQ((*entry)["uid"].number(), getuid());
    EXPECT_EQ((*entry)["exe"].string(), self);
    EXPECT_EQ((*entry)["process"].string(), "AnnBdSrv");
    EXPECT_EQ((*entry)["clients"].number(), 1);
    ASSERT_EQ((*entry)["subServices"].elements().size(), 1u);
    EXPECT_EQ((*entry)["subServices"].elements()[0]["name"].string(), subName);
    EXPECT_EQ((*entry)["subServices"].elements()[0]["pid"].number(), subService.pid());
    const JsonValue* manager = findNamed(list, "manager");
    ASSERT_NE(manager, nullptr);
    EXPECT_EQ((*manager)["kind"].string(), "object");

    // A bind that waits for a sub-service shows as waiting while it waits.
    auto waitingBind = std::async(std::launch::async, [&] {
        return bool(bindSubService(uniqueName("absent"), name, 3000, 2));
    });
    EXPECT_TRUE(tvproc::waitUntil(
        [&] {
            return runJson({"status", name, "--json"})["waiting"].number() == 1;
        },
        20s));
    EXPECT_FALSE(waitingBind.get());
    const JsonValue status = runJson({"--json", "status", name});
    EXPECT_EQ(status["name"].string(), name);
    EXPECT_EQ(status["pid"].number(), service.pid());
    EXPECT_EQ(status["exe"].string(), self);
    ASSERT_EQ(status["clients"].elements().size(), 1u);
    EXPECT_EQ(status["clients"].elements()[0]["pid"].number(), getpid());
    EXPECT_EQ(status["clients"].elements()[0]["exe"].string(), self);
    EXPECT_EQ(status["subServices"].elements()[0]["pid"].number(), subService.pid());
    EXPECT_EQ(status["waiting"].number(), 0);
    std::string out;
    EXPECT_EQ(run({"status", name}, &out), 0);
    EXPECT_THAT(out, HasSubstr(subName));
    EXPECT_EQ(run({"status", "manager"}), 1);
    EXPECT_EQ(run({"status", uniqueName("absent")}), 1);

    EXPECT_EQ(run({"ping", name, "--count", "2"}, &out), 0);
    EXPECT_THAT(out, HasSubstr("2 sent, 2 answered"));
    EXPECT_EQ(run({"ping", uniqueName("absent")}), 1);
    EXPECT_EQ(run({"wait", name, "--timeout", "5"}), 0);
    EXPECT_EQ(run({"wait", uniqueName("absent"), "--timeout", "0.2"}), 1);

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
    EXPECT_EQ((*ours)["pid"].number(), (*manager)["pid"].number());
    // --context after the command; a context nobody serves is not started.
    const std::string absent = uniqueName("nocontext");
    EXPECT_EQ(run({"list", "--context", absent}), 1);
    EXPECT_EQ(findNamed(runJson({"contexts", "--json"}), absent), nullptr);

    // The monitor shows every kind of transaction.
    tavrin::tv_sp<tavrin::IClient> subClient = bindSubService(subName, name, 5000, 3);
    ASSERT_TRUE(subClient);
    tvtest::ChildProcess monitor = tavrin({"monitor", "--json", "--count", "7", "--timeout", "60"});
    for (int watched = 0; watched < 2;) {
        const std::string line = monitor.errors().receive();
        ASSERT_FALSE(line.empty()) << "the monitor watches nothing";
        watched += line.find("watching " + name + " ") != std::string::npos ||
                   line.find("watching " + subName + " ") != std::string::npos;
    }
    EXPECT_EQ(call(client, "notify"), "answer null");
    EXPECT_EQ(call(subClient, "master hello"), "master got hello from " + subName);
    EXPECT_EQ(call(client, "sub " + subName + " hi"), "sub got hi");

    std::vector<std::string> shown;
    for (int i = 0; i < 7; ++i) {
        JsonValue record;
        ASSERT_TRUE(JsonValue::parse(monitor.readLine(), &record));
        EXPECT_GT(record["bytes"].number(), 0);
        EXPECT_GT(record["time"].number(), 0);
        shown.push_back(shape(record));
    }
    EXPECT_EQ(monitor.channel().receiveAll(), "");
    EXPECT_EQ(monitor.finish(), 0);
    const std::string me = std::to_string(getpid()), svc = std::to_string(service.pid()),
                      sub = std::to_string(subService.pid());
    std::vector<std::string> expected{
        "call " + me + ">" + svc + " " + name + " Msg 0 sync",
        "notify " + svc + ">" + me + " " + name + " Msg 0 async",
        "notify-wait " + svc + ">" + me + " " + name + " Msg 0 sync",
        "call " + me + ">" + sub + " " + subName + " Msg 0 sync",
        "up-call " + sub + ">" + svc + " " + name + " Msg 0 sync",
        "call " + me + ">" + svc + " " + name + " Msg 0 sync",
        "master-call " + svc + ">" + sub + " " + subName + " Msg 0 sync",
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
