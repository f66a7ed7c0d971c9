#include "Together.h"

#include <algorithm>
#include <limits>

namespace {
constexpr std::chrono::seconds kSetupTimeout{30};
constexpr std::chrono::seconds kWorkTimeout{60};
}  // namespace

std::optional<double> operationsPerSecond(
    const std::vector<std::unique_ptr<tvtest::ChildProcess>>& clients, int64_t totalOperations) {
    for (const auto& client : clients) {
        if (!client->channel().receiveValue(kSetupTimeout)) return std::nullopt;
    }
    for (const auto& client : clients) client->channel().sendValue(1);
    int64_t firstStart = std::numeric_limits<int64_t>::max();
    int64_t lastEnd = 0;
    for (const auto& client : clients) {
        const std::optional<int64_t> start = client->channel().receiveValue(kWorkTimeout);
        const std::optional<int64_t> end = client->channel().receiveValue(kWorkTimeout);
        if (!start || !end) return std::nullopt;
        firstStart = std::min(firstStart, *start);
        lastEnd = std::max(lastEnd, *end);
    }
    if (lastEnd <= firstStart) return std::nullopt;
    return static_cast<double>(totalOperations) * 1e9 / static_cast<double>(lastEnd - firstStart);
}

std::optional<double> pacedCpuMicrosPerOperation(tvtest::ChildProcess& client, pid_t server,
                                                 int operations) {
    if (!client.channel().receiveValue(kSetupTimeout)) return std::nullopt;
    const int64_t serverBefore = cpuNanosOf(server);
    client.channel().sendValue(1);
    const std::optional<int64_t> clientNanos = client.channel().receiveValue(kWorkTimeout);
    if (!clientNanos || operations <= 0) return std::nullopt;
    const int64_t serverNanos = cpuNanosOf(server) - serverBefore;
    return static_cast<double>(*clientNanos + serverNanos) / 1000.0 / operations;
}
