#include "BinderBench.h"

#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <signal.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>

#include "BenchSupport.h"
#include "ChildProcess.h"
#include "EchoService.h"
#include "Together.h"

using android::IBinder;
using android::Parcel;
using android::sp;
using android::String16;
using tvtest::Channel;
using tvtest::ChildProcess;

namespace binder {
namespace {

constexpr std::chrono::seconds kSetupTimeout{30};
constexpr std::chrono::seconds kResultTimeout{60};
// A service serves until the driver closes its channel, or this long at most.
constexpr std::chrono::seconds kLongestService{120};
constexpr std::chrono::seconds kDeathTimeout{5};
constexpr int kWarmUp = 1000;
constexpr int kSlowCallsPerClient = 2;
constexpr int kBindSteps = 4;

// Calls binderDied's time back to the driver.
class DeathTimer : public IBinder::DeathRecipient {
  public:
    explicit DeathTimer(const Channel& channel) : mChannel(channel) {}
    void binderDied(const android::wp<IBinder>&) override { mChannel.sendValue(monotonicNanos()); }

  private:
    const Channel& mChannel;
};

// Each measurement registers its own name: the daemon may not yet have seen
// the death of the previous measurement's service.
std::string uniqueServiceName() {
    static int counter = 0;
    return "bench.echo." + std::to_string(++counter);
}

void writePayload(Parcel& request) {
    static const char bytes[kPayloadSize] = "binder-payload!";
    request.write(bytes, sizeof bytes);
}

bool call(const sp<IBinder>& service, uint32_t code, const Parcel& request) {
    Parcel reply;
    return service->transact(code, request, &reply) == android::NO_ERROR;
}

// Sends the pool limit once the service is registered, then serves.
int serveEcho(Channel& channel, const std::string& name, bool pinned) {
    if (pinned) pinToFirstCpu();
    sp<android::ProcessState> process = android::ProcessState::self();
    process->startThreadPool();
    if (android::defaultServiceManager()->addService(String16(name.c_str()), new EchoService()) !=
        android::NO_ERROR) {
        return 1;
    }
    channel.sendValue(static_cast<int64_t>(process->getThreadPoolMaxThreadCount()));
    channel.receiveValue(kLongestService);
    return 0;
}

std::unique_ptr<ChildProcess> startService(const std::string& name, bool pinned,
                                           size_t* poolLimit = nullptr) {
    auto service = std::make_unique<ChildProcess>(
        [name, pinned](Channel& channel) { return serveEcho(channel, name, pinned); });
    const std::optional<int64_t> limit = service->channel().receiveValue(kSetupTimeout);
    if (!limit) return nullptr;
    if (poolLimit != nullptr) *poolLimit = static_cast<size_t>(*limit);
    return service;
}

sp<IBinder> findService(const std::string& name) {
    return android::defaultServiceManager()->getService(String16(name.c_str()));
}

// Calls `code` with `request` (a 16-byte payload when empty).
int measureRoundTrips(Channel& channel, const std::string& name, int iterations, bool pinned,
                      uint32_t code = EchoService::ECHO, size_t bytes = 0) {
    if (pinned) pinToFirstCpu();
    sp<IBinder> service = findService(name);
    if (service == nullptr) return 1;
    Parcel request;
    if (bytes == 0) {
        writePayload(request);
    } else {
        const std::vector<uint8_t> body(bytes, 'b');
        request.write(body.data(), body.size());
    }
    for (int i = 0; i < kWarmUp; ++i) {
        if (!call(service, code, request)) return 1;
    }
    std::vector<int64_t> samples;
    samples.reserve(static_cast<size_t>(iterations));
    for (int i = 0; i < iterations; ++i) {
        const int64_t start = monotonicNanos();
        if (!call(service, code, request)) return 1;
        samples.push_back(monotonicNanos() - start);
    }
    return channel.sendValue(median(std::move(samples))) ? 0 : 1;
}

int makePacedCalls(Channel& channel, const std::string& name, int calls, bool pinned) {
    if (pinned) pinToFirstCpu();
    sp<IBinder> service = findService(name);
    if (service == nullptr) return 1;
    Parcel request;
    writePayload(request);
    auto once = [&] { return call(service, EchoService::ECHO, request); };
    for (int i = 0; i < kWarmUp; ++i) {
        if (!once()) return 1;
    }
    return runPacedWhenTold(channel, calls, once) ? 0 : 1;
}

// Binds and calls once, then stays idle until told, and reports the CPU it
// used meanwhile.
int bindAndIdle(Channel& channel, const std::string& name) {
    sp<IBinder> service = findService(name);
    Parcel request;
    writePayload(request);
    if (service == nullptr || !call(service, EchoService::ECHO, request)) return 1;
    channel.sendValue(1);
    const int64_t before = ownCpuNanos();
    channel.receiveValue(kResultTimeout);
    return channel.sendValue(ownCpuNanos() - before) ? 0 : 1;
}

// Sends `count` one-ways, waiting for the service after each batch; the
// service has then seen `alreadyCounted + count` in all.
bool sendOneWays(const sp<IBinder>& service, int count, int64_t alreadyCounted) {
    Parcel message;
    writePayload(message);
    for (int sent = 1; sent <= count; ++sent) {
        if (service->transact(EchoService::COUNT, message, nullptr, IBinder::FLAG_ONEWAY) !=
            android::NO_ERROR) {
            return false;
        }
        if (sent % kOneWayBatch == 0 || sent == count) {
            Parcel await;
            await.writeInt64(alreadyCounted + sent);
            if (!call(service, EchoService::AWAIT_COUNT, await)) return false;
        }
    }
    return true;
}

int sendMeasuredOneWays(Channel& channel, const std::string& name, int messages, bool pinned) {
    if (pinned) pinToFirstCpu();
    sp<IBinder> service = findService(name);
    if (service == nullptr || !sendOneWays(service, kWarmUp, 0)) return 1;
    return runWhenTold(channel, [&] { return sendOneWays(service, messages, kWarmUp); }) ? 0 : 1;
}

int callTogether(Channel& channel, const std::string& name, int calls) {
    sp<IBinder> service = findService(name);
    if (service == nullptr) return 1;
    Parcel request;
    writePayload(request);
    auto work = [&] {
        for (int i = 0; i < calls; ++i) {
            if (!call(service, EchoService::ECHO, request)) return false;
        }
        return true;
    };
    return runWhenTold(channel, work) ? 0 : 1;
}

int awaitDeath(Channel& channel, const std::string& name) {
    android::ProcessState::self()->startThreadPool();
    sp<IBinder> service = findService(name);
    sp<DeathTimer> timer = new DeathTimer(channel);
    if (service == nullptr || service->linkToDeath(timer) != android::NO_ERROR) return 1;
    channel.sendValue(1);
    channel.receiveValue(kResultTimeout);
    return 0;
}

std::optional<int64_t> oneDeathNanos() {
    const std::string name = uniqueServiceName();
    std::unique_ptr<ChildProcess> service = startService(name, false);
    if (service == nullptr) return std::nullopt;
    ChildProcess watcher([&](Channel& channel) { return awaitDeath(channel, name); });
    if (!watcher.channel().receiveValue(kSetupTimeout)) return std::nullopt;
    const int64_t killed = monotonicNanos();
    kill(service->pid(), SIGKILL);
    const std::optional<int64_t> noticed = watcher.channel().receiveValue(kDeathTimeout);
    if (!noticed) return std::nullopt;
    return *noticed - killed;
}

// A client that binds, calls once, and on the go makes slow calls.
int bindAndWait(Channel& channel, const std::string& name) {
    sp<IBinder> service = findService(name);
    Parcel request;
    writePayload(request);
    if (service == nullptr || !call(service, EchoService::ECHO, request)) return 1;
    auto slowCalls = [&] {
        for (int i = 0; i < kSlowCallsPerClient; ++i) {
            if (!call(service, EchoService::SLOW_ECHO, request)) return false;
        }
        return true;
    };
    if (!runWhenTold(channel, slowCalls)) return 1;
    channel.receiveValue(kResultTimeout);
    return 0;
}

// Samples a process's thread count every millisecond until told to stop.
int samplePeakThreads(Channel& channel, pid_t service) {
    size_t peak = 0;
    const auto deadline = std::chrono::steady_clock::now() + kResultTimeout;
    while (!channel.readable(std::chrono::milliseconds(1)) &&
           std::chrono::steady_clock::now() < deadline) {
        peak = std::max(peak, threadCountOf(service));
    }
    return channel.sendValue(static_cast<int64_t>(peak)) ? 0 : 1;
}

bool bindClients(std::vector<std::unique_ptr<ChildProcess>>* clients, const std::string& name,
                 size_t count) {
    while (clients->size() < count) {
        clients->push_back(std::make_unique<ChildProcess>(
            [&name](Channel& channel) { return bindAndWait(channel, name); }));
        if (!clients->back()->channel().receiveValue(kSetupTimeout)) return false;
    }
    return true;
}

}  // namespace

std::optional<double> roundTripMicros(bool pinned, int iterations) {
    return bodyCallMicros(pinned, 0, iterations);
}

std::optional<double> bodyCallMicros(bool pinned, size_t bytes, int iterations) {
    const std::string name = uniqueServiceName();
    auto service = startService(name, pinned);
    if (service == nullptr) return std::nullopt;
    const uint32_t code = bytes == 0 ? EchoService::ECHO : EchoService::TAKE_BODY;
    ChildProcess client([=](Channel& channel) {
        return measureRoundTrips(channel, name, iterations, pinned, code, bytes);
    });
    const std::optional<int64_t> medianNanos = client.channel().receiveValue(kResultTimeout);
    if (!medianNanos) return std::nullopt;
    return static_cast<double>(*medianNanos) / 1000.0;
}

std::optional<double> pacedCpuMicros(bool pinned, int calls) {
    const std::string name = uniqueServiceName();
    auto service = startService(name, pinned);
    if (service == nullptr) return std::nullopt;
    ChildProcess client(
        [=](Channel& channel) { return makePacedCalls(channel, name, calls, pinned); });
    return pacedCpuMicrosPerOperation(client, service->pid(), calls);
}

std::optional<double> idlePairCpuMillis(int seconds) {
    const std::string name = uniqueServiceName();
    auto service = startService(name, false);
    if (service == nullptr) return std::nullopt;
    ChildProcess client([=](Channel& channel) { return bindAndIdle(channel, name); });
    if (!client.channel().receiveValue(kSetupTimeout)) return std::nullopt;
    const int64_t serviceBefore = cpuNanosOf(service->pid());
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const int64_t serviceNanos = cpuNanosOf(service->pid()) - serviceBefore;
    client.channel().sendValue(1);
    const std::optional<int64_t> clientNanos = client.channel().receiveValue(kResultTimeout);
    if (!clientNanos) return std::nullopt;
    return static_cast<double>(*clientNanos + serviceNanos) / 1e6;
}

std::optional<double> oneWayPerSecond(bool pinned, int messages) {
    const std::string name = uniqueServiceName();
    auto service = startService(name, pinned);
    if (service == nullptr) return std::nullopt;
    std::vector<std::unique_ptr<ChildProcess>> sender;
    sender.push_back(std::make_unique<ChildProcess>(
        [=](Channel& channel) { return sendMeasuredOneWays(channel, name, messages, pinned); }));
    return operationsPerSecond(sender, messages);
}

std::optional<double> parallelCallsPerSecond(int clients, int callsEach) {
    const std::string name = uniqueServiceName();
    auto service = startService(name, false);
    if (service == nullptr) return std::nullopt;
    std::vector<std::unique_ptr<ChildProcess>> callers;
    for (int i = 0; i < clients; ++i) {
        callers.push_back(std::make_unique<ChildProcess>(
            [=](Channel& channel) { return callTogether(channel, name, callsEach); }));
    }
    return operationsPerSecond(callers, static_cast<int64_t>(clients) * callsEach);
}

std::optional<double> deathNoticeMillis(int rounds) {
    std::vector<int64_t> samples;
    for (int round = 0; round < rounds; ++round) {
        const std::optional<int64_t> nanos = oneDeathNanos();
        if (!nanos) return std::nullopt;
        samples.push_back(*nanos);
    }
    return static_cast<double>(median(std::move(samples))) / 1e6;
}

std::optional<ManyClientsResult> manyClients(int clients) {
    ManyClientsResult result;
    const std::string name = uniqueServiceName();
    auto service = startService(name, false, &result.poolLimit);
    if (service == nullptr) return std::nullopt;
    result.idleThreads = threadCountOf(service->pid());
    result.samples.push_back({0, result.idleThreads, descriptorCountOf(service->pid())});
    std::vector<std::unique_ptr<ChildProcess>> bound;
    for (int step = 1; step <= kBindSteps; ++step) {
        if (!bindClients(&bound, name, static_cast<size_t>(clients * step / kBindSteps))) {
            return std::nullopt;
        }
        result.samples.push_back(
            {bound.size(), threadCountOf(service->pid()), descriptorCountOf(service->pid())});
    }
    const pid_t servicePid = service->pid();
    ChildProcess sampler([=](Channel& channel) { return samplePeakThreads(channel, servicePid); });
    for (const auto& client : bound) client->channel().sendValue(1);
    for (const auto& client : bound) {
        if (!client->channel().receiveValue(kResultTimeout) ||
            !client->channel().receiveValue(kResultTimeout)) {
            return std::nullopt;
        }
    }
    sampler.channel().sendValue(0);
    const std::optional<int64_t> peak = sampler.channel().receiveValue(kResultTimeout);
    if (!peak) return std::nullopt;
    result.peakThreads = static_cast<size_t>(*peak);
    return result;
}

}  // namespace binder
