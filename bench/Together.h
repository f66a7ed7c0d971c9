#pragma once

#include <stdint.h>

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

#include "BenchSupport.h"
#include "ChildProcess.h"

// Clients that start their measured work at the same moment: each reports
// ready, waits for the go, then reports its start and end timestamps.

// Operations per second from the first start to the last end; empty when a
// client failed.
std::optional<double> operationsPerSecond(const std::vector<std::unique_ptr<ChildProcess>>& clients,
                                          int64_t totalOperations);

// The client's side; `work` returns false when an operation failed.
template <typename Work>
bool runWhenTold(int channel, Work work) {
    if (!sendValue(channel, 1) || !receiveValue(channel, std::chrono::seconds(30))) return false;
    const int64_t start = monotonicNanos();
    if (!work()) return false;
    const int64_t end = monotonicNanos();
    return sendValue(channel, start) && sendValue(channel, end);
}
