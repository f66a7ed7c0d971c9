// Sub-services in processes of their own: registration with the master,
// calls from clients, from the master and to the master, notifications,
// deaths on every side and restarts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <future>

#include "CouplerTestSupport.h"
#include "LogCapture.h"

namespace coupler_test {
namespace {

using tavrin::IClient;
using tavrin::tv_sp;
using tavrin_test::LogCapture;
using tavrin_test::LogLine;
using testing::Contains;

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
