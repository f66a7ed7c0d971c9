#pragma once

#include <stdint.h>
#include <time.h>

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

// Paced work: one operation every millisecond, the way a client that calls
// now and then does; what matters is the CPU each operation costs.

// The client's side: reports ready, waits for the go, does `operations` one
// per millisecond, and reports the CPU time it used meanwhile.
template <typename Operation>
bool runPacedWhenTold(tvtest::Channel& channel, int operations, Operation operation) {
    if (!channel.sendValue(1) || !channel.receiveValue(std::chrono::seconds(30))) return false;
    const int64_t cpuBefore = ownCpuNanos();
    timespec next;
    clock_gettime(CLOCK_MONOTONIC, &next);
    for (int i = 0; i < operations; ++i) {
        if (!operation()) return false;
        next.tv_nsec += 1000000;
        if (next.tv_nsec >= 1000000000) {
            next.tv_nsec -= 1000000000;
            ++next.tv_sec;
        }
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
    }
    return channel.sendValue(ownCpuNanos() - cpuBefore);
}

// The driver's side: CPU microseconds per operation of the paced client and
// of the process `server` it talks to, together; empty when the client failed.
std::optional<double> pacedCpuMicrosPerOperation(tvtest::ChildProcess& client, pid_t server,
                                                 int operations);
