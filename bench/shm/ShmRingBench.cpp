// shm_ring_bench: round trips through the shared-memory channel between two
// processes, beside a raw socket ping-pong and the bare futex floor measured
// in the same run, both on CPU 0 and placed freely; then calls carrying 64 KiB
// and 1 MiB by each way a large body could travel, and the CPU an idle pair
// uses. Progress on stderr, the table on stdout.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "BenchOptions.h"
#include "BenchSupport.h"
#include "ChildProcess.h"
#include "ProcSupport.h"
#include "RawSocketBench.h"
#include "ShmChannel.h"
#include "ShmFloorBench.h"

namespace {

using android::NO_ERROR;
using android::tvbinder::shm::BufferSink;
using android::tvbinder::shm::ShmChannel;
using android::tvbinder::shm::ShmChannelOptions;
using tvtest::Channel;
using tvtest::ChildProcess;
using Clock = ShmChannel::Clock;

constexpr std::chrono::seconds kResultTimeout{120};
constexpr std::chrono::seconds kPatience{60};

struct Counts {
    int smallTrips = 20000;
    int trips64k = 3000;
    int trips1m = 400;
    std::chrono::milliseconds idle{1000};
};

// One round trip, run in the caller's process; false when it failed.
using Call = std::function<bool()>;
// The answering side, run in a process of its own until it is killed.
using Serve = std::function<int()>;

std::optional<double> medianMicros(bool pinned, int iterations, const Serve& serve,
                                   const Call& call) {
    ChildProcess server([&](Channel&) {
        if (pinned) pinToFirstCpu();
        return serve();
    });
    ChildProcess caller([&](Channel& channel) {
        if (pinned) pinToFirstCpu();
        std::vector<int64_t> samples;
        const int warmUp = std::max(10, iterations / 10);
        for (int i = 0; i < warmUp + iterations; ++i) {
            const int64_t start = monotonicNanos();
            if (!call()) return 1;
            if (i >= warmUp) samples.push_back(monotonicNanos() - start);
        }
        return channel.sendValue(median(std::move(samples))) ? 0 : 1;
    });
    const std::optional<int64_t> nanos = caller.channel().receiveValue(kResultTimeout);
    if (!nanos) return std::nullopt;
    return static_cast<double>(*nanos) / 1000.0;
}

// ---- the shared-memory channel ----

struct RingPair {
    std::unique_ptr<ShmChannel> creator;
    ShmChannelOptions options;
};

RingPair makeRing(size_t ringBytes, std::chrono::nanoseconds spin) {
    RingPair pair;
    pair.options.ringBytes = ringBytes;
    pair.options.spin = spin;
    if (ShmChannel::create(pair.options, &pair.creator) != NO_ERROR) pair.creator.reset();
    return pair;
}

// Adopts the region as the peer process would, from its descriptor.
int ringEcho(const RingPair& pair) {
    std::unique_ptr<ShmChannel> channel;
    const int fd = fcntl(pair.creator->regionFd(), F_DUPFD_CLOEXEC, 0);
    if (ShmChannel::adopt(fd, pair.options, &channel) != NO_ERROR) return 1;
    BufferSink sink;
    char answer[kPayloadSize] = "answer";
    iovec part{answer, sizeof answer};
    for (;;) {
        size_t length = 0;
        if (channel->receive(&sink, &length, Clock::now() + kPatience) != NO_ERROR) return 1;
        memcpy(answer, sink.data(), std::min(length, sizeof answer));
        if (channel->send(&part, 1, Clock::now() + kPatience) != NO_ERROR) return 1;
    }
}

std::optional<double> ringMicros(bool pinned, int iterations, size_t bytes, size_t ringBytes,
                                 std::chrono::nanoseconds spin = std::chrono::microseconds(5)) {
    RingPair pair = makeRing(ringBytes, spin);
    if (!pair.creator) return std::nullopt;
    std::vector<uint8_t> body(bytes, 0x5a);
    BufferSink sink;
    auto call = [&] {
        iovec part{body.data(), body.size()};
        size_t length = 0;
        return pair.creator->send(&part, 1, Clock::now() + kPatience) == NO_ERROR &&
               pair.creator->receive(&sink, &length, Clock::now() + kPatience) == NO_ERROR;
    };
    return medianMicros(pinned, iterations, [&] { return ringEcho(pair); }, call);
}

// ---- a raw stream socket carrying the same bytes ----

std::optional<double> rawBodyMicros(bool pinned, int iterations, size_t bytes) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return std::nullopt;
    std::vector<uint8_t> body(bytes, 0x5a);
    auto serve = [&] {
        std::vector<uint8_t> received(bytes);
        char answer[kPayloadSize] = "answer";
        while (tvproc::readFully(ends[1], received.data(), bytes)) {
            if (!tvproc::writeFully(ends[1], answer, sizeof answer)) return 1;
        }
        return 0;
    };
    auto call = [&] {
        char answer[kPayloadSize];
        return tvproc::writeFully(ends[0], body.data(), bytes) &&
               tvproc::readFully(ends[0], answer, sizeof answer);
    };
    const auto micros = medianMicros(pinned, iterations, serve, call);
    close(ends[0]);
    close(ends[1]);
    return micros;
}

// ---- a new sealed memfd per body, mapped by the receiver (no copy out) ----

bool sendMemfd(int socket, const std::vector<uint8_t>& body) {
    const int fd = memfd_create("bench-body", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    bool sent = fd >= 0 && write(fd, body.data(), body.size()) == ssize_t(body.size()) &&
                fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) ==
                    0;
    char header[kPayloadSize] = "memfd-body";
    iovec part{header, sizeof header};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(rights), &fd, sizeof fd);
    sent = sent && sendmsg(socket, &message, 0) == ssize_t(sizeof header);
    if (fd >= 0) close(fd);
    return sent;
}

// Receives a body as the transport must: checks its seals and size, maps it
// read-only and reads it in place.
bool receiveMemfd(int socket, size_t bytes) {
    char header[kPayloadSize];
    iovec part{header, sizeof header};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    if (recvmsg(socket, &message, MSG_CMSG_CLOEXEC) != ssize_t(sizeof header)) return false;
    cmsghdr* rights = CMSG_FIRSTHDR(&message);
    if (rights == nullptr || rights->cmsg_type != SCM_RIGHTS) return false;
    int fd;
    memcpy(&fd, CMSG_DATA(rights), sizeof fd);
    const int seals = fcntl(fd, F_GET_SEALS);
    void* mapped = (seals & F_SEAL_WRITE) != 0
                       ? mmap(nullptr, bytes, PROT_READ, MAP_SHARED | MAP_POPULATE, fd, 0)
                       : MAP_FAILED;
    close(fd);
    if (mapped == MAP_FAILED) return false;
    const auto* body = static_cast<const uint8_t*>(mapped);
    const bool intact = body[0] == 0x5a && body[bytes - 1] == 0x5a;
    munmap(mapped, bytes);
    return intact;
}

std::optional<double> memfdBodyMicros(bool pinned, int iterations, size_t bytes) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return std::nullopt;
    std::vector<uint8_t> body(bytes, 0x5a);
    auto serve = [&] {
        char answer[kPayloadSize] = "answer";
        while (receiveMemfd(ends[1], bytes)) {
            if (!tvproc::writeFully(ends[1], answer, sizeof answer)) return 1;
        }
        return 0;
    };
    auto call = [&] {
        char answer[kPayloadSize];
        return sendMemfd(ends[0], body) && tvproc::readFully(ends[0], answer, sizeof answer);
    };
    const auto micros = medianMicros(pinned, iterations, serve, call);
    close(ends[0]);
    close(ends[1]);
    return micros;
}

// ---- an idle pair ----

// CPU milliseconds that a ring pair uses while both ends wait, each in a
// receive, for `span`.
std::optional<double> idleCpuMillis(std::chrono::milliseconds span) {
    RingPair pair = makeRing(256 * 1024, std::chrono::microseconds(5));
    if (!pair.creator) return std::nullopt;
    ChildProcess server([&](Channel&) { return ringEcho(pair); });
    ChildProcess client([&](Channel&) {
        BufferSink sink;
        size_t length = 0;
        pair.creator->receive(&sink, &length, Clock::now() + kPatience);
        return 0;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // both asleep by now
    auto used = [&] { return tvproc::cpuTime(server.pid()) + tvproc::cpuTime(client.pid()); };
    const std::chrono::milliseconds before = used();
    std::this_thread::sleep_for(span);
    return static_cast<double>((used() - before).count());
}

// ---- the table ----

void row(const std::string& what, std::optional<double> micros, std::optional<double> raw,
         std::optional<double> floor = std::nullopt) {
    printf("%-46s", what.c_str());
    if (!micros) {
        printf(" %10s\n", "failed");
        return;
    }
    printf(" %8.1f us", *micros);
    if (raw && *raw > 0) printf("   %5.2fx raw", *micros / *raw);
    if (floor && *floor > 0) printf("   %5.2fx floor", *micros / *floor);
    printf("\n");
    fflush(stdout);
}

void measurePlacement(bool pinned, const Counts& counts) {
    const std::string placement = pinned ? "both on CPU 0" : "free placement";
    fprintf(stderr, "16-byte round trips, %s...\n", placement.c_str());
    printf("\n%s\n", placement.c_str());
    const auto raw = raw::roundTripMicros(pinned, counts.smallTrips);
    const auto floor = shmfloor::roundTripMicros(pinned, counts.smallTrips);
    row("raw socket round trip 16 B", raw, raw);
    row("shared memory + futex (floor) 16 B", floor, raw, floor);
    row("ring round trip 16 B", ringMicros(pinned, counts.smallTrips, 16, 256 * 1024), raw, floor);
    row("ring round trip 16 B, no spinning",
        ringMicros(pinned, counts.smallTrips, 16, 256 * 1024, std::chrono::nanoseconds(0)), raw,
        floor);
    for (size_t bytes : {size_t{64} << 10, size_t{1} << 20}) {
        const std::string size = bytes < (1 << 20) ? "64 KiB" : "1 MiB";
        const int trips = bytes < (1 << 20) ? counts.trips64k : counts.trips1m;
        fprintf(stderr, "%s calls, %s...\n", size.c_str(), placement.c_str());
        const auto rawBody = rawBodyMicros(pinned, trips, bytes);
        row("raw socket, call carrying " + size, rawBody, rawBody);
        row("ring 64 KiB, streamed", ringMicros(pinned, trips, bytes, 64 * 1024), rawBody);
        row("ring 256 KiB, streamed beyond it", ringMicros(pinned, trips, bytes, 256 * 1024),
            rawBody);
        row("ring 2 MiB (the default), whole", ringMicros(pinned, trips, bytes, 2 << 20), rawBody);
        row("new sealed memfd per body, mapped", memfdBodyMicros(pinned, trips, bytes), rawBody);
    }
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);  // nothing buffered is copied into the children
    Counts counts;
    if (argc == 2 && strcmp(argv[1], "--quick") == 0) {
        counts = {200, 50, 20, std::chrono::milliseconds(100)};
    } else if (argc != 1) {
        fprintf(stderr, "usage: shm_ring_bench [--quick]\n");
        return 2;
    }
    printf("%-46s %11s   %s\n", "line", "median", "ratios in this run");
    for (bool pinned : {true, false}) measurePlacement(pinned, counts);
    fprintf(stderr, "idle pair...\n");
    const auto idle = idleCpuMillis(counts.idle);
    printf("\nidle ring pair, both waiting %lld ms: ", static_cast<long long>(counts.idle.count()));
    if (idle) {
        printf("%.2f ms CPU\n", *idle);
    } else {
        printf("failed\n");
    }
    return 0;
}
