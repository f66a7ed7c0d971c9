#pragma once

#include <stddef.h>

#include <optional>

#include "BenchOptions.h"

// The baselines: plain SOCK_STREAM Unix sockets with blocking read and write,
// carrying the same payloads as the binder measurements. Each side runs in a
// process of its own. Results are empty when a process failed.
namespace raw {

// Median round trip of one 16-byte request and its 16-byte answer.
std::optional<double> roundTripMicros(bool pinned, int iterations);
// Median round trip of a request of `bytes` and a 16-byte answer.
std::optional<double> bodyRoundTripMicros(bool pinned, size_t bytes, int iterations);
// CPU microseconds per round trip, both processes together, at one round
// trip per millisecond.
std::optional<double> pacedCpuMicros(bool pinned, int roundTrips);
// 16-byte messages per second from one sender to one receiver.
std::optional<double> oneWayPerSecond(bool pinned, int messages);
// Round trips per second of `pairs` independent ping-pong pairs together.
std::optional<double> parallelCallsPerSecond(bool pinned, int pairs, int callsEach);

}  // namespace raw
