#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "RawPeer.h"
#include "TestService.h"
#include "TestSupport.h"
#include "runtime/Runtime.h"
#include "shm/ShmChannel.h"
#include "wire/FlatObject.h"
#include "wire/Frame.h"
#include "wire/SocketDirectory.h"

using android::IBinder;
using namespace android::tvbinder;
using namespace tvraw;
using tvtest::ServedChild;
using tvtest::TestService;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// What a legitimate caller met while the child was under attack.
struct Calls {
    int made = 0;
    int failed = 0;
    Clock::duration slowest{};
};

// Calls ECHO on `binder` for `period`, on a thread of its own.
std::future<Calls> callsDuring(const android::sp<IBinder>& binder, Clock::duration period) {
    return std::async(std::launch::async, [=] {
        Calls calls;
        for (const auto end = Clock::now() + period; Clock::now() < end; ++calls.made) {
            const auto start = Clock::now();
            android::status_t status = android::NO_ERROR;
            const int32_t echoed = tvtest::callInt(binder, TestService::ECHO, calls.made, &status);
            calls.slowest = std::max(calls.slowest, Clock::now() - start);
            if (status != android::NO_ERROR || echoed != calls.made) ++calls.failed;
        }
        return calls;
    });
}

// Checks that every call made meanwhile by `legitimate` was served in time.
void expectServedThroughout(std::future<Calls>& legitimate, ServedChild& child) {
    EXPECT_TRUE(child.finishedWithin(legitimate, 30s)) << "a call did not end";
    const Calls calls = legitimate.get();
    EXPECT_EQ(0, calls.failed) << "of " << calls.made << " calls";
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(calls.slowest).count(), 1000)
        << "ms for the slowest of " << calls.made << " calls";
}

// Tells the test `line`, then keeps what the role made until the test lets it go.
int reportAndHold(const std::string& line) {
    tvtest::ParentChannel::send(line);
    tvtest::ParentChannel::receive();
    return 0;
}

// The test's objects as any process of its user gets them: from the registry.
android::sp<IBinder> lookUpAsAClient(const std::string& name) {
    android::ProcessState::self()->startThreadPool();
    return tvtest::lookup(name);
}

// Opens args[2] connections to endpoint args[0], each saying hello as endpoint args[1].
TVTEST_CHILD_ROLE(claim_endpoint) {
    if (args.size() < 3) return 2;
    std::vector<std::unique_ptr<RawConnection>> claims;
    for (int i = 0; i < std::stoi(args[2]); ++i) {
        claims.push_back(std::make_unique<RawConnection>(std::stoull(args[0])));
        claims.back()->hello(std::stoull(args[1]));
    }
    return reportAndHold("sent");
}

// Connects to the socket at args[0] up to args[1] times, or until the backlog
// is full, and keeps the connections open.
TVTEST_CHILD_ROLE(connection_flood) {
    if (args.size() < 2) return 2;
    sockaddr_un address;
    socklen_t length;
    if (!socketAddress(args[0], &address, &length)) return 3;
    std::vector<int> connections;
    for (int i = 0; i < std::stoi(args[1]); ++i) {
        int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (connect(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
            close(fd);
            break;
        }
        connections.push_back(fd);
    }
    return reportAndHold(std::to_string(connections.size()));
}

// A raw connection whose frames go through a ring it offers with its HELLO.
struct RingConnection {
    RingConnection(uint64_t endpoint, size_t ringBytes) : raw(endpoint) {
        android::tvbinder::shm::ShmChannelOptions options;
        options.ringBytes = ringBytes;
        if (android::tvbinder::shm::ShmChannel::create(options, &ring) != android::NO_ERROR) return;
        ring->setPollWaker([this] {
            const FrameHeader wake = RawConnection::makeHeader(FrameKind::kWake);
            raw.send(&wake, sizeof wake);
        });
        FrameHeader hello = RawConnection::makeHeader(FrameKind::kHello);
        hello.argument = ownEndpoint();
        raw.sendFrame(hello, {}, {ring->regionFd()});
    }
    // The status of the reply that comes within `timeout`; 1 when none does.
    int32_t replyStatus(std::chrono::milliseconds timeout) {
        android::tvbinder::shm::BufferSink sink;
        size_t length = 0;
        FrameHeader reply{};
        if (ring->receive(&sink, &length, Clock::now() + timeout) != android::NO_ERROR ||
            length < sizeof reply) {
            return 1;
        }
        memcpy(&reply, sink.data(), sizeof reply);
        return reply.kind == static_cast<uint32_t>(FrameKind::kReply) ? reply.status : 1;
    }

    RawConnection raw;
    std::unique_ptr<android::tvbinder::shm::ShmChannel> ring;
};

// On args[1] connections, calls BARRIER on the object named args[0] with a
// body of the largest size: each call waits in the child while its body is
// held. With args[2] "ring", the bodies stream through rings, and it says
// how many calls were refused for want of the sender's share.
TVTEST_CHILD_ROLE(large_bodies) {
    if (args.size() < 2) return 2;
    const android::sp<IBinder> target = lookUpAsAClient(args[0]);
    if (target == nullptr) return 3;
    const int32_t parties = 1000;
    Bytes start(sizeof(parties));
    memcpy(start.data(), &parties, sizeof(parties));
    FrameHeader header = transactionTo(target, TestService::BARRIER);
    header.dataSize = kMaxTransactionSize;
    const int count = std::stoi(args[1]);
    if (args.size() > 2 && args[2] == "ring") {
        header.layout = kLayoutBodyInRing;
        Bytes body(kMaxTransactionSize);
        memcpy(body.data(), start.data(), start.size());
        const iovec head{&header, sizeof header};
        const iovec part{body.data(), body.size()};
        std::vector<std::unique_ptr<RingConnection>> calls;
        for (int i = 0; i < count; ++i) {
            calls.push_back(std::make_unique<RingConnection>(endpointOf(target), 1 << 20));
            if (calls.back()->ring == nullptr ||
                calls.back()->ring->sendHeaded(head, &part, 1, Clock::now() + 20s) !=
                    android::NO_ERROR) {
                return 4;
            }
        }
        int refused = 0;
        for (auto& call : calls) refused += call->replyStatus(2s) == android::NO_MEMORY ? 1 : 0;
        return reportAndHold("refused " + std::to_string(refused));
    }
    const int body = sealedMemfd(start, kMaxTransactionSize);
    header.layout = kLayoutBodyInMemfd;
    std::vector<std::unique_ptr<RawConnection>> calls;
    for (int i = 0; i < count; ++i) {
        calls.push_back(std::make_unique<RawConnection>(endpointOf(target)));
        calls.back()->hello(ownEndpoint());
        calls.back()->sendFrame(header, {}, {body});
    }
    return reportAndHold("sent");
}

// Over a link to the object named args[0], blocks it, then sends args[1]
// SEQUENCE one-ways carrying args[2] descriptors each; does it again over a
// new link args[3] times. Says "dropped" if the child closed every link.
TVTEST_CHILD_ROLE(descriptor_oneways) {
    if (args.size() < 4) return 2;
    const android::sp<IBinder> target = lookUpAsAClient(args[0]);
    if (target == nullptr) return 3;
    FrameHeader block = transactionTo(target, TestService::BLOCK);
    block.flags = IBinder::FLAG_ONEWAY;
    FlatObject fdRecord{};
    fdRecord.type = FlatObject::kTypeFd;
    const std::vector<int> fds(std::stoul(args[2]), STDERR_FILENO);
    FrameHeader call = transactionTo(target, TestService::SEQUENCE);
    call.flags = IBinder::FLAG_ONEWAY;
    Bytes body = carrying(&call, std::vector<FlatObject>(fds.size(), fdRecord), Bytes(4));
    bool allDropped = true;
    for (int round = 0; round <= std::stoi(args[3]); ++round) {
        RawConnection link(endpointOf(target));
        link.hello(ownEndpoint(), kHelloLink);
        if (round == 0) link.sendFrame(block);
        for (int32_t i = 0; i < std::stoi(args[1]); ++i) {
            memcpy(body.data(), &i, sizeof(i));
            link.sendFrame(call, body, fds);
        }
        allDropped = link.endsWithin(10s) && allDropped;
    }
    return reportAndHold(allDropped ? "dropped" : "open");
}

class HostilePeers : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(child.ready());
        endpoint = endpointOf(child.binder());
    }
    void expectStillServing() {
        EXPECT_EQ(0, waitpid(child.pid(), nullptr, WNOHANG));
        EXPECT_EQ(21, tvtest::callInt(child.binder(), TestService::ECHO, 21));
    }
    // A connection whose hello the child accepted: it speaks for this process.
    std::unique_ptr<RawConnection> introduced() {
        auto raw = std::make_unique<RawConnection>(endpoint);
        raw->hello(ownEndpoint());
        return raw;
    }
    // Sends one frame on a fresh introduced connection; true if the child hung up.
    bool hangsUpOn(const FrameHeader& header, const Bytes& body = {},
                   const std::vector<int>& fds = {}) {
        auto raw = introduced();
        raw->sendFrame(header, body, fds);
        return raw->closedByPeer();
    }
    // Sends one frame; the status of the reply, or 1 when none came.
    int32_t replyStatusTo(const FrameHeader& header, const Bytes& body = {},
                          const std::vector<int>& fds = {}) {
        auto raw = introduced();
        raw->sendFrame(header, body, fds);
        FrameHeader reply{};
        if (raw->receive(&reply) < static_cast<ssize_t>(sizeof(reply)) ||
            reply.kind != static_cast<uint32_t>(FrameKind::kReply)) {
            return 1;
        }
        return reply.status;
    }

    ServedChild child;
    uint64_t endpoint = 0;
};

// Which frames are malformed is TransportLogicTest's; here, that one closes its
// connection and nothing else, as does a connection that does not introduce
// itself properly or scribbles on the memory it shares; what names objects
// the peer was never handed is refused.
TEST_F(HostilePeers, BadIntroductionsMalformedFramesAndForgedObjectsCostTheirConnectionOnly) {
    FrameHeader valid = transactionTo(child.binder(), IBinder::PING_TRANSACTION);
    ASSERT_EQ(0, replyStatusTo(valid));
    ServedChild other;
    ASSERT_TRUE(other.ready());
    // Garbage, a transaction before the hello, a hello from nobody or from a
    // live process that is not us.
    enum : uint64_t { kGarbage, kCallBeforeHello };
    for (const uint64_t claimed : {uint64_t{kGarbage}, uint64_t{kCallBeforeHello},
                                   uint64_t{0x1234567890abcdefULL}, endpointOf(other.binder())}) {
        RawConnection raw(endpoint);
        ASSERT_TRUE(raw.connected);
        if (claimed == kGarbage) raw.send("garbage!", 8);
        if (claimed == kCallBeforeHello) raw.sendFrame(valid);
        if (claimed > kCallBeforeHello) raw.hello(claimed);
        EXPECT_TRUE(raw.closedByPeer()) << claimed;
    }
    {
        auto raw = introduced();
        raw->send("short", 5);
        EXPECT_TRUE(raw->closedByPeer());
    }
    FrameHeader badMagic = valid;
    badMagic.magic = 0xdeadbeef;
    EXPECT_TRUE(hangsUpOn(badMagic));
    EXPECT_TRUE(hangsUpOn(RawConnection::makeHeader(FrameKind::kReply)));  // unsolicited

    // Among one-ways on a link, it closes the link after those sent before
    // it, which all run. Sent in one go, so that the child reads them in batches.
    std::vector<int32_t> sent;
    RawConnection link(endpoint);
    link.hello(ownEndpoint(), kHelloLink);
    FrameHeader call = transactionTo(child.binder(), TestService::SEQUENCE);
    call.flags = IBinder::FLAG_ONEWAY;
    call.dataSize = sizeof(int32_t);
    for (int32_t i = 0; i < 40; ++i) {
        Bytes body(sizeof(i));
        memcpy(body.data(), &i, sizeof(i));
        link.sendFrame(call, body);
        sent.push_back(i);
    }
    call.dataSize = 0;
    call.magic = 0xdeadbeef;
    link.sendFrame(call);
    EXPECT_TRUE(link.closedByPeer());
    EXPECT_EQ(sent, tvtest::sequenceValues(child.binder(), static_cast<int32_t>(sent.size())));

    // Objects the peer was never handed are refused.
    FrameHeader unknownTarget = transactionTo(child.binder(), TestService::ECHO);
    unknownTarget.tokenHi ^= 1;
    EXPECT_EQ(android::FAILED_TRANSACTION, replyStatusTo(unknownTarget));

    // A record naming one of the child's own objects under a guessed token.
    FlatObject forged{};
    forged.type = FlatObject::kTypeBinder;
    forged.endpoint = endpoint;
    forged.tokenHi = 0x0123456789abcdefULL;
    forged.tokenLo = 42;
    FrameHeader hold = transactionTo(child.binder(), TestService::HOLD);
    EXPECT_NE(0, replyStatusTo(hold, carrying(&hold, {forged})));

    FrameHeader grant = RawConnection::makeHeader(FrameKind::kGrant);
    grant.tokenHi = forged.tokenHi;
    grant.tokenLo = forged.tokenLo;
    grant.argument = 0x1111222233334444ULL;
    EXPECT_NE(0, replyStatusTo(grant));

    // Releasing what it never held changes nothing; releases outside a link
    // are refused.
    FrameHeader release = RawConnection::makeHeader(FrameKind::kRelease);
    release.tokenHi = forged.tokenHi;
    release.tokenLo = forged.tokenLo;
    release.argument = 1000000;
    EXPECT_TRUE(hangsUpOn(release));
    RawConnection releases(endpoint);
    releases.hello(ownEndpoint(), kHelloLink);
    releases.sendFrame(release);

    // The child adopts the memory a peer offers with its HELLO; a peer that
    // then scribbles on it loses that connection.
    namespace shm = android::tvbinder::shm;
    constexpr size_t kRingBytes = 64 * 1024;
    RingConnection connection(endpoint, kRingBytes);
    ASSERT_NE(nullptr, connection.ring);
    std::unique_ptr<shm::ShmChannel>& ring = connection.ring;
    RawConnection& raw = connection.raw;

    FrameHeader ping = transactionTo(child.binder(), IBinder::PING_TRANSACTION);
    const iovec part{&ping, sizeof ping};
    ASSERT_EQ(android::NO_ERROR, ring->send(&part, 1, Clock::now() + 5s));
    EXPECT_EQ(0, connection.replyStatus(20s));

    // A tail far beyond the ring, then a wake-up.
    const size_t size = shm::regionBytes(kRingBytes);
    void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, ring->regionFd(), 0);
    ASSERT_NE(MAP_FAILED, base);
    auto* control =
        reinterpret_cast<shm::DirectionControl*>(static_cast<uint8_t*>(base) + shm::kControlOffset);
    control[0].tail.fetch_add(uint64_t{1} << 40);
    const FrameHeader wake = RawConnection::makeHeader(FrameKind::kWake);
    raw.send(&wake, sizeof wake);
    EXPECT_TRUE(raw.endsWithin(20s));
    munmap(base, size);
    expectStillServing();
}

// The shares themselves are TransportLogicTest's; here, what a flood does to
// a process that admits by them, served with a descriptor limit of its own.
TEST(HostileFloods, OfConnectionsAreCappedAndDoNotStopTheService) {
    // Several processes together take more than a process with few
    // descriptors has, once with the application holding little of them and
    // once with it holding nearly all.
    constexpr size_t kLimit = 128;
    for (const bool applicationHoldsMost : {false, true}) {
        SCOPED_TRACE(applicationHoldsMost ? "few descriptors to spare" : "many to spare");
        ServedChild limited({"--nofile=" + std::to_string(kLimit),
                             applicationHoldsMost ? "--leave-fds=8" : "--leave-fds=100"});
        ASSERT_TRUE(limited.ready());
        ASSERT_EQ(1, tvtest::callInt(limited.binder(), TestService::ECHO, 1));
        tvproc::PeakWatch peak(limited.pid());
        std::vector<std::unique_ptr<tvtest::ChildProcess>> flooders;
        for (int i = 0; i < 4; ++i) {
            flooders.push_back(std::make_unique<tvtest::ChildProcess>(
                "connection_flood",
                std::vector<std::string>{endpointAddress(endpointOf(limited.binder())), "100"}));
        }
        for (auto& flooder : flooders) EXPECT_NE("", flooder->readLine());
        FrameHeader echo = transactionTo(limited.binder(), TestService::ECHO);
        echo.dataSize = sizeof(int32_t);
        {
            // Made after the flood's connections: once the child has answered
            // or refused it, it has taken theirs too.
            RawConnection probe(endpointOf(limited.binder()));
            probe.hello(ownEndpoint());
            probe.sendFrame(echo, Bytes(sizeof(int32_t)));
            FrameHeader ignored{};
            probe.receive(&ignored);
        }
        const auto cpuBefore = tvproc::cpuTime(limited.pid());
        std::this_thread::sleep_for(1s);  // the span over which the listener's CPU is measured
        EXPECT_LT((tvproc::cpuTime(limited.pid()) - cpuBefore).count(), 300)
            << "ms of CPU in 1 s of a flood: the listener spins";
        RawConnection late(endpointOf(limited.binder()));
        if (applicationHoldsMost) {
            EXPECT_TRUE(late.closedByPeer(3s))
                << "a connection without a descriptor was left waiting";
        } else {
            // Every connection is taken: a flooder gives one up for the newcomer.
            late.hello(ownEndpoint());
            late.sendFrame(echo, Bytes(sizeof(int32_t)));
            FrameHeader reply{};
            EXPECT_GT(late.receive(&reply, 3s), 0) << "a newcomer was not served during the flood";
            EXPECT_EQ(static_cast<uint32_t>(FrameKind::kReply), reply.kind);
        }
        peak.stop();
        if (!applicationHoldsMost) {
            EXPECT_LT(peak.descriptors(), kLimit) << "the connections took every descriptor";
        }
        flooders.clear();

        auto served = std::async(std::launch::async, [&] {
            return tvtest::waitUntil(
                [&] { return tvtest::callInt(limited.binder(), TestService::ECHO, 2) == 2; });
        });
        ASSERT_TRUE(limited.finishedWithin(served, 30s)) << "a call hung after the flood";
        EXPECT_TRUE(served.get()) << "not served again once the flood ended";
    }
}

TEST_F(HostilePeers, NamingAnUnreachableEndpointDoesNotStallTheService) {
    FullBacklog unreachable;
    ASSERT_TRUE(unreachable.full);
    auto legitimate = callsDuring(child.binder(), 5s);

    // Hellos claiming it, from several processes so that no per-process cap
    // turns them away.
    std::vector<std::unique_ptr<tvtest::ChildProcess>> claimers;
    for (int i = 0; i < 3; ++i) {
        claimers.push_back(std::make_unique<tvtest::ChildProcess>(
            "claim_endpoint",
            std::vector<std::string>{std::to_string(endpoint), std::to_string(unreachable.endpoint),
                                     "150"}));
    }
    // Objects of unknown owners by the thousand, some of them owned there...
    std::mt19937_64 random(std::random_device{}());
    std::vector<std::unique_ptr<RawConnection>> senders;
    for (int i = 0; i < 4; ++i) {
        std::vector<FlatObject> records(30000);
        for (size_t r = 0; r < records.size(); ++r) {
            records[r].type = FlatObject::kTypeBinder;
            records[r].endpoint = r % 1000 == 0 ? unreachable.endpoint : random();
            records[r].tokenHi = random();
            records[r].tokenLo = random();
        }
        FrameHeader header = transactionTo(child.binder(), TestService::ECHO);
        header.layout = kLayoutBodyInMemfd;
        const Bytes body = carrying(&header, records);
        const int memfd = sealedMemfd(body, body.size());
        senders.push_back(introduced());
        senders.back()->sendFrame(header, {}, {memfd});
        close(memfd);
        // ...and the child's own object granted to it.
        FrameHeader grant = RawConnection::makeHeader(FrameKind::kGrant);
        grant.tokenHi = child.binder()->remoteBinder()->tokenHi();
        grant.tokenLo = child.binder()->remoteBinder()->tokenLo();
        grant.argument = unreachable.endpoint;
        for (int g = 0; g < 5; ++g) senders.back()->sendFrame(grant);
    }
    for (auto& claimer : claimers) EXPECT_EQ("sent", claimer->readLine());

    expectServedThroughout(legitimate, child);
    expectStillServing();
}

TEST_F(HostilePeers, LargeBodiesAndQueuedDescriptorsStayWithinTheSendersShare) {
    // One-ways carrying descriptors, queued behind the object the sender blocked.
    const android::sp<IBinder> other = tvtest::newObject(child.binder());
    ASSERT_NE(nullptr, other);
    const size_t descriptorsBefore = tvtest::countOpenFds(child.pid());
    {
        tvproc::PeakWatch peak(child.pid());
        // Links dropped and made again, round after round.
        constexpr size_t kFdsPerOneWay = 16;
        tvtest::ChildProcess hostile(
            "descriptor_oneways",
            std::vector<std::string>{child.name(), "60", std::to_string(kFdsPerOneWay), "20"});
        std::vector<int32_t> accepted;
        for (int32_t i = 0; i < 200; ++i) {
            android::Parcel data;
            data.writeInt32(i);
            if (other->transact(TestService::SEQUENCE, data, nullptr, IBinder::FLAG_ONEWAY) ==
                android::NO_ERROR) {
                accepted.push_back(i);
            }
        }
        EXPECT_EQ("dropped", hostile.readLine(30s)) << "a link beyond its budget was kept";
        EXPECT_EQ(accepted, tvtest::sequenceValues(other, static_cast<int32_t>(accepted.size())));
        EXPECT_EQ(200u, accepted.size());
        peak.stop();
        // What the budgets of the process's links let wait, plus one read of
        // the sender's frames, closed as soon as it is found over budget.
        const size_t bound = PeerAccounts::kMaxLinksPerProcess * kOneWayBudget / kOneWayFdCost +
                             kReceiveBatch * kFdsPerOneWay + 64;
        EXPECT_LT(peak.descriptors(), descriptorsBefore + bound) << "descriptors at the peak";
    }
    ASSERT_EQ(android::NO_ERROR, tvtest::sendObject(child.binder(), TestService::UNBLOCK));

    // Calls with bodies of the largest size that wait in the child. What one
    // costs it is measured first: sanitizers multiply it.
    size_t residentBefore = tvproc::residentKib(child.pid());
    size_t perBody = 0;
    {
        tvproc::PeakWatch peak(child.pid());
        tvtest::ChildProcess one("large_bodies", std::vector<std::string>{child.name(), "1"});
        EXPECT_EQ("sent", one.readLine());
        // Met once the hostile call waits in the child, its body read.
        EXPECT_EQ(1, tvtest::callInt(child.binder(), TestService::BARRIER, 2));
        peak.stop();
        const size_t grown =
            std::max({peak.residentKib(), tvproc::residentKib(child.pid()), residentBefore}) -
            residentBefore;
        perBody = std::max<size_t>(grown, kMaxTransactionSize / 1024);
        residentBefore = tvproc::residentKib(child.pid());
    }
    // In sealed memfds, then streamed through rings: either way the budget
    // admits two at once, and the bodies refused are never allocated.
    std::vector<std::unique_ptr<tvtest::ChildProcess>> hostiles;
    for (const std::string path : {"memfd", "ring"}) {
        tvproc::PeakWatch peak(child.pid());
        hostiles.push_back(std::make_unique<tvtest::ChildProcess>(
            "large_bodies", std::vector<std::string>{child.name(), "6", path}));
        EXPECT_EQ(path == "ring" ? "refused 4" : "sent", hostiles.back()->readLine(60s)) << path;
        auto legitimate = callsDuring(child.binder(), 3s);
        expectServedThroughout(legitimate, child);
        peak.stop();
        // The rest is room for the allocator (a sanitizer keeps freed bodies a while).
        EXPECT_LT(peak.residentKib(), residentBefore + 6 * perBody)
            << path << ": KiB resident at the peak, " << perBody << " KiB for one body";
        residentBefore = tvproc::residentKib(child.pid());
    }
    expectStillServing();
}

bool becomeAnotherUser() {
    return setresgid(65534, 65534, 65534) == 0 && setresuid(65534, 65534, 65534) == 0;
}

// A process in context args[0] ("" for the test's), as another user when
// args[1] is "other": 0 when it did not reach that context's registry.
TVTEST_CHILD_ROLE(context_client) {
    if (args.size() < 2) return 2;
    if (!args[0].empty()) setenv("TAVRIN_BINDER_CONTEXT", args[0].c_str(), 1);
    if (args[1] == "other" && !becomeAnotherUser()) return 2;
    return android::ProcessState::self()->getContextObject(nullptr) == nullptr ? 0 : 1;
}

// Another user's process serves the registry of context args[0].
TVTEST_CHILD_ROLE(other_user_registry) {
    if (args.empty() || !becomeAnotherUser()) return 2;
    setenv("TAVRIN_BINDER_CONTEXT", args[0].c_str(), 1);
    android::sp<android::ProcessState> process = android::ProcessState::self();
    if (!process->becomeContextManager()) return 3;
    android::IPCThreadState::self()->setTheContextObject(new android::BBinder());
    process->startThreadPool();
    return reportAndHold("ready");
}

TEST(OtherUsers, AreNeitherServedNorTrusted) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to run a process as another user";
    tvtest::ChildProcess client("context_client", {"", "other"});
    EXPECT_EQ(0, client.finish()) << "another user reached the test's registry";

    const std::string context = "tvtest-other-" + std::to_string(getpid());
    tvtest::ChildProcess registry("other_user_registry", {context});
    ASSERT_EQ("ready", registry.readLine());
    tvtest::ChildProcess user("context_client", {context, "same"});
    EXPECT_EQ(0, user.finish()) << "a registry run by another user was trusted";
    EXPECT_EQ(0, registry.finish());
}

// Reports where this process listens, then waits for the test to let it go.
TVTEST_CHILD_ROLE(report_socket) {
    (void)args;
    android::ProcessState::self();
    return reportAndHold(endpointAddress(Runtime::current()->endpoint()));
}

bool exists(const std::string& path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

TEST(SocketFiles, ArePrivateAndNotLeftBehind) {
    const std::string own = endpointAddress(Runtime::current()->endpoint());
    struct stat directory;
    ASSERT_EQ(0, lstat(own.substr(0, own.rfind('/')).c_str(), &directory));
    EXPECT_TRUE(S_ISDIR(directory.st_mode));
    EXPECT_EQ(geteuid(), directory.st_uid);
    EXPECT_EQ(0u, directory.st_mode & 077);

    // A runtime directory whose "tvbinder" leads elsewhere, even to a
    // private directory, is not used.
    char planted[] = "/tmp/tvtest-runtime-XXXXXX";
    char elsewhere[] = "/tmp/tvtest-elsewhere-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(planted));
    ASSERT_NE(nullptr, mkdtemp(elsewhere));
    const std::string link = std::string(planted) + "/tvbinder";
    ASSERT_EQ(0, symlink(elsewhere, link.c_str()));
    setenv("XDG_RUNTIME_DIR", planted, 1);
    std::string cleanPath;
    {
        tvtest::ChildProcess child("report_socket");
        unsetenv("XDG_RUNTIME_DIR");
        cleanPath = child.readLine();
        EXPECT_EQ(own.substr(0, own.rfind('/')), cleanPath.substr(0, cleanPath.rfind('/')));
        EXPECT_TRUE(exists(cleanPath));
        EXPECT_EQ(0, child.finish());
    }
    unsetenv("XDG_RUNTIME_DIR");
    EXPECT_FALSE(exists(cleanPath)) << "a clean exit left its socket behind";
    unlink(link.c_str());
    rmdir(planted);
    rmdir(elsewhere);

    // A killed process leaves its socket; the next process to start removes it.
    tvtest::ChildProcess killed("report_socket");
    const std::string stale = killed.readLine();
    killed.kill(SIGKILL);
    EXPECT_NE(-1, killed.wait());
    // (Another process starting meanwhile may have removed it already.)
    tvtest::ChildProcess next("report_socket");
    EXPECT_FALSE(next.readLine().empty());
    EXPECT_FALSE(exists(stale)) << "a stale socket was not removed";
}

}  // namespace
