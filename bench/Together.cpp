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
