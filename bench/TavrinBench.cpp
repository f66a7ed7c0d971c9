#include "TavrinBench.h"

#include <android/log.h>
#include <binder/IServiceManager.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Announcer.h"
#include "BenchSupport.h"
#include "ChildProcess.h"
#include "Discoverer.h"
#include "ProcSupport.h"
#include "TavrinServices.h"
#include "Together.h"

using tavrin::IClient;
using tavrin::tv_sp;
using tvtest::Channel;
using tvtest::ChildProcess;

namespace coupler {
namespace {

constexpr const char* kIpc = "Binder";
constexpr int kTag = 1;
constexpr int32_t kCallValue = 42;
constexpr std::chrono::seconds kSetupTimeout{30};
constexpr std::chrono::seconds kResultTimeout{60};
// A service serves until the driver closes its channel, or this long at most.
constexpr std::chrono::seconds kLongestService{120};
// How long the master may hold a sub-service bind waiting for the registration.
constexpr int kSubServiceWaitMillis = 5000;
constexpr int kWarmUp = 1000;

// Each measurement publishes its own names: the service manager may not yet
// have seen the death of the previous measurement's processes.
std::string uniqueName(const char* role) {
    static int counter = 0;
    return std::string("bench.tavrin.") + role + "." + std::to_string(++counter);
}

// Before the library is first used. Its informational lines would bury the
// benchmark's progress on stderr; warnings and errors still show.
void setUpChild(bool pinned) {
    if (pinned) pinToFirstCpu();
    __android_log_set_minimum_priority(ANDROID_LOG_WARN);
}

// The first publish keeps the calling thread for good: a second thread tells
// the driver once the service manager lists the name, and ends the process
// when the driver closes the channel.
int serve(Channel& channel, const std::string& name, bool pinned) {
    setUpChild(pinned);
    auto* service = new BenchService();
    tv_sp<tavrin::IService> held(service);
    std::thread([=, &channel] {
        const android::String16 name16(name.c_str());
        const bool listed = tvproc::waitUntil(
            [&] {
                return service->publishing() &&
                       android::defaultServiceManager()->checkService(name16) != nullptr;
            },
            kSetupTimeout);
        if (!listed || !channel.sendValue(1)) _exit(1);
        channel.receiveValue(kLongestService);
        _exit(0);
    }).detach();
    tavrin::ServiceInfo info(name, kIpc);
    tavrin::Protocol protocol = numberProtocol();
    tavrin::Announcer::self().publish(info, protocol, held);
    return 1;  // publish came back: the service manager refused the name
}

// A sub-service's publish registers with the master and returns; pool
// threads serve it while this thread waits for the driver.
int serveSubService(Channel& channel, const std::string& name, const std::string& master,
                    bool pinned) {
    setUpChild(pinned);
    auto* subService = new EchoSubService();
    tv_sp<tavrin::ISubService> held(subService);
    tavrin::SubServiceInfo info(name, master, kIpc);
    tavrin::Protocol clientProtocol = numberProtocol();
    tavrin::Protocol masterProtocol = numberProtocol();
    tavrin::Announcer::self().publish(info, clientProtocol, masterProtocol, held);
    if (!subService->registered() || !channel.sendValue(1)) return 1;
    channel.receiveValue(kLongestService);
    return 0;
}

std::unique_ptr<ChildProcess> startService(const std::string& name, bool pinned) {
    auto service = std::make_unique<ChildProcess>(
        [=](Channel& channel) { return serve(channel, name, pinned); });
    if (!service->channel().receiveValue(kSetupTimeout)) return nullptr;
    return service;
}

std::unique_ptr<ChildProcess> startSubService(const std::string& name, const std::string& master,
                                              bool pinned) {
    auto subService = std::make_unique<ChildProcess>(
        [=](Channel& channel) { return serveSubService(channel, name, master, pinned); });
    if (!subService->channel().receiveValue(kSetupTimeout)) return nullptr;
    return subService;
}

tv_sp<IClient> bindService(const std::string& name) {
    tavrin::ServiceInfo info(name, kIpc);
    tavrin::Protocol protocol = numberProtocol();
    return tavrin::Discoverer::self().bindTo(info, protocol, kTag);
}

tv_sp<IClient> bindSubService(const std::string& name, const std::string& master) {
    tavrin::SubServiceInfo info(name, master, kIpc);
    tavrin::Protocol protocol = numberProtocol();
    return tavrin::Discoverer::self().bindTo(info, protocol, kSubServiceWaitMillis, kTag);
}

// Every request is answered with its own value when all went well.
bool call(IClient& client, Number& request) {
    return valueOf(client.ipcCall(request)) == request.value();
}

// Warms up, then sends the driver the median of `iterations` timed calls.
int reportMedianCall(Channel& channel, IClient& client, Number& request, int iterations) {
    for (int i = 0; i < kWarmUp; ++i) {
        if (!call(client, request)) return 1;
    }
    std::vector<int64_t> samples;
    samples.reserve(static_cast<size_t>(iterations));
    for (int i = 0; i < iterations; ++i) {
        const int64_t start = monotonicNanos();
        if (!call(client, request)) return 1;
        samples.push_back(monotonicNanos() - start);
    }
    return channel.sendValue(median(std::move(samples))) ? 0 : 1;
}

int measureCalls(Channel& channel, const std::string& name, Number::Kind kind, int iterations,
                 bool pinned) {
    setUpChild(pinned);
    tv_sp<IClient> client = bindService(name);
    if (!client) return 1;
    tv_sp<tavrin::IClientNotifier> sink(new NoteCounter());
    client->setNotifier(sink);
    Number request(kind, kCallValue);
    return reportMedianCall(channel, *client, request, iterations);
}

int measureSubServiceCalls(Channel& channel, const std::string& name, const std::string& master,
                           int iterations, bool pinned) {
    setUpChild(pinned);
    tv_sp<IClient> client = bindSubService(name, master);
    if (!client) return 1;
    Number request(Number::ECHO, kCallValue);
    return reportMedianCall(channel, *client, request, iterations);
}

// sendNotify drops what it cannot deliver without a word: every notification
// must have arrived, once.
bool receiveStream(IClient& client, NoteCounter& counter, int32_t count) {
    counter.restart();
    Number request(Number::STREAM, count);
    return call(client, request) && counter.received() == count;
}

int receiveNotifications(Channel& channel, const std::string& name, int notifications,
                         bool pinned) {
    setUpChild(pinned);
    tv_sp<IClient> client = bindService(name);
    if (!client) return 1;
    auto* counter = new NoteCounter();
    tv_sp<tavrin::IClientNotifier> sink(counter);
    client->setNotifier(sink);
    if (!receiveStream(*client, *counter, kWarmUp)) return 1;
    auto work = [&] { return receiveStream(*client, *counter, notifications); };
    return runWhenTold(channel, work) ? 0 : 1;
}

int callTogether(Channel& channel, const std::string& name, int calls, bool pinned) {
    setUpChild(pinned);
    tv_sp<IClient> client = bindService(name);
    if (!client) return 1;
    Number request(Number::ECHO, kCallValue);
    auto work = [&] {
        for (int i = 0; i < calls; ++i) {
            if (!call(*client, request)) return false;
        }
        return true;
    };
    return runWhenTold(channel, work) ? 0 : 1;
}

// Includes the process's first use of the library and of the transport, as
// an application that binds at start meets it.
int timeFirstCall(Channel& channel, const std::string& name, const std::string& master) {
    setUpChild(false);
    Number request(Number::ECHO, kCallValue);
    const int64_t start = monotonicNanos();
    tv_sp<IClient> client = bindSubService(name, master);
    if (!client || !call(*client, request)) return 1;
    return channel.sendValue(monotonicNanos() - start) ? 0 : 1;
}

std::optional<double> microsReportedBy(ChildProcess& client) {
    const std::optional<int64_t> nanos = client.channel().receiveValue(kResultTimeout);
    if (!nanos) return std::nullopt;
    return static_cast<double>(*nanos) / 1000.0;
}

std::optional<double> serviceCallMicros(Number::Kind kind, bool pinned, int iterations) {
    const std::string name = uniqueName("service");
    auto service = startService(name, pinned);
    if (service == nullptr) return std::nullopt;
    ChildProcess client(
        [=](Channel& channel) { return measureCalls(channel, name, kind, iterations, pinned); });
    return microsReportedBy(client);
}

}  // namespace

std::optional<double> callMicros(bool pinned, int iterations) {
    return serviceCallMicros(Number::ECHO, pinned, iterations);
}

std::optional<double> notifyExCallMicros(bool pinned, int iterations) {
    return serviceCallMicros(Number::ASK, pinned, iterations);
}

std::optional<double> notificationsPerSecond(bool pinned, int notifications) {
    const std::string name = uniqueName("service");
    auto service = startService(name, pinned);
    if (service == nullptr) return std::nullopt;
    std::vector<std::unique_ptr<ChildProcess>> receiver;
    receiver.push_back(std::make_unique<ChildProcess>([=](Channel& channel) {
        return receiveNotifications(channel, name, notifications, pinned);
    }));
    return operationsPerSecond(receiver, notifications);
}

std::optional<double> parallelCallsPerSecond(bool pinned, int clients, int callsEach) {
    const std::string name = uniqueName("service");
    auto service = startService(name, pinned);
    if (service == nullptr) return std::nullopt;
    std::vector<std::unique_ptr<ChildProcess>> callers;
    for (int i = 0; i < clients; ++i) {
        callers.push_back(std::make_unique<ChildProcess>(
            [=](Channel& channel) { return callTogether(channel, name, callsEach, pinned); }));
    }
    return operationsPerSecond(callers, static_cast<int64_t>(clients) * callsEach);
}

std::optional<double> subServiceCallMicros(bool pinned, int iterations) {
    const std::string master = uniqueName("master");
    const std::string name = uniqueName("sub");
    auto masterProcess = startService(master, pinned);
    if (masterProcess == nullptr) return std::nullopt;
    auto subService = startSubService(name, master, pinned);
    if (subService == nullptr) return std::nullopt;
    ChildProcess client([=](Channel& channel) {
        return measureSubServiceCalls(channel, name, master, iterations, pinned);
    });
    return microsReportedBy(client);
}

std::optional<double> subServiceFirstCallMillis(int rounds) {
    const std::string master = uniqueName("master");
    const std::string name = uniqueName("sub");
    auto masterProcess = startService(master, false);
    if (masterProcess == nullptr) return std::nullopt;
    auto subService = startSubService(name, master, false);
    if (subService == nullptr) return std::nullopt;
    std::vector<int64_t> samples;
    for (int round = 0; round < rounds; ++round) {
        ChildProcess client([=](Channel& channel) { return timeFirstCall(channel, name, master); });
        const std::optional<int64_t> nanos = client.channel().receiveValue(kResultTimeout);
        if (!nanos) return std::nullopt;
        samples.push_back(*nanos);
    }
    return static_cast<double>(median(std::move(samples))) / 1e6;
}

}  // namespace coupler
