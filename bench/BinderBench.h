#pragma once

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <vector>

#include "BenchOptions.h"

// The binder measurements. Every client and service runs in a process of its
// own, forked by the driver before it touches the transport; they meet through
// the service manager of the benchmark's context. Results are empty when a
// process failed.
namespace binder {

// Median round trip of a synchronous transaction carrying 16 bytes each way.
std::optional<double> roundTripMicros(bool pinned, int iterations);
// Median round trip of a synchronous transaction carrying `bytes` there and
// 16 bytes back.
std::optional<double> bodyCallMicros(bool pinned, size_t bytes, int iterations);
// CPU microseconds per call, client and service together, at one call per
// millisecond.
std::optional<double> pacedCpuMicros(bool pinned, int calls);
// CPU milliseconds a bound client and its service use together while both
// stay idle for `seconds`.
std::optional<double> idlePairCpuMillis(int seconds);
// One-way 16-byte transactions per second to one object.
std::optional<double> oneWayPerSecond(bool pinned, int messages);
// Synchronous calls per second of `clients` processes calling one service.
std::optional<double> parallelCallsPerSecond(int clients, int callsEach);
// Median time from SIGKILL of a service's process to binderDied in a client.
std::optional<double> deathNoticeMillis(int rounds);

struct Sample {
    size_t clients;
    size_t threads;
    size_t descriptors;
};
struct ManyClientsResult {
    size_t poolLimit = 0;         // threads the pool may spawn on demand
    size_t idleThreads = 0;       // the service's threads before any client
    size_t peakThreads = 0;       // while every client calls at once
    std::vector<Sample> samples;  // as clients bind
};
// A service bound by `clients` client processes that then all call it at once.
std::optional<ManyClientsResult> manyClients(int clients);

}  // namespace binder
