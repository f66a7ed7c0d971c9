#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Announcer.h"
#include "Discoverer.h"
#include "core/CouplerRegistry.h"
#include "LogCapture.h"

namespace {

using tavrin::Announcer;
using tavrin::Discoverer;
using tavrin::IClient;
using tavrin::IService;
using tavrin::ISubService;
using tavrin::Protocol;
using tavrin::ServiceInfo;
using tavrin::SubServiceInfo;
using tavrin::tv_sp;
using tavrin_test::LogCapture;
using tavrin_test::LogLine;
using testing::ElementsAre;

constexpr const char* kTestCoupler = "TestCoupler";

class FakeClient : public IClient {
  public:
    tv_sp<tavrin::IPCClass> ipcCall(tavrin::IPCClass&) override {
        return tv_sp<tavrin::IPCClass>(nullptr);
    }
    int setNotifier(tv_sp<tavrin::IClientNotifier>&) override { return 0; }
};

// Records the last call the facades forwarded to it.
class FakeCoupler : public tavrin::IDiscoverer, public tavrin::IAnnouncer {
  public:
    tv_sp<IClient> bindTo(ServiceInfo& info, Protocol& protocol, int tag) override {
        record(&info, &protocol, tag);
        return client;
    }
    tv_sp<IClient> bindTo(SubServiceInfo& info, Protocol& protocol, int timeout, int tag) override {
        record(&info, &protocol, tag + timeout);
        return client;
    }
    int publish(ServiceInfo& info, Protocol& protocol, tv_sp<IService>& service) override {
        record(&info, &protocol, 0, &service);
        return -1;
    }
    int publish(SubServiceInfo& info, Protocol& clientProtocol, Protocol& masterProtocol,
                tv_sp<ISubService>& subService) override {
        record(&info, &clientProtocol, 0, &subService, &masterProtocol);
        return -1;
    }

    void record(const void* info, Protocol* protocol, int number, const void* service = nullptr,
                Protocol* masterProtocol = nullptr) {
        lastInfo = info;
        lastProtocol = protocol;
        lastNumber = number;
        lastService = service;
        lastMasterProtocol = masterProtocol;
    }

    tv_sp<IClient> client{new FakeClient()};
    const void* lastInfo = nullptr;
    Protocol* lastProtocol = nullptr;
    int lastNumber = 0;
    const void* lastService = nullptr;
    Protocol* lastMasterProtocol = nullptr;
};

// Like a real coupler: one object per interface and process, held by a static.
tv_sp<tavrin::IDiscoverer> createDiscoverer() {
    static tv_sp<tavrin::IDiscoverer> discoverer(new FakeCoupler());
    return discoverer;
}
tv_sp<tavrin::IAnnouncer> createAnnouncer() {
    static tv_sp<tavrin::IAnnouncer> announcer(new FakeCoupler());
    return announcer;
}
tv_sp<tavrin::IDiscoverer> otherDiscoverer() {
    return tv_sp<tavrin::IDiscoverer>(nullptr);
}
tv_sp<tavrin::IAnnouncer> otherAnnouncer() {
    return tv_sp<tavrin::IAnnouncer>(nullptr);
}

TEST(CouplerRegistry, FirstRegistrationWinsAndNamesMatchExactly) {
    tavrin::registerCoupler(kTestCoupler, {createAnnouncer, createDiscoverer});
    EXPECT_FALSE(tavrin::registerCoupler(kTestCoupler, {otherAnnouncer, otherDiscoverer}));
    EXPECT_EQ(tavrin::findDiscovererFactory(kTestCoupler), &createDiscoverer);
    EXPECT_EQ(tavrin::findAnnouncerFactory(kTestCoupler), &createAnnouncer);
    EXPECT_EQ(tavrin::findDiscovererFactory("testcoupler"), nullptr);
    EXPECT_EQ(tavrin::findAnnouncerFactory(""), nullptr);
}

// The lines of two facade calls that found no coupler: each one's error
// between its entry and exit traces.
std::vector<LogLine> failedCalls(const char* operation, const std::string& firstError,
                                 const std::string& secondError) {
    const std::string facade = operation == std::string("bindTo") ? "Discoverer" : "Announcer";
    const LogLine in{ANDROID_LOG_VERBOSE, "[Tavrin]",
                     "[" + facade + "][" + operation + "] [-IN-]\n"};
    const LogLine out{ANDROID_LOG_VERBOSE, "[Tavrin]",
                      "[" + facade + "][" + operation + "] [-OUT-]\n"};
    const std::string tag = "[Tavrin][" + facade + "]";
    return {in, {ANDROID_LOG_ERROR, tag, firstError},  out,
            in, {ANDROID_LOG_ERROR, tag, secondError}, out};
}

class Facades : public testing::Test {
  protected:
    void SetUp() override {
        tavrin::registerCoupler(kTestCoupler, {createAnnouncer, createDiscoverer});
        // Built before capturing, so that only the call under test writes lines.
        Discoverer::self();
        Announcer::self();
        log.clear();
    }

    Protocol protocol;
    LogCapture log;
};

TEST_F(Facades, BindWithUnknownIpcFailsWithErrorThenExitTrace) {
    ServiceInfo info("media.player", "binder");
    tv_sp<IClient> client = Discoverer::self().bindTo(info, protocol, 3);
    EXPECT_TRUE(client.isNull());
    EXPECT_EQ(client.useCount(), 1);
    SubServiceInfo subInfo("tuner", "media.player", "");
    EXPECT_TRUE(Discoverer::self().bindTo(subInfo, protocol, 500, 3).isNull());
    EXPECT_EQ(log.lines(),
              failedCalls("bindTo",
                          "bind service fail,cann't find coupler,ipc[binder] service[media.player]",
                          "bind subservice fail,cann't find coupler,ipc[] subservice[tuner] "
                          "service[media.player]"));
}

TEST_F(Facades, PublishWithUnknownIpcLogsErrorAndStillReturnsZero) {
    ServiceInfo info("media.player", "binder");
    tv_sp<IService> service;
    EXPECT_EQ(Announcer::self().publish(info, protocol, service), 0);
    SubServiceInfo subInfo("tuner", "media.player", "");
    tv_sp<ISubService> subService;
    EXPECT_EQ(Announcer::self().publish(subInfo, protocol, protocol, subService), 0);
    EXPECT_EQ(
        log.lines(),
        failedCalls("publish", "publish fail,cann't find coupler,ipc[binder] service[media.player]",
                    "publish fail,cann't find coupler,ipc[] service[tuner]"));
}

TEST_F(Facades, ForwardTheCallersArgumentsAndDropTheirCouplerReference) {
    auto* discoverer = static_cast<FakeCoupler*>(createDiscoverer().get());
    ServiceInfo info("media.player", kTestCoupler);
    EXPECT_EQ(Discoverer::self().bindTo(info, protocol, 42).get(), discoverer->client.get());
    EXPECT_EQ(discoverer->lastInfo, &info);
    EXPECT_EQ(discoverer->lastProtocol, &protocol);
    EXPECT_EQ(discoverer->lastNumber, 42);
    SubServiceInfo subInfo("tuner", "media.player", kTestCoupler);
    EXPECT_EQ(Discoverer::self().bindTo(subInfo, protocol, 1500, 7).get(),
              discoverer->client.get());
    EXPECT_EQ(discoverer->lastInfo, &subInfo);
    EXPECT_EQ(discoverer->lastNumber, 1507);
    // The facade released its copy: only the static and this temporary remain.
    EXPECT_EQ(createDiscoverer().useCount(), 2);

    auto* announcer = static_cast<FakeCoupler*>(createAnnouncer().get());
    tv_sp<IService> service;
    EXPECT_EQ(Announcer::self().publish(info, protocol, service), 0);
    EXPECT_EQ(announcer->lastInfo, &info);
    EXPECT_EQ(announcer->lastService, &service);
    tv_sp<ISubService> subService;
    Protocol masterProtocol;
    EXPECT_EQ(Announcer::self().publish(subInfo, protocol, masterProtocol, subService), 0);
    EXPECT_EQ(announcer->lastInfo, &subInfo);
    EXPECT_EQ(announcer->lastService, &subService);
    EXPECT_EQ(announcer->lastMasterProtocol, &masterProtocol);
    EXPECT_EQ(createAnnouncer().useCount(), 2);
    for (const LogLine& line : log.lines()) EXPECT_EQ(line.tag, "[Tavrin]") << line;
}

}  // namespace
