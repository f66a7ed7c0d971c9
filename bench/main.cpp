// transport_bench: the binder transport next to plain Unix sockets, measured
// in one run on this machine. See README.md for the command and the targets.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "BinderBench.h"
#include "RawSocketBench.h"
#include "Report.h"
#include "ServiceManagerDaemon.h"
#include "ShmFloorBench.h"
#include "TavrinBench.h"

namespace {

constexpr double kMaxRoundTripRatio = 1.5;
constexpr double kMinThroughputRatio = 0.5;
constexpr double kMinOneWayRatio = 0.8;
constexpr double kMaxDeathNoticeMillis = 5;
// The bare shared-memory futex ping-pong is the floor under any round trip;
// it is only expected to beat the raw socket.
constexpr double kMaxFloorRatio = 1.0;
// Notifications carry more than a bare one-way (a class name, the addressed
// client, a look-up of its handle on each side), so less is asked of them.
constexpr double kMinNotificationRatio = 0.4;

bool parseOptions(int argc, char** argv, BenchOptions* options, bool* oneWayOnly) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--quick") == 0) {
            *options = BenchOptions::quick();
        } else if (strcmp(argv[i], "--one-way") == 0) {
            *oneWayOnly = true;
        } else {
            return false;
        }
    }
    return true;
}

const char* placementOf(bool pinned) {
    return pinned ? "both on CPU 0" : "free placement";
}

void measureRoundTrips(const BenchOptions& options, Report* report) {
    for (bool pinned : {true, false}) {
        const char* placement = placementOf(pinned);
        fprintf(stderr, "round trips, %s...\n", placement);
        const std::optional<double> rawMicros = raw::roundTripMicros(pinned, options.roundTrips);
        report->addLatency(std::string("round trip 16 B, ") + placement,
                           binder::roundTripMicros(pinned, options.roundTrips), rawMicros,
                           kMaxRoundTripRatio);
        report->addLatency(std::string("floor (shm + futex), ") + placement,
                           shmfloor::roundTripMicros(pinned, options.roundTrips), rawMicros,
                           kMaxFloorRatio);
    }
}

void measureOneWays(const BenchOptions& options, Report* report) {
    for (bool pinned : {true, false}) {
        const char* placement = placementOf(pinned);
        fprintf(stderr, "one-way messages, %s...\n", placement);
        report->addThroughput(std::string("one-way 16 B messages, ") + placement,
                              binder::oneWayPerSecond(pinned, options.oneWayMessages),
                              raw::oneWayPerSecond(pinned, options.oneWayMessages),
                              kMinOneWayRatio);
    }
}

void measureThroughput(const BenchOptions& options, Report* report) {
    measureOneWays(options, report);
    fprintf(stderr, "%d clients...\n", options.parallelClients);
    report->addThroughput(
        std::to_string(options.parallelClients) + " clients, one service (calls)",
        binder::parallelCallsPerSecond(options.parallelClients, options.parallelCallsEach),
        raw::parallelCallsPerSecond(false, options.parallelClients, options.parallelCallsEach),
        kMinThroughputRatio);
}

// Each tavrin line is measured right next to its raw baseline.
void measureTavrinCalls(const BenchOptions& options, Report* report) {
    for (bool pinned : {true, false}) {
        const char* placement = placementOf(pinned);
        fprintf(stderr, "tavrin calls, %s...\n", placement);
        report->addLatency(std::string("ipcCall, ") + placement,
                           coupler::callMicros(pinned, options.roundTrips),
                           raw::roundTripMicros(pinned, options.roundTrips), kMaxRoundTripRatio);
    }
    for (bool pinned : {true, false}) {
        const char* placement = placementOf(pinned);
        fprintf(stderr, "tavrin calls answered by notifications, %s...\n", placement);
        // Two round trips: the call, and the notification answered inside it.
        report->addLatency(std::string("ipcCall + sendNotifyEx, ") + placement,
                           coupler::notifyExCallMicros(pinned, options.roundTrips),
                           raw::roundTripMicros(pinned, options.roundTrips), kMaxRoundTripRatio, 2);
    }
}

void measureTavrinThroughput(const BenchOptions& options, Report* report) {
    for (bool pinned : {true, false}) {
        const char* placement = placementOf(pinned);
        fprintf(stderr, "tavrin notifications, %s...\n", placement);
        report->addThroughput(std::string("sendNotify notifications, ") + placement,
                              coupler::notificationsPerSecond(pinned, options.oneWayMessages),
                              raw::oneWayPerSecond(pinned, options.oneWayMessages),
                              kMinNotificationRatio);
    }
    for (bool pinned : {true, false}) {
        const char* placement = placementOf(pinned);
        fprintf(stderr, "tavrin, %d clients, %s...\n", options.parallelClients, placement);
        report->addThroughput(
            std::to_string(options.parallelClients) + " clients (ipcCall), " + placement,
            coupler::parallelCallsPerSecond(pinned, options.parallelClients,
                                            options.parallelCallsEach),
            raw::parallelCallsPerSecond(pinned, options.parallelClients, options.parallelCallsEach),
            kMinThroughputRatio);
    }
}

void measureTavrinSubServices(const BenchOptions& options, Report* report) {
    for (bool pinned : {true, false}) {
        const char* placement = placementOf(pinned);
        fprintf(stderr, "tavrin sub-service calls, %s...\n", placement);
        report->addLatency(std::string("sub-service ipcCall, ") + placement,
                           coupler::subServiceCallMicros(pinned, options.roundTrips),
                           raw::roundTripMicros(pinned, options.roundTrips), kMaxRoundTripRatio);
    }
    fprintf(stderr, "tavrin sub-service binds...\n");
    report->addMillis("bindTo(sub-service) to first result",
                      coupler::subServiceFirstCallMillis(options.freshBinds));
}

}  // namespace

int main(int argc, char** argv) {
    BenchOptions options;
    bool oneWayOnly = false;
    if (!parseOptions(argc, argv, &options, &oneWayOnly)) {
        fprintf(stderr, "usage: transport_bench [--quick] [--one-way]\n");
        return 2;
    }
    // A context of our own, inherited by every process forked below.
    const std::string context = "bench-" + std::to_string(getpid());
    setenv("TAVRIN_BINDER_CONTEXT", context.c_str(), 1);
    ServiceManagerDaemon daemon(context);
    if (!daemon.serving()) return 1;

    Report report;
    if (oneWayOnly) {
        measureOneWays(options, &report);
        report.print();
        return report.complete() ? 0 : 1;
    }
    measureRoundTrips(options, &report);
    measureThroughput(options, &report);
    fprintf(stderr, "death notices...\n");
    report.addDeathNotice(binder::deathNoticeMillis(options.deathRounds), kMaxDeathNoticeMillis);
    report.addHeading("tavrin API, Binder coupler:");
    measureTavrinCalls(options, &report);
    measureTavrinThroughput(options, &report);
    measureTavrinSubServices(options, &report);
    fprintf(stderr, "%d clients bound...\n", options.manyClients);
    const auto manyClients = binder::manyClients(options.manyClients);

    report.print();
    Report::printManyClients(options.manyClients, manyClients);
    return report.complete() && manyClients ? 0 : 1;
}
