// attack_bench: what a hostile process of the same user does to a served
// process's legitimate client. Each attack gets a fresh served process; the
// client's round trips are measured on it first in quiet, then while the
// attack runs. See ../README.md.
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AttackService.h"
#include "BenchSupport.h"
#include "ChildProcess.h"
#include "Hostiles.h"
#include "ProcSupport.h"
#include "ServiceManagerDaemon.h"

using android::IBinder;
using android::NO_ERROR;
using android::Parcel;
using android::sp;
using android::String16;
using tvtest::Channel;
using tvtest::ChildProcess;

namespace {

constexpr std::chrono::seconds kSetupTimeout{30};
constexpr double kMaxRatio = 10;
// The served process's soft RLIMIT_NOFILE during the connection flood.
constexpr rlim_t kFloodedDescriptorLimit = 256;

struct Sizes {
    int roundTrips = 20000;
    int oneWays = 1000;
    // How long a legitimate client may take before it counts as stalled.
    std::chrono::seconds clientLimit{60};
    AttackSizes attack;

    static Sizes quick() {
        Sizes sizes;
        sizes.roundTrips = 200;
        sizes.oneWays = 50;
        sizes.clientLimit = std::chrono::seconds(10);
        sizes.attack = AttackSizes::quick();
        return sizes;
    }
};

struct Names {
    std::string target;  // what the client calls and attackers aim at
    std::string other;   // what the client sends one-ways to
};

int serve(Channel& channel, const Names& names, rlim_t descriptorLimit) {
    if (descriptorLimit > 0) {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = std::min(descriptorLimit, limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    android::ProcessState::self()->startThreadPool();
    sp<AttackService> target = new AttackService();
    sp<AttackService> other = new AttackService();
    const sp<android::IServiceManager> manager = android::defaultServiceManager();
    if (manager->addService(String16(names.target.c_str()), target) != NO_ERROR ||
        manager->addService(String16(names.other.c_str()), other) != NO_ERROR) {
        return 1;
    }
    channel.sendValue(1);
    // Each value asks to let blocked calls go; the end of the channel, to exit.
    while (channel.receiveValue(std::chrono::minutes(10))) {
        target->unblock();
        other->unblock();
    }
    return 0;
}

// What a client process did, in memory it shares with the driver so that the
// figures survive the client being killed.
struct ClientRecord {
    std::atomic<bool> found{false};  // got the objects from the service manager
    std::atomic<int64_t> completed{0};
    std::atomic<int64_t> failed{0};
    std::atomic<int64_t> oneWaysAccepted{0};
    std::atomic<int64_t> oneWaysArrived{0};
    std::atomic<bool> oneWaysInOrder{false};
    std::atomic<bool> done{false};

    // One per round trip, right after the record.
    int64_t* nanos() { return reinterpret_cast<int64_t*>(this + 1); }
    const int64_t* nanos() const { return reinterpret_cast<const int64_t*>(this + 1); }
};

class SharedRecord {
  public:
    explicit SharedRecord(int roundTrips)
        : mSize(sizeof(ClientRecord) + sizeof(int64_t) * static_cast<size_t>(roundTrips)) {
        void* memory =
            mmap(nullptr, mSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        mRecord = memory == MAP_FAILED ? nullptr : new (memory) ClientRecord();
    }
    ~SharedRecord() {
        if (mRecord != nullptr) munmap(mRecord, mSize);
    }
    ClientRecord* get() const { return mRecord; }

  private:
    size_t mSize;
    ClientRecord* mRecord;
};

sp<IBinder> find(const std::string& name) {
    return android::defaultServiceManager()->getService(String16(name.c_str()));
}

// Finds the objects, waits for the driver's go, then makes its round trips
// and sends its one-ways.
int legitimateClient(Channel& channel, ClientRecord* record, const Names& names,
                     const Sizes& sizes) {
    android::ProcessState::self()->startThreadPool();
    const sp<IBinder> target = find(names.target);
    const sp<IBinder> other = find(names.other);
    record->found = target != nullptr && other != nullptr;
    if (!record->found || !channel.receiveValue(std::chrono::minutes(5))) return 1;
    for (int32_t i = 0; i < sizes.roundTrips; ++i) {
        Parcel data;
        Parcel reply;
        data.writeInt32(i);
        const int64_t start = monotonicNanos();
        const bool answered = target->transact(AttackService::ECHO, data, &reply) == NO_ERROR &&
                              reply.readInt32() == i;
        record->nanos()[i] = monotonicNanos() - start;
        if (!answered) ++record->failed;
        ++record->completed;
    }
    int32_t accepted = 0;
    for (int i = 0; i < sizes.oneWays; ++i) {
        Parcel data;
        data.writeInt32(accepted);
        if (other->transact(AttackService::COUNT, data, nullptr, IBinder::FLAG_ONEWAY) ==
            NO_ERROR) {
            ++accepted;
        }
    }
    record->oneWaysAccepted = accepted;
    Parcel data;
    Parcel reply;
    data.writeInt32(accepted);
    if (other->transact(AttackService::COUNT_REPORT, data, &reply) == NO_ERROR) {
        record->oneWaysArrived = reply.readInt32();
        record->oneWaysInOrder = reply.readInt32() == 1;
    }
    record->done = true;
    return 0;
}

struct ClientResult {
    bool found = false;
    bool finished = false;
    int64_t completed = 0;
    int64_t answered = 0;
    int64_t lostCalls = 0;  // failed, or still unanswered when the client was stopped
    int64_t lostOneWays = 0;
    bool oneWaysInOrder = false;
    double medianMicros = 0;
    double p99Micros = 0;
};

ClientResult summarise(const ClientRecord& record, int roundTrips) {
    ClientResult result;
    result.found = record.found;
    result.finished = record.done;
    result.completed = record.completed;
    result.answered = result.completed - record.failed;
    result.lostCalls = record.failed + (result.completed < roundTrips ? 1 : 0);
    result.lostOneWays = record.oneWaysAccepted - record.oneWaysArrived;
    result.oneWaysInOrder = record.oneWaysInOrder;
    std::vector<int64_t> samples(record.nanos(), record.nanos() + result.completed);
    std::sort(samples.begin(), samples.end());
    if (!samples.empty()) {
        result.medianMicros = static_cast<double>(samples[samples.size() / 2]) / 1000;
        result.p99Micros = static_cast<double>(samples[samples.size() * 99 / 100]) / 1000;
    }
    return result;
}

// A client started before an attack, measured once told to go.
class Client {
  public:
    Client(const Names& names, const Sizes& sizes)
        : mSizes(sizes), mRecord(sizes.roundTrips), mProcess([&](Channel& channel) {
              return legitimateClient(channel, mRecord.get(), names, sizes);
          }) {}

    ClientResult measure() {
        if (mRecord.get() == nullptr) return {};
        // A client that found no service has gone already.
        if (mProcess.channel().sendValue(1)) {
            tvproc::waitUntil([&] { return mRecord.get()->done.load(); }, mSizes.clientLimit);
        }
        mProcess.finish(std::chrono::seconds(1));
        return summarise(*mRecord.get(), mSizes.roundTrips);
    }

  private:
    const Sizes& mSizes;
    SharedRecord mRecord;
    ChildProcess mProcess;
};

using HostileBody = int (*)(Channel& channel, const std::string& target, const AttackSizes& sizes);

struct Attack {
    const char* name;
    HostileBody body;
    int processes;
    rlim_t servedDescriptorLimit;  // 0: unchanged
};

struct Row {
    std::string name;
    std::optional<ClientResult> quiet;
    std::optional<ClientResult> attacked;
    size_t peakDescriptors = 0;
    size_t peakResidentKib = 0;
    std::string trouble;  // the line is not a measurement
    std::string note;
};

Row run(const Attack& attack, const Sizes& sizes, int index) {
    Row row;
    row.name = attack.name;
    const Names names{"attack.target." + std::to_string(index),
                      "attack.other." + std::to_string(index)};
    const rlim_t limit = attack.servedDescriptorLimit;
    ChildProcess served([&](Channel& channel) { return serve(channel, names, limit); });
    if (!served.channel().receiveValue(kSetupTimeout)) {
        row.trouble = "served process did not start";
        return row;
    }
    row.quiet = Client(names, sizes).measure();

    Client client(names, sizes);
    std::vector<std::unique_ptr<ChildProcess>> hostiles;
    for (int i = 0; i < attack.processes; ++i) {
        hostiles.push_back(std::make_unique<ChildProcess>(
            [&](Channel& channel) { return attack.body(channel, names.target, sizes.attack); }));
    }
    tvproc::PeakWatch peak(served.pid());
    // An attack under way may keep later attackers from starting.
    int started = 0;
    for (auto& hostile : hostiles)
        started += hostile->channel().receiveValue(kSetupTimeout) ? 1 : 0;
    if (started == 0) row.trouble = "no attacker got going";
    if (started > 0 && started < attack.processes) {
        row.note = std::to_string(started) + " of " + std::to_string(attack.processes) +
                   " attackers got going";
    }
    row.attacked = client.measure();
    peak.stop();
    row.peakDescriptors = peak.descriptors();
    row.peakResidentKib = peak.residentKib();
    for (auto& hostile : hostiles) hostile->finish(std::chrono::seconds(2));
    served.channel().sendValue(1);
    served.finish(std::chrono::seconds(2));
    return row;
}

std::string figures(const std::optional<ClientResult>& result) {
    if (!result || result->completed == 0) return "-";
    char text[64];
    snprintf(text, sizeof text, "%.1f / %.1f", result->medianMicros, result->p99Micros);
    return text;
}

void print(const std::vector<Row>& rows, const Sizes& sizes) {
    printf("legitimate client: %d round trips (median / p99 us) and %d one-ways per measurement\n",
           sizes.roundTrips, sizes.oneWays);
    printf("%-34s %-17s %-17s %-13s %-11s %-10s %-9s %-9s %s\n", "attack", "quiet", "attacked",
           "ratio", "answered", "lost", "peak fds", "peak RSS", "verdict");
    for (const Row& row : rows) {
        std::string ratio = "-";
        std::string answered = "-";
        std::string lost = "-";
        std::string verdict;
        if (row.quiet && row.attacked && row.attacked->completed > 0 && row.quiet->completed > 0) {
            const double medianRatio = row.attacked->medianMicros / row.quiet->medianMicros;
            const double p99Ratio = row.attacked->p99Micros / row.quiet->p99Micros;
            char text[64];
            snprintf(text, sizeof text, "%.1fx/%.1fx", medianRatio, p99Ratio);
            ratio = text;
            if (medianRatio > kMaxRatio || p99Ratio > kMaxRatio) verdict = "MISS: slowed";
        }
        if (row.attacked) {
            answered =
                std::to_string(row.attacked->answered) + "/" + std::to_string(sizes.roundTrips);
            lost = std::to_string(row.attacked->lostCalls) + "+" +
                   std::to_string(row.attacked->lostOneWays) + "ow";
            if (!row.attacked->found) {
                verdict = "MISS: service not found";
            } else if (!row.attacked->finished) {
                verdict = "MISS: stalled";
            } else if (row.attacked->lostCalls > 0 || row.attacked->lostOneWays > 0 ||
                       !row.attacked->oneWaysInOrder) {
                verdict = "MISS: lost";
            }
        }
        if (verdict.empty()) verdict = "ok";
        if (!row.trouble.empty()) verdict += " (" + row.trouble + ")";
        if (!row.note.empty()) verdict += " (" + row.note + ")";
        printf("%-34s %-17s %-17s %-13s %-11s %-10s %-9zu %-9s %s\n", row.name.c_str(),
               figures(row.quiet).c_str(), figures(row.attacked).c_str(), ratio.c_str(),
               answered.c_str(), lost.c_str(), row.peakDescriptors,
               (std::to_string(row.peakResidentKib / 1024) + " MiB").c_str(), verdict.c_str());
    }
    printf(
        "targets: attacked within %.0fx of quiet (median and p99), nothing lost "
        "(calls + one-ways), client never stalled\n",
        kMaxRatio);
}

}  // namespace

int main(int argc, char** argv) {
    Sizes sizes;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--quick") != 0) {
            fprintf(stderr, "usage: attack_bench [--quick]\n");
            return 2;
        }
        sizes = Sizes::quick();
    }
    // A context of our own, inherited by every process forked below.
    // A client or attacker that is gone must not end the driver.
    signal(SIGPIPE, SIG_IGN);
    const std::string context = "attack-" + std::to_string(getpid());
    setenv("TAVRIN_BINDER_CONTEXT", context.c_str(), 1);
    ServiceManagerDaemon daemon(context);
    if (!daemon.serving()) return 1;

    const Attack attacks[] = {
        {"hellos claiming a full backlog", hostile::helloFlood, 1, 0},
        {"records naming unknown endpoints", hostile::unknownEndpoints, 1, 0},
        {"connection flood, 256 descriptors", hostile::connectionFlood, sizes.attack.floodProcesses,
         kFloodedDescriptorLimit},
        {"16 MiB bodies to a blocked object", hostile::largeBodies, 1, 0},
        {"one-ways with fds, blocked object", hostile::descriptorOneWays, 1, 0},
    };
    std::vector<Row> rows;
    bool complete = true;
    for (const Attack& attack : attacks) {
        fprintf(stderr, "%s...\n", attack.name);
        rows.push_back(run(attack, sizes, static_cast<int>(rows.size())));
        complete = complete && rows.back().trouble.empty() && rows.back().quiet &&
                   rows.back().quiet->finished;
    }
    print(rows, sizes);
    return complete ? 0 : 1;
}
