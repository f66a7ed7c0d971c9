#pragma once

#include <optional>

// The floor under every round trip: two processes handing a 16-byte message
// back and forth through a shared page, each waking the other with a futex
// and nothing else (no ring, no checks, no spinning).
namespace shmfloor {

// Median round trip of one 16-byte request and its 16-byte answer.
std::optional<double> roundTripMicros(bool pinned, int iterations);

}  // namespace shmfloor
