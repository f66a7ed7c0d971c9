#include <gtest/gtest.h>

#include <tuple>

#include "Announcer.h"
#include "Discoverer.h"
#include "LogCapture.h"
#include "core/CouplerRegistry.h"

namespace {

using namespace tavrin;
using tavrin_test::LogCapture;
using tavrin_test::LogLine;

constexpr const char* kTestCoupler = "TestCoupler";

class FakeClient : public IClient {
  public:
    tv_sp<IPCClass> ipcCall(IPCClass&) override { return tv_sp<IPCClass>(nullptr); }
    int setNotifier(tv_sp<IClientNotifier>&) override { return 0; }
};

// Notes the last call the facades forwarded to it: the info, the protocol,
// the numbers, the service and the master's protocol it was given.
class FakeCoupler : public IDiscoverer, public IAnnouncer {
  public:
    using Call = std::tuple<const void*, const Protocol*, int, const void*, const Protocol*>;

    tv_sp<IClient> bindTo(ServiceInfo& info, Protocol& protocol, int tag) override {
        last = {&info, &protocol, tag, nullptr, nullptr};
        return client;
    }
    tv_sp<IClient> bindTo(SubServiceInfo& info, Protocol& protocol, int timeout, int tag) override {
        last = {&info, &protocol, tag + timeout, nullptr, nullptr};
        return client;
    }
    int publish(ServiceInfo& info, Protocol& protocol, tv_sp<IService>& service) override {
        last = {&info, &protocol, 0, &service, nullptr};
        return -1;
    }
    int publish(SubServiceInfo& info, Protocol& clientProtocol, Protocol& masterProtocol,
                tv_sp<ISubService>& subService) override {
        last = {&info, &clientProtocol, 0, &subService, &masterProtocol};
        return -1;
    }

    tv_sp<IClient> client{new FakeClient()};
    Call last;
};

// Like a real coupler: one object per interface and process, held by a static.
tv_sp<IDiscoverer> createDiscoverer() {
    static tv_sp<IDiscoverer> discoverer(new FakeCoupler());
    return discoverer;
}
tv_sp<IAnnouncer> createAnnouncer() {
    static tv_sp<IAnnouncer> announcer(new FakeCoupler());
    return announcer;
}

class Facades : public testing::Test {
  protected:
    void SetUp() override {
        registerCoupler(kTestCoupler, {createAnnouncer, createDiscoverer});
        // Built before capturing, so that only the calls under test write lines.
        Discoverer::self();
        Announcer::self();
        log.clear();
    }

    Protocol protocol;
    LogCapture log;
};

// The lines of a facade call that found no coupler: its error between its
// entry and exit traces.
std::vector<LogLine> failedCall(const std::string& facade, const std::string& operation,
                                const std::string& error) {
    const std::string trace = "[" + facade + "][" + operation + "] ";
    return {{ANDROID_LOG_VERBOSE, "[Tavrin]", trace + "[-IN-]\n"},
            {ANDROID_LOG_ERROR, "[Tavrin][" + facade + "]", error},
            {ANDROID_LOG_VERBOSE, "[Tavrin]", trace + "[-OUT-]\n"}};
}

TEST_F(Facades, CallsForAnUnknownIpcFailWithAnErrorBetweenTheirTraces) {
    ServiceInfo info("media.player", "binder");
    tv_sp<IClient> client = Discoverer::self().bindTo(info, protocol, 3);
    EXPECT_TRUE(client.isNull());
    EXPECT_EQ(client.useCount(), 1);
    EXPECT_EQ(
        log.lines(),
        failedCall("Discoverer", "bindTo",
                   "bind service fail,cann't find coupler,ipc[binder] service[media.player]"));
    log.clear();
    SubServiceInfo subInfo("tuner", "media.player", "");
    EXPECT_TRUE(Discoverer::self().bindTo(subInfo, protocol, 500, 3).isNull());
    EXPECT_EQ(log.lines(), failedCall("Discoverer", "bindTo",
                                      "bind subservice fail,cann't find coupler,ipc[] "
                                      "subservice[tuner] service[media.player]"));
    log.clear();
    // A publish that found no coupler still returns 0.
    tv_sp<IService> service;
    EXPECT_EQ(Announcer::self().publish(info, protocol, service), 0);
    EXPECT_EQ(log.lines(),
              failedCall("Announcer", "publish",
                         "publish fail,cann't find coupler,ipc[binder] service[media.player]"));
    log.clear();
    tv_sp<ISubService> subService;
    EXPECT_EQ(Announcer::self().publish(subInfo, protocol, protocol, subService), 0);
    EXPECT_EQ(log.lines(), failedCall("Announcer", "publish",
                                      "publish fail,cann't find coupler,ipc[] service[tuner]"));
}

TEST_F(Facades, ForwardToTheCouplerFirstRegisteredUnderTheExactNameAndDropTheirReference) {
    EXPECT_FALSE(registerCoupler(kTestCoupler, {[] { return tv_sp<IAnnouncer>(nullptr); },
                                                [] { return tv_sp<IDiscoverer>(nullptr); }}));
    EXPECT_EQ(findDiscovererFactory(kTestCoupler), &createDiscoverer);
    EXPECT_EQ(findAnnouncerFactory(kTestCoupler), &createAnnouncer);
    EXPECT_EQ(findDiscovererFactory("testcoupler"), nullptr);
    EXPECT_EQ(findAnnouncerFactory(""), nullptr);
    auto* discoverer = static_cast<FakeCoupler*>(createDiscoverer().get());
    ServiceInfo info("media.player", kTestCoupler);
    EXPECT_EQ(Discoverer::self().bindTo(info, protocol, 42).get(), discoverer->client.get());
    EXPECT_EQ(discoverer->last, FakeCoupler::Call(&info, &protocol, 42, nullptr, nullptr));
    SubServiceInfo subInfo("tuner", "media.player", kTestCoupler);
    EXPECT_EQ(Discoverer::self().bindTo(subInfo, protocol, 1500, 7).get(),
              discoverer->client.get());
    EXPECT_EQ(discoverer->last, FakeCoupler::Call(&subInfo, &protocol, 1507, nullptr, nullptr));
    // The facade released its copy: only the static and this temporary remain.
    EXPECT_EQ(createDiscoverer().useCount(), 2);

    auto* announcer = static_cast<FakeCoupler*>(createAnnouncer().get());
    tv_sp<IService> service;
    EXPECT_EQ(Announcer::self().publish(info, protocol, service), 0);
    EXPECT_EQ(announcer->last, FakeCoupler::Call(&info, &protocol, 0, &service, nullptr));
    tv_sp<ISubService> subService;
    Protocol masterProtocol;
    EXPECT_EQ(Announcer::self().publish(subInfo, protocol, masterProtocol, subService), 0);
    EXPECT_EQ(announcer->last,
              FakeCoupler::Call(&subInfo, &protocol, 0, &subService, &masterProtocol));
    EXPECT_EQ(createAnnouncer().useCount(), 2);
    for (const LogLine& line : log.lines()) EXPECT_EQ(line.tag, "[Tavrin]") << line;
}

}  // namespace
