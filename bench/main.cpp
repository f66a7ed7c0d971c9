// transport_bench: the binder transport next to plain Unix sockets, measured
// in one run on this machine. See README.md for the command and the targets.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string>

#include "BinderBench.h"
#include "RawSocketBench.h"
#include "Report.h"
#include "Rounds.h"
#include "ServiceManagerDaemon.h"
#include "ShmFloorBench.h"
#include "TavrinBench.h"

namespace {

// Round trips, as ratios to raw: tighter on one CPU, where waking the other
// CPU does not hide what the transport adds.
struct RoundTripTarget {
    double pinned;
    double free;
    double of(bool isPinned) const { return isPinned ? pinned : free; }
};
constexpr RoundTripTarget kTransportRoundTrip{0.7, 1.0};
// Through the tavrin API, which adds its own work on either side.
constexpr RoundTripTarget kApiCall{0.8, 1.0};
constexpr double kMinThroughputRatio = 1.0;
constexpr double kMinOneWayRatio = 1.5;
constexpr double kMaxDeathNoticeMillis = 5;
// Notifications carry more than a bare one-way (a class name, the addressed
// client, a look-up of its handle on each side), so less is asked of them.
constexpr double kMinNotificationRatio = 1.2;
// A call carrying a large body costs no more than a raw socket moving it.
constexpr double kMaxBodyCallRatio = 1.0;
// A call now and then costs no more CPU than a raw round trip at that pace.
constexpr double kMaxPacedCpuRatio = 1.0;
// An idle bound pair: under 10 ms of CPU in 10 s.
constexpr double kMaxIdleMillisPerSecond = 1.0;

// The shared-memory futex ping-pong of each placement, measured once: every
// round trip line shows its ratio to it.
struct Floors {
    std::optional<double> pinned;
    std::optional<double> free;
    const std::optional<double>& of(bool isPinned) const { return isPinned ? pinned : free; }
};

void printUsage() {
    fprintf(stderr,
            "usage: transport_bench [--quick] [--one-way] [--rounds N]\n"
            "  --quick     tiny counts and one round: checks that everything runs\n"
            "  --one-way   only the one-way lines\n"
            "  --rounds N  measure each line and its baseline N times (default 3) and show\n"
            "              the round with the median ratio\n"
            "Frames take shared memory; TVBINDER_DATA_PATH=socket in the environment keeps\n"
            "them on the sockets, to measure that path.\n");
}

const char* dataPath() {
    const char* path = getenv("TVBINDER_DATA_PATH");
    return path != nullptr && strcmp(path, "socket") == 0 ? "socket (TVBINDER_DATA_PATH=socket)"
                                                          : "shared memory";
}

bool parseOptions(int argc, char** argv, BenchOptions* options, bool* oneWayOnly) {
    std::optional<int> rounds;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--quick") == 0) {
            *options = BenchOptions::quick();
        } else if (strcmp(argv[i], "--one-way") == 0) {
            *oneWayOnly = true;
        } else if (strcmp(argv[i], "--rounds") == 0 && i + 1 < argc) {
            char* end = nullptr;
            const long count = strtol(argv[++i], &end, 10);
            if (*end != '\0' || count < 1 || count > 99) return false;
            rounds = static_cast<int>(count);
        } else {
            return false;
        }
    }
    if (rounds) options->rounds = *rounds;
    return true;
}

const char* placementOf(bool pinned) {
    return pinned ? "both on CPU 0" : "free placement";
}

// The baseline of every round-trip line.
Measurement rawRoundTrips(const BenchOptions& options, bool pinned) {
    return [&options, pinned] { return raw::roundTripMicros(pinned, options.roundTrips); };
}

// The baseline of the one-way and notification lines.
Measurement rawOneWays(const BenchOptions& options, bool pinned) {
    return [&options, pinned] { return raw::oneWayPerSecond(pinned, options.oneWayMessages); };
}

Floors measureRoundTrips(const BenchOptions& options, Report* report) {
    Floors floors;
    for (bool pinned : {true, false}) {
        const char* placement = placementOf(pinned);
        fprintf(stderr, "round trips, %s...\n", placement);
        const Measurement rawMicros = rawRoundTrips(options, pinned);
        const Paired floor = medianRound(
            options.rounds, [&] { return shmfloor::roundTripMicros(pinned, options.roundTrips); },
            rawMicros);
        (pinned ? floors.pinned : floors.free) = floor.measured;
        report->addLatency(
            std::string("round trip 16 B, ") + placement,
            medianRound(
                options.rounds, [&] { return binder::roundTripMicros(pinned, options.roundTrips); },
                rawMicros),
            kTransportRoundTrip.of(pinned), 1, floor.measured);
        // The bare shared-memory futex ping-pong, the floor under any round trip,
        // measures the machine: a reference, not a target.
        report->addReference(std::string("floor (shm + futex), ") + placement, floor);
    }
    return floors;
}

// A call carrying a body there and 16 bytes back, beside a raw socket moving
// the same bytes.
void measureLargeBodies(const BenchOptions& options, Report* report) {
    struct Body {
        const char* name;
        size_t bytes;
        int calls;
    };
    const Body bodies[] = {{"64 KiB", size_t{64} << 10, options.bodyCalls},
                           {"1 MiB", size_t{1} << 20, std::max(options.bodyCalls / 5, 1)}};
    for (bool pinned : {true, false}) {
        const char* placement = placementOf(pinned);
        for (const Body& body : bodies) {
            fprintf(stderr, "calls carrying %s, %s...\n", body.name, placement);
            report->addLatency(
                std::string("call carrying ") + body.name + ", " + placement,
                medianRound(
                    options.rounds,
                    [&] { return binder::bodyCallMicros(pinned, body.bytes, body.calls); },
                    [&] { return raw::bodyRoundTripMicros(pinned, body.bytes, body.calls); }),
                kMaxBodyCallRatio);
        }
    }
}

void measureCpu(const BenchOptions& options, Report* report) {
    for (bool pinned : {true, false}) {
        const char* placement = placementOf(pinned);
        fprintf(stderr, "CPU per call at one call per ms, %s...\n", placement);
        report->addLatency(
            std::string("CPU per call at 1 call/ms, ") + placement,
            medianRound(
                options.rounds, [&] { return binder::pacedCpuMicros(pinned, options.pacedCalls); },
                [&] { return raw::pacedCpuMicros(pinned, options.pacedCalls); }),
            kMaxPacedCpuRatio);
    }
    fprintf(stderr, "an idle bound pair for %d s...\n", options.idleSeconds);
    report->addMillisWithin(
        "CPU of an idle bound pair in " + std::to_string(options.idleSeconds) + " s",
        binder::idlePairCpuMillis(options.idleSeconds),
        kMaxIdleMillisPerSecond * options.idleSeconds);
}

void measureOneWays(const BenchOptions& options, Report* report) {
    for (bool pinned : {true, false}) {
        const char* placement = placementOf(pinned);
        fprintf(stderr, "one-way messages, %s...\n", placement);
        report->addThroughput(
            std::string("one-way 16 B messages, ") + placement,
            medianRound(
                options.rounds,
                [&] { return binder::oneWayPerSecond(pinned, options.oneWayMessages); },
                rawOneWays(options, pinned)),
            kMinOneWayRatio);
    }
}

void measureThroughput(const BenchOptions& options, Report* report) {
    measureOneWays(options, report);
    fprintf(stderr, "%d clients...\n", options.parallelClients);
    report->addThroughput(std::to_string(options.parallelClients) + " clients, one service (calls)",
                          medianRound(
                              options.rounds,
                              [&] {
                                  return binder::parallelCallsPerSecond(options.parallelClients,
                                                                        options.parallelCallsEach);
                              },
                              [&] {
                                  return raw::parallelCallsPerSecond(false, options.parallelClients,
                                                                     options.parallelCallsEach);
                              }),
                          kMinThroughputRatio);
}

// Each tavrin line is measured right next to its raw baseline.
void measureTavrinCalls(const BenchOptions& options, const Floors& floors, Report* report) {
    for (bool pinned : {true, false}) {
        const char* placement = placementOf(pinned);
        fprintf(stderr, "tavrin calls, %s...\n", placement);
        report->addLatency(
            std::string("ipcCall, ") + placement,
            medianRound(
                options.rounds, [&] { return coupler::callMicros(pinned, options.roundTrips); },
                rawRoundTrips(options, pinned)),
            kApiCall.of(pinned), 1, floors.of(pinned));
    }
    for (bool pinned : {true, false}) {
        const char* placement = placementOf(pinned);
        fprintf(stderr, "tavrin calls answered by notifications, %s...\n", placement);
        // Two round trips: the call, and the notification answered inside it.
        report->addLatency(
            std::string("ipcCall + sendNotifyEx, ") + placement,
            medianRound(
                options.rounds,
                [&] { return coupler::notifyExCallMicros(pinned, options.roundTrips); },
                rawRoundTrips(options, pinned)),
            kApiCall.of(pinned), 2, floors.of(pinned));
    }
}

void measureTavrinThroughput(const BenchOptions& options, Report* report) {
    for (bool pinned : {true, false}) {
        const char* placement = placementOf(pinned);
        fprintf(stderr, "tavrin notifications, %s...\n", placement);
        report->addThroughput(
            std::string("sendNotify notifications, ") + placement,
            medianRound(
                options.rounds,
                [&] { return coupler::notificationsPerSecond(pinned, options.oneWayMessages); },
                rawOneWays(options, pinned)),
            kMinNotificationRatio);
    }
    for (bool pinned : {true, false}) {
        const char* placement = placementOf(pinned);
        fprintf(stderr, "tavrin, %d clients, %s...\n", options.parallelClients, placement);
        report->addThroughput(
            std::to_string(options.parallelClients) + " clients (ipcCall), " + placement,
            medianRound(
                options.rounds,
                [&] {
                    return coupler::parallelCallsPerSecond(pinned, options.parallelClients,
                                                           options.parallelCallsEach);
                },
                [&] {
                    return raw::parallelCallsPerSecond(pinned, options.parallelClients,
                                                       options.parallelCallsEach);
                }),
            kMinThroughputRatio);
    }
}

void measureTavrinSubServices(const BenchOptions& options, const Floors& floors, Report* report) {
    for (bool pinned : {true, false}) {
        const char* placement = placementOf(pinned);
        fprintf(stderr, "tavrin sub-service calls, %s...\n", placement);
        report->addLatency(
            std::string("sub-service ipcCall, ") + placement,
            medianRound(
                options.rounds,
                [&] { return coupler::subServiceCallMicros(pinned, options.roundTrips); },
                rawRoundTrips(options, pinned)),
            kApiCall.of(pinned), 1, floors.of(pinned));
    }
    fprintf(stderr, "tavrin sub-service binds...\n");
    report->addMillis("bindTo(sub-service) to first result",
                      coupler::subServiceFirstCallMillis(options.freshBinds));
}

}  // namespace

int main(int argc, char** argv) {
    BenchOptions options;
    bool oneWayOnly = false;
    if (argc == 2 && strcmp(argv[1], "--help") == 0) {
        printUsage();
        return 0;
    }
    if (!parseOptions(argc, argv, &options, &oneWayOnly)) {
        printUsage();
        return 2;
    }
    // A context of our own, inherited by every process forked below.
    const std::string context = "bench-" + std::to_string(getpid());
    setenv("TAVRIN_BINDER_CONTEXT", context.c_str(), 1);
    ServiceManagerDaemon daemon(context);
    if (!daemon.serving()) return 1;

    printf("data path: %s; each line is the round of %d with the median ratio to its baseline\n",
           dataPath(), options.rounds);
    fflush(stdout);  // before any fork: children would print it again
    Report report;
    if (oneWayOnly) {
        measureOneWays(options, &report);
        report.print();
        return report.complete() ? 0 : 1;
    }
    const Floors floors = measureRoundTrips(options, &report);
    measureLargeBodies(options, &report);
    measureCpu(options, &report);
    measureThroughput(options, &report);
    fprintf(stderr, "death notices...\n");
    report.addMillisWithin("death notice after SIGKILL",
                           binder::deathNoticeMillis(options.deathRounds), kMaxDeathNoticeMillis);
    report.addHeading("tavrin API, Binder coupler:");
    measureTavrinCalls(options, floors, &report);
    measureTavrinThroughput(options, &report);
    measureTavrinSubServices(options, floors, &report);
    fprintf(stderr, "%d clients bound...\n", options.manyClients);
    const auto manyClients = binder::manyClients(options.manyClients);

    report.print();
    Report::printManyClients(options.manyClients, manyClients);
    return report.complete() && manyClients ? 0 : 1;
}
