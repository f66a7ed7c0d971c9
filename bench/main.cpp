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

namespace {

constexpr double kMaxRoundTripRatio = 1.5;
constexpr double kMinThroughputRatio = 0.5;
constexpr double kMaxDeathNoticeMillis = 5;

bool parseOptions(int argc, char** argv, BenchOptions* options) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--quick") != 0) return false;
        *options = BenchOptions::quick();
    }
    return true;
}

void measureRoundTrips(const BenchOptions& options, Report* report) {
    for (bool pinned : {true, false}) {
        const char* placement = pinned ? "both on CPU 0" : "free placement";
        fprintf(stderr, "round trips, %s...\n", placement);
        report->addLatency(std::string("round trip 16 B, ") + placement,
                           binder::roundTripMicros(pinned, options.roundTrips),
                           raw::roundTripMicros(pinned, options.roundTrips), kMaxRoundTripRatio);
    }
}

void measureThroughput(const BenchOptions& options, Report* report) {
    fprintf(stderr, "one-way messages...\n");
    report->addThroughput("one-way 16 B messages", binder::oneWayPerSecond(options.oneWayMessages),
                          raw::oneWayPerSecond(options.oneWayMessages), kMinThroughputRatio);
    fprintf(stderr, "%d clients...\n", options.parallelClients);
    report->addThroughput(
        std::to_string(options.parallelClients) + " clients, one service (calls)",
        binder::parallelCallsPerSecond(options.parallelClients, options.parallelCallsEach),
        raw::parallelCallsPerSecond(options.parallelClients, options.parallelCallsEach),
        kMinThroughputRatio);
}

}  // namespace

int main(int argc, char** argv) {
    BenchOptions options;
    if (!parseOptions(argc, argv, &options)) {
        fprintf(stderr, "usage: transport_bench [--quick]\n");
        return 2;
    }
    // A context of our own, inherited by every process forked below.
    const std::string context = "bench-" + std::to_string(getpid());
    setenv("TAVRIN_BINDER_CONTEXT", context.c_str(), 1);
    ServiceManagerDaemon daemon(context);
    if (!daemon.serving()) return 1;

    Report report;
    measureRoundTrips(options, &report);
    measureThroughput(options, &report);
    fprintf(stderr, "death notices...\n");
    report.addDeathNotice(binder::deathNoticeMillis(options.deathRounds), kMaxDeathNoticeMillis);
    fprintf(stderr, "%d clients bound...\n", options.manyClients);
    const auto manyClients = binder::manyClients(options.manyClients);

    report.print();
    Report::printManyClients(options.manyClients, manyClients);
    return report.complete() && manyClients ? 0 : 1;
}
