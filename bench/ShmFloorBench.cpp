#include "ShmFloorBench.h"

#include <linux/futex.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <vector>

#include "BenchOptions.h"
#include "BenchSupport.h"
#include "ChildProcess.h"

namespace shmfloor {
namespace {

using tvtest::Channel;
using tvtest::ChildProcess;

constexpr std::chrono::seconds kResultTimeout{60};
constexpr int kWarmUp = 1000;

// One direction: a sequence number that is also the futex word, and the message.
struct Slot {
    alignas(128) std::atomic<uint32_t> sequence{0};
    char payload[kPayloadSize];
};

struct SharedPage {
    Slot request;
    Slot answer;
};

void post(Slot* slot, const char* payload, uint32_t sequence) {
    memcpy(slot->payload, payload, kPayloadSize);
    slot->sequence.store(sequence, std::memory_order_release);
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(&slot->sequence), FUTEX_WAKE, 1, nullptr,
            nullptr, 0);
}

void await(Slot* slot, char* payload, uint32_t sequence) {
    while (slot->sequence.load(std::memory_order_acquire) != sequence) {
        syscall(SYS_futex, reinterpret_cast<uint32_t*>(&slot->sequence), FUTEX_WAIT,
                sequence - 1, nullptr, nullptr, 0);
    }
    memcpy(payload, slot->payload, kPayloadSize);
}

int echo(SharedPage* page) {
    char payload[kPayloadSize];
    for (uint32_t sequence = 1;; ++sequence) {
        await(&page->request, payload, sequence);
        post(&page->answer, payload, sequence);
    }
}

int measure(SharedPage* page, int iterations, Channel& channel) {
    char payload[kPayloadSize] = "ping-pong-bytes";
    std::vector<int64_t> samples;
    samples.reserve(static_cast<size_t>(iterations));
    uint32_t sequence = 0;
    for (int i = 0; i < kWarmUp + iterations; ++i) {
        const int64_t start = monotonicNanos();
        post(&page->request, payload, ++sequence);
        await(&page->answer, payload, sequence);
        if (i >= kWarmUp) samples.push_back(monotonicNanos() - start);
    }
    return channel.sendValue(median(std::move(samples))) ? 0 : 1;
}

}  // namespace

std::optional<double> roundTripMicros(bool pinned, int iterations) {
    void* shared =
        mmap(nullptr, sizeof(SharedPage), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) return std::nullopt;
    auto* page = new (shared) SharedPage();
    std::optional<int64_t> medianNanos;
    {
        // The echo is killed when it goes out of scope: it never returns by itself.
        ChildProcess echoer([&](Channel&) {
            if (pinned) pinToFirstCpu();
            return echo(page);
        });
        ChildProcess caller([&](Channel& channel) {
            if (pinned) pinToFirstCpu();
            return measure(page, iterations, channel);
        });
        medianNanos = caller.channel().receiveValue(kResultTimeout);
    }
    munmap(shared, sizeof(SharedPage));
    if (!medianNanos) return std::nullopt;
    return static_cast<double>(*medianNanos) / 1000.0;
}

}  // namespace shmfloor
