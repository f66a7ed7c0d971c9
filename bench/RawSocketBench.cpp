#include "RawSocketBench.h"

#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "BenchSupport.h"
#include "ChildProcess.h"
#include "ProcSupport.h"
#include "Together.h"

using tvtest::Channel;
using tvtest::ChildProcess;

namespace raw {
namespace {

constexpr std::chrono::seconds kResultTimeout{60};
constexpr int kWarmUp = 1000;

struct SocketPair {
    int ends[2] = {-1, -1};
    SocketPair() { socketpair(AF_UNIX, SOCK_STREAM, 0, ends); }
    ~SocketPair() {
        close(ends[0]);
        close(ends[1]);
    }
    bool valid() const { return ends[0] >= 0; }
};

int echoUntilClosed(int fd) {
    char payload[kPayloadSize];
    while (tvproc::readFully(fd, payload, sizeof payload)) {
        if (!tvproc::writeFully(fd, payload, sizeof payload)) return 1;
    }
    return 0;
}

// Reads requests of `bytes` and answers each with kPayloadSize bytes.
int answerBodiesUntilClosed(int fd, size_t bytes) {
    std::vector<char> body(bytes);
    char answer[kPayloadSize] = "got-the-body!!!";
    while (tvproc::readFully(fd, body.data(), bytes)) {
        if (!tvproc::writeFully(fd, answer, sizeof answer)) return 1;
    }
    return 0;
}

bool roundTrip(int fd) {
    char payload[kPayloadSize] = "ping-pong-bytes";
    return tvproc::writeFully(fd, payload, sizeof payload) &&
           tvproc::readFully(fd, payload, sizeof payload);
}

std::unique_ptr<ChildProcess> startEcho(const SocketPair& pair, bool pinned) {
    return std::make_unique<ChildProcess>([&pair, pinned](Channel&) {
        close(pair.ends[0]);
        if (pinned) pinToFirstCpu();
        return echoUntilClosed(pair.ends[1]);
    });
}

// A caller on the pair's first end, placed like its echo.
template <typename Work>
std::unique_ptr<ChildProcess> startCaller(const SocketPair& pair, bool pinned, Work work) {
    return std::make_unique<ChildProcess>([&pair, pinned, work](Channel& channel) {
        close(pair.ends[1]);
        if (pinned) pinToFirstCpu();
        return work(pair.ends[0], channel);
    });
}

template <typename RoundTrip>
int measureRoundTrips(int iterations, Channel& channel, RoundTrip roundTrip) {
    for (int i = 0; i < kWarmUp; ++i) {
        if (!roundTrip()) return 1;
    }
    std::vector<int64_t> samples;
    samples.reserve(static_cast<size_t>(iterations));
    for (int i = 0; i < iterations; ++i) {
        const int64_t start = monotonicNanos();
        if (!roundTrip()) return 1;
        samples.push_back(monotonicNanos() - start);
    }
    return channel.sendValue(median(std::move(samples))) ? 0 : 1;
}

std::optional<double> medianMicros(ChildProcess& caller) {
    const std::optional<int64_t> medianNanos = caller.channel().receiveValue(kResultTimeout);
    if (!medianNanos) return std::nullopt;
    return static_cast<double>(*medianNanos) / 1000.0;
}

int receiveMessages(int fd, int messages) {
    char payload[kPayloadSize];
    for (int received = 1; received <= messages; ++received) {
        if (!tvproc::readFully(fd, payload, sizeof payload)) return 1;
        if ((received % kOneWayBatch == 0 || received == messages) &&
            !tvproc::writeFully(fd, "k", 1)) {
            return 1;
        }
    }
    return 0;
}

bool sendMessages(int fd, int messages) {
    const char payload[kPayloadSize] = "one-way-message";
    char ack;
    for (int sent = 1; sent <= messages; ++sent) {
        if (!tvproc::writeFully(fd, payload, sizeof payload)) return false;
        if ((sent % kOneWayBatch == 0 || sent == messages) && !tvproc::readFully(fd, &ack, 1)) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::optional<double> roundTripMicros(bool pinned, int iterations) {
    SocketPair pair;
    if (!pair.valid()) return std::nullopt;
    auto echo = startEcho(pair, pinned);
    auto caller = startCaller(pair, pinned, [iterations](int fd, Channel& channel) {
        return measureRoundTrips(iterations, channel, [fd] { return roundTrip(fd); });
    });
    return medianMicros(*caller);
}

std::optional<double> bodyRoundTripMicros(bool pinned, size_t bytes, int iterations) {
    SocketPair pair;
    if (!pair.valid()) return std::nullopt;
    ChildProcess receiver([&pair, pinned, bytes](Channel&) {
        close(pair.ends[0]);
        if (pinned) pinToFirstCpu();
        return answerBodiesUntilClosed(pair.ends[1], bytes);
    });
    auto caller = startCaller(pair, pinned, [iterations, bytes](int fd, Channel& channel) {
        std::vector<char> body(bytes, 'b');
        char answer[kPayloadSize];
        return measureRoundTrips(iterations, channel, [&] {
            return tvproc::writeFully(fd, body.data(), bytes) &&
                   tvproc::readFully(fd, answer, sizeof answer);
        });
    });
    return medianMicros(*caller);
}

std::optional<double> pacedCpuMicros(bool pinned, int roundTrips) {
    SocketPair pair;
    if (!pair.valid()) return std::nullopt;
    auto echo = startEcho(pair, pinned);
    auto caller = startCaller(pair, pinned, [roundTrips](int fd, Channel& channel) {
        return runPacedWhenTold(channel, roundTrips, [fd] { return roundTrip(fd); }) ? 0 : 1;
    });
    return pacedCpuMicrosPerOperation(*caller, echo->pid(), roundTrips);
}

std::optional<double> oneWayPerSecond(bool pinned, int messages) {
    SocketPair pair;
    if (!pair.valid()) return std::nullopt;
    ChildProcess receiver([&](Channel&) {
        close(pair.ends[0]);
        if (pinned) pinToFirstCpu();
        return receiveMessages(pair.ends[1], messages);
    });
    std::vector<std::unique_ptr<ChildProcess>> sender;
    sender.push_back(std::make_unique<ChildProcess>([&](Channel& channel) {
        close(pair.ends[1]);
        if (pinned) pinToFirstCpu();
        return runWhenTold(channel, [&] { return sendMessages(pair.ends[0], messages); }) ? 0 : 1;
    }));
    return operationsPerSecond(sender, messages);
}

std::optional<double> parallelCallsPerSecond(bool pinned, int pairs, int callsEach) {
    std::vector<std::unique_ptr<SocketPair>> sockets;
    std::vector<std::unique_ptr<ChildProcess>> echoes;
    std::vector<std::unique_ptr<ChildProcess>> callers;
    for (int i = 0; i < pairs; ++i) {
        sockets.push_back(std::make_unique<SocketPair>());
        const SocketPair& pair = *sockets.back();
        if (!pair.valid()) return std::nullopt;
        echoes.push_back(startEcho(pair, pinned));
        callers.push_back(
            std::make_unique<ChildProcess>([&pair, callsEach, pinned](Channel& channel) {
                close(pair.ends[1]);
                if (pinned) pinToFirstCpu();
                auto calls = [&] {
                    for (int call = 0; call < callsEach; ++call) {
                        if (!roundTrip(pair.ends[0])) return false;
                    }
                    return true;
                };
                return runWhenTold(channel, calls) ? 0 : 1;
            }));
    }
    return operationsPerSecond(callers, static_cast<int64_t>(pairs) * callsEach);
}

}  // namespace raw
