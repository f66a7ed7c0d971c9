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
std::optional<double> operationsPerSecond(
    const std::vector<std::unique_ptr<tvtest::ChildProcess>>& clients, int64_t totalOperations);

// The client's side; `work` returns false when an operation failed.
template <typename Work>
bool runWhenTold(tvtest::Channel& channel, Work work) {
    if (!channel.sendValue(1) || !channel.receiveValue(std::chrono::seconds(30))) return false;
    const int64_t start = monotonicNanos();
    if (!work()) return false;
    const int64_t end = monotonicNanos();
    return channel.sendValue(start) && channel.sendValue(end);
}
