// The transport's logic in one process: frames as the receiver checks them
// (the socket path's parsing, through a socket pair, and Frame::validate; a
// frame that fails either closes its connection, as HostilePeers shows end to
// end), the link budget both ends keep, the scheduler that runs what a link
// brought object by object, the chain registry that hands a call to the
// thread waiting in its chain, what other processes may hold here, and (in
// debug and sanitizer builds) the lock checks.
#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "ProcSupport.h"
#include "RawPeer.h"
#include "base/Locks.h"
#include "base/LogLimit.h"
#include "calls/ChainRegistry.h"
#include "oneways/OneWayScheduler.h"
#include "peers/AcceptedConnection.h"
#include "peers/PeerTable.h"
#include "peers/RingTrimmer.h"
#include "runtime/RefusalLog.h"
#include "threads/ThreadPool.h"
#include "wire/Connection.h"
#include "wire/FlatObject.h"
#include "wire/Frame.h"
#include "wire/LinkBacklog.h"
#include "wire/LinkCredit.h"
#include "wire/PeerAccounts.h"

using namespace android::tvbinder;
using namespace android;

namespace {

using Bytes = std::vector<uint8_t>;

FlatObject fdRecord() {
    FlatObject record{};
    record.type = FlatObject::kTypeFd;
    return record;
}

FlatObject binderRecord() {
    FlatObject record{};
    record.type = FlatObject::kTypeBinder;
    record.endpoint = 7;
    record.tokenLo = 9;
    return record;
}

// A received transaction of `dataSize` bytes holding `records` at `offsets`.
struct Received {
    Frame frame;
    Received(size_t dataSize, const std::vector<std::pair<uint32_t, FlatObject>>& records) {
        frame.header = OutgoingFrame::make(FrameKind::kTransaction).header;
        frame.header.dataSize = static_cast<uint32_t>(dataSize);
        frame.header.objectCount = static_cast<uint32_t>(records.size());
        uint8_t* data = frame.allocateData(dataSize);
        memset(data, 0, dataSize);
        for (const auto& [offset, record] : records) {
            if (offset + sizeof(record) <= dataSize) memcpy(data + offset, &record, sizeof(record));
            frame.offsets.push_back(offset);
        }
    }
};

TEST(FrameValidation, RecordsMustBeAlignedInBoundsApartTypedAndMatchTheDescriptors) {
    Received valid(96, {{0, fdRecord()}, {32, binderRecord()}});
    valid.frame.addFd(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(NO_ERROR, valid.frame.validate());

    const auto offsets = [](std::vector<uint32_t> wrong) {
        return [wrong](Received& r) { r.frame.offsets = wrong; };
    };
    const std::vector<std::pair<const char*, std::function<void(Received&)>>> faults = {
        {"bad magic", [](Received& r) { r.frame.header.magic = 0xdeadbeef; }},
        {"unknown kind", [](Received& r) { r.frame.header.kind = 99; }},
        {"offsets not counted", [](Received& r) { r.frame.header.objectCount = 1; }},
        {"unaligned", offsets({2, 34})},
        {"past the end", offsets({0, 80})},
        {"overlapping", offsets({0, 16})},
        {"descending", offsets({32, 0})},
        {"descriptor without record",
         [](Received& r) { r.frame.addFd(open("/dev/null", O_RDONLY | O_CLOEXEC)); }},
    };
    for (const auto& [what, fault] : faults) {
        Received broken(96, {{0, fdRecord()}, {32, binderRecord()}});
        broken.frame.addFd(open("/dev/null", O_RDONLY | O_CLOEXEC));
        fault(broken);
        EXPECT_EQ(BAD_VALUE, broken.frame.validate()) << what;
    }

    FlatObject unknown = fdRecord();
    unknown.type = 0x12345678;
    FlatObject reserved = fdRecord();
    reserved.reserved = 1;
    FlatObject fdWithToken = fdRecord();
    fdWithToken.tokenHi = 1;
    FlatObject nullBinder = binderRecord();
    nullBinder.endpoint = 0;
    for (const FlatObject& record : {unknown, reserved, fdWithToken, nullBinder}) {
        Received broken(64, {{0, record}});
        if (record.type == FlatObject::kTypeFd)
            broken.frame.addFd(open("/dev/null", O_RDONLY | O_CLOEXEC));
        EXPECT_EQ(BAD_VALUE, broken.frame.validate()) << "record type " << record.type;
    }
    Received recordWithoutDescriptor(64, {{0, fdRecord()}});
    EXPECT_EQ(BAD_VALUE, recordWithoutDescriptor.frame.validate());

    // Kinds without a body carry neither data nor descriptors.
    Frame ack;
    ack.header = OutgoingFrame::make(FrameKind::kAck).header;
    EXPECT_EQ(NO_ERROR, ack.validate());
    ack.header.dataSize = 4;
    EXPECT_EQ(BAD_VALUE, ack.validate());
}

// One end of a socket pair as a received connection, the other sent on raw.
class SocketPath : public testing::Test {
  protected:
    void SetUp() override {
        int fds[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds));
        sender = std::make_unique<tvraw::RawConnection>(tvraw::RawConnection::Adopt{fds[0]});
        receiver = Connection::adopt(fds[1]);
        accounts.setDescriptorLimit(1024);
    }
    // Sends a header announcing a body of 100000 bytes in a memfd, and `fds`.
    void sendLargeBody(const std::vector<int>& fds) {
        FrameHeader header = OutgoingFrame::make(FrameKind::kTransaction).header;
        header.layout = kLayoutBodyInMemfd;
        header.dataSize = 100000;
        sender->sendFrame(header, {}, fds);
    }
    status_t receive() {
        Frame frame;
        status_t status = receiver->receive(&frame, false);
        if (status == NO_ERROR) status = frame.validate();
        return status;
    }

    std::unique_ptr<tvraw::RawConnection> sender;
    sp<Connection> receiver;
    PeerAccounts accounts;
};

TEST_F(SocketPath, MessagesHoldTheWholeFrameLargeBodiesASealedMemfdWithinTheSendersShare) {
    sender->send("short", 5);
    EXPECT_EQ(BAD_VALUE, receive()) << "shorter than a header";
    FrameHeader header = OutgoingFrame::make(FrameKind::kTransaction).header;
    header.dataSize = 100;
    sender->sendFrame(header, Bytes(50));
    EXPECT_EQ(BAD_VALUE, receive()) << "body shorter than announced";
    header.dataSize = 64;
    header.objectCount = 1000;
    sender->sendFrame(header, Bytes(64 + 4000));
    EXPECT_EQ(BAD_VALUE, receive()) << "more objects than the data can hold";
    sender->send(Bytes(kMaxInlineFrame + 1).data(), kMaxInlineFrame + 1);
    EXPECT_EQ(BAD_VALUE, receive()) << "larger than a message may be";
    header = OutgoingFrame::make(FrameKind::kTransaction).header;
    header.dataSize = 4;
    sender->sendFrame(header, Bytes(4));
    EXPECT_EQ(NO_ERROR, receive());

    const int wrongSize = tvraw::sealedMemfd({}, 1000);
    const int unsealed = memfd_create("frame-test", MFD_CLOEXEC);
    ASSERT_EQ(0, ftruncate(unsealed, 100000));
    const int good = tvraw::sealedMemfd({}, 100000);
    sendLargeBody({wrongSize});
    EXPECT_EQ(BAD_VALUE, receive()) << "memfd of another size";
    sendLargeBody({unsealed});
    EXPECT_EQ(BAD_VALUE, receive()) << "memfd without seals";
    sendLargeBody({});
    EXPECT_EQ(BAD_VALUE, receive()) << "no memfd";
    sendLargeBody({good});
    EXPECT_EQ(NO_ERROR, receive());

    // Charged to the sender's account while it is read: beyond the share,
    // the body is dropped and the connection lives on.
    sp<PeerAccount> account = accounts.admitConnection(getpid()).account;
    ASSERT_NE(nullptr, account);
    receiver->chargeBodiesTo(account);
    ASSERT_TRUE(account->takeBody(PeerAccounts::kBodyBudgetPerProcess - 50000));
    sendLargeBody({good});
    EXPECT_EQ(NO_MEMORY, receive());
    account->returnBody(PeerAccounts::kBodyBudgetPerProcess - 50000);
    sendLargeBody({good});
    EXPECT_EQ(NO_ERROR, receive());
    account->connectionGone(false);
    for (int fd : {wrongSize, unsealed, good}) close(fd);
}

TEST(LinkBudget, ASenderThatKeepsItsCreditNeverMakesTheReceiverRefuse) {
    LinkCredit credit;
    LinkBacklog backlog;
    std::mt19937 random(7);
    std::vector<uint64_t> inFlight;  // sent, not yet consumed, oldest first
    int refused = 0;
    for (int round = 0; round < 20000; ++round) {
        // Mostly small one-ways, now and then one larger than the budget.
        const uint64_t cost =
            oneWayCost(random() % 50 == 0 ? kOneWayBudget + 1000 : random() % 9000, random() % 3);
        if (const std::optional<uint64_t> before = credit.tryTake(cost)) {
            if (cost > kOneWayBudget) {
                EXPECT_EQ(0u, *before) << "a large one-way went with others";
            }
            ASSERT_TRUE(backlog.admit(cost)) << "round " << round;
            inFlight.push_back(cost);
        } else {
            ++refused;
            EXPECT_GT(credit.outstanding() + cost, kOneWayBudget);
        }
        // The receiver runs something now and then; acknowledgements arrive.
        if (!inFlight.empty() && random() % 3 == 0) {
            if (const std::optional<uint64_t> total = backlog.consume(inFlight.front())) {
                credit.onAck(*total);
            }
            inFlight.erase(inFlight.begin());
        }
    }
    EXPECT_GT(refused, 0) << "the budget never ran out";
    EXPECT_GE(credit.outstanding(), backlog.waiting()) << "the sender thinks it has more room";
}

TEST(LinkBudget, AnAcknowledgementAskedForEarlyComesWithTheNextConsumptionAndTotalsOnlyGrow) {
    // Acknowledgements at every interval, and at once when asked after a
    // consumption, are the Receiver test's.
    LinkBacklog backlog;
    const uint64_t cost = oneWayCost(1000, 0);
    // Asked with nothing new consumed: the next consumption answers at once.
    EXPECT_FALSE(backlog.onAckRequest().has_value());
    ASSERT_TRUE(backlog.admit(cost));
    EXPECT_EQ(cost, backlog.consume(cost).value_or(0));

    LinkCredit credit;
    ASSERT_TRUE(credit.tryTake(kOneWayBudget).has_value());
    EXPECT_FALSE(credit.tryTake(1).has_value());
    credit.onAck(kOneWayBudget + 1);  // beyond what was sent: a lie
    EXPECT_EQ(kOneWayBudget, credit.outstanding());
    credit.onAck(1000);
    credit.onAck(500);  // late: totals only grow
    EXPECT_EQ(kOneWayBudget - 1000, credit.outstanding());
    credit.giveBack(kOneWayBudget - 1000);
    EXPECT_EQ(0u, credit.outstanding());
}

// Notes each call: its object's name and the value it carried.
class Recorder : public BBinder {
  public:
    Recorder(const std::string& name, std::vector<std::string>* log) : mName(name), mLog(log) {}

  protected:
    status_t onTransact(uint32_t, const Parcel& data, Parcel*, uint32_t) override {
        mLog->push_back(mName + std::to_string(data.readInt32()));
        return NO_ERROR;
    }

  private:
    const std::string mName;
    std::vector<std::string>* const mLog;
};

// Not called: the test reads the link itself.
class NoHandler : public AcceptedConnection::Handler {
    void onReadable(const sp<AcceptedConnection>&) override {}
};

class NoDeaths : public PeerDeathListener {
    void onPeerDead(const sp<Peer>&) override {}
};

// A link from a made-up peer, over a socket pair whose other end shows what
// the receiver sends back. The pool has no threads: the test runs its tasks.
class Receiver : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(NO_ERROR, pool.init());
        accounts.setDescriptorLimit(1024);
        int fds[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds));
        sender = Connection::adopt(fds[0]);
        link = new AcceptedConnection(Connection::adopt(fds[1]),
                                      accounts.admitConnection(getpid()).account, false, handlers);
        ASSERT_TRUE(link->introduce(peers.obtain(2), true));
    }
    void queue(const sp<BBinder>& target, const Token& token, int32_t value, uint32_t size = 0) {
        auto call = std::make_unique<PendingOneWay>();
        call->target = target;
        call->from = link;
        call->flags = kFlagOneWay;
        call->data.writeInt32(value);
        call->cost = oneWayCost(size, 0);
        ASSERT_TRUE(link->backlog().admit(call->cost));
        scheduler.enqueue(token, std::move(call));
    }
    // The acknowledgements waiting at the sender's end, in order.
    std::vector<uint64_t> acks() {
        std::vector<uint64_t> totals;
        Frame frame;
        while (sender->receive(&frame, false) == NO_ERROR) {
            EXPECT_EQ(FrameKind::kAck, frame.kind());
            totals.push_back(frame.header.argument);
        }
        return totals;
    }

    ThreadPool pool;
    PeerAccounts accounts;
    NoDeaths deaths;
    RingTrimmer rings{pool};
    PeerTable peers{pool, deaths, rings, 1};
    NoHandler noHandler;
    AcceptedConnection::Handlers handlers{noHandler, noHandler, noHandler};
    OneWayScheduler scheduler{pool};
    sp<Connection> sender;
    sp<AcceptedConnection> link;
    std::vector<std::string> log;
};

TEST_F(Receiver, ObjectsTakeTurnsEachRunningItsCallsInOrderAndWhatRanIsAcknowledged) {
    sp<Recorder> a = new Recorder("a", &log);
    sp<Recorder> b = new Recorder("b", &log);
    const uint32_t size = 20000;  // four of them cross the acknowledgement interval
    for (int32_t i = 0; i < 3; ++i) queue(a, Token{1, 1}, i, size);
    for (int32_t i = 0; i < 2; ++i) queue(b, Token{1, 2}, i, size);
    EXPECT_TRUE(acks().empty());
    pool.runPosted();
    EXPECT_EQ((std::vector<std::string>{"a0", "b0", "a1", "b1", "a2"}), log);
    EXPECT_EQ(std::vector<uint64_t>{4 * oneWayCost(size, 0)}, acks());

    // A sender that asks is told what ran since.
    scheduler.onAckRequest(*link);
    EXPECT_EQ(std::vector<uint64_t>{5 * oneWayCost(size, 0)}, acks());
    EXPECT_EQ(0u, link->backlog().waiting());
}

Frame callOfChain(uint64_t chain) {
    Frame frame;
    frame.header = OutgoingFrame::make(FrameKind::kTransaction).header;
    frame.header.argument = chain;
    frame.allocateData(0);
    return frame;
}

bool readable(ChainMailbox& mailbox) {
    pollfd waiter{mailbox.fd(), POLLIN, 0};
    return poll(&waiter, 1, 0) == 1;
}

TEST(ChainRegistry, ACallGoesToTheThreadWaitingInItsChainUntilItLeaves) {
    ChainRegistry chains;
    ChainMailbox first;
    ChainMailbox second;
    Frame nobodyWaits = callOfChain(5);
    EXPECT_FALSE(chains.handOff(5, nullptr, nobodyWaits));
    EXPECT_NE(nullptr, nobodyWaits.data()) << "a call not handed off was taken";

    chains.enter(5, &first);
    chains.enter(5, &first);  // a nested wait of the same thread
    // A thread of the chain that a one-way cut off waits too: the first keeps it.
    chains.enter(5, &second);
    Frame other = callOfChain(6);
    EXPECT_FALSE(chains.handOff(6, nullptr, other));
    Frame call = callOfChain(5);
    ASSERT_TRUE(chains.handOff(5, nullptr, call));
    EXPECT_EQ(nullptr, call.data());
    EXPECT_TRUE(readable(first));
    EXPECT_FALSE(second.take().has_value());
    std::optional<HandedCall> handed = first.take();
    ASSERT_TRUE(handed.has_value());
    EXPECT_EQ(5u, handed->frame->header.argument);
    EXPECT_FALSE(first.take().has_value());
    EXPECT_FALSE(readable(first)) << "an empty mailbox still wakes its thread";

    chains.leave(5, &second);
    chains.leave(5, &first);
    Frame stillNested = callOfChain(5);
    EXPECT_TRUE(chains.handOff(5, nullptr, stillNested));
    chains.leave(5, &first);
    Frame afterLeaving = callOfChain(5);
    EXPECT_FALSE(chains.handOff(5, nullptr, afterLeaving));
}

// With the usual limit of 1024 descriptors: 384 accepted connections, 128 per process.
constexpr size_t kAll = 384;
constexpr size_t kPerProcess = 128;

struct Held {
    PeerAccounts& accounts;
    std::vector<sp<PeerAccount>> connections;
    ~Held() {
        for (const sp<PeerAccount>& account : connections) account->connectionGone(false);
    }
    // Admits up to `count` connections of `pid`: how many got in.
    size_t admit(pid_t pid, size_t count) {
        size_t admitted = 0;
        for (; admitted < count; ++admitted) {
            PeerAccounts::Admission admission = accounts.admitConnection(pid);
            if (admission.account == nullptr) break;
            connections.push_back(admission.account);
        }
        return admitted;
    }
    // `count` connections of `pid` go.
    void drop(pid_t pid, size_t count) {
        for (auto it = connections.begin(); it != connections.end() && count > 0;) {
            if ((*it)->pid() != pid) {
                ++it;
                continue;
            }
            (*it)->connectionGone(false);
            it = connections.erase(it);
            --count;
        }
    }
};

TEST(PeerAccounts, EachProcessHasItsShareOfConnectionsLinksAndBodiesAndNewcomersGetIn) {
    PeerAccounts accounts;
    accounts.setDescriptorLimit(1024);
    Held held{accounts, {}};
    EXPECT_EQ(kPerProcess, held.admit(100, kPerProcess + 1));
    EXPECT_EQ(kPerProcess, held.admit(101, kPerProcess));
    EXPECT_EQ(kAll - 2 * kPerProcess, held.admit(102, kAll));

    // All taken: a newcomer gets in, naming the process that holds the most.
    PeerAccounts::Admission newcomer = accounts.admitConnection(103);
    ASSERT_NE(nullptr, newcomer.account);
    ASSERT_NE(nullptr, newcomer.evictFrom);
    EXPECT_NE(103, newcomer.evictFrom->pid());
    held.connections.push_back(newcomer.account);
    // ...and a few more, while those evicted for them still hold their
    // descriptors: a flood cannot take them all.
    EXPECT_EQ(7u, held.admit(103, kPerProcess));
    // Once those went, newcomers get in again.
    held.drop(100, 8);
    EXPECT_EQ(8u, held.admit(103, kPerProcess));

    // Links and large bodies are counted per process.
    const sp<PeerAccount>& account = held.connections.front();
    for (uint32_t i = 0; i < PeerAccounts::kMaxLinksPerProcess; ++i)
        EXPECT_TRUE(account->takeLink());
    EXPECT_FALSE(account->takeLink());

    EXPECT_TRUE(account->takeBody(PeerAccounts::kBodyBudgetPerProcess - 10));
    {
        BodyCharge charge(account, PeerAccounts::kBodyBudgetPerProcess - 10);
        EXPECT_FALSE(account->takeBody(11));
    }
    EXPECT_TRUE(account->takeBody(PeerAccounts::kBodyBudgetPerProcess));
    account->returnBody(PeerAccounts::kBodyBudgetPerProcess);
}

TEST(RefusalLog, AFloodIsToldInOneLineOfEachKindASecondWithItsTotals) {
    using tavrin_test::LogLine;
    tavrin_test::LogCapture log;
    RefusalLog refusals;
    RefusalLog::Counts onePerPass;
    onePerPass.overShare = 1;
    onePerPass.lastRefused = 41;
    onePerPass.evicted = 1;
    onePerPass.lastEvicted = 42;
    const auto start = RefusalLog::Clock::now();
    // A flood paced at one connection a pass: the first pass is told at once,
    // the next 99 within the second only once it is over, summed.
    for (int pass = 0; pass < 100; ++pass) {
        refusals.record(onePerPass, start + pass * std::chrono::milliseconds(5));
    }
    refusals.record(RefusalLog::Counts{}, start + RefusalLog::kPeriod);
    const std::vector<LogLine> expected = {
        {ANDROID_LOG_WARN, "tvbinder", "too many connections: refused 1 (the last from pid 41)"},
        {ANDROID_LOG_WARN, "tvbinder",
         "all connections taken: closed 1 for newcomers (the last of pid 42)"},
        {ANDROID_LOG_WARN, "tvbinder", "too many connections: refused 99 (the last from pid 41)"},
        {ANDROID_LOG_WARN, "tvbinder",
         "all connections taken: closed 99 for newcomers (the last of pid 42)"},
    };
    EXPECT_EQ(expected, log.lines());
}

// Sweeps that give an idle ring's far pages back run beside the sender (they
// take turns on its lock) and the reader (they wait for it to have taken
// everything): frames large and small arrive whole while sweeps go on.
TEST(SharedMemoryPath, SweepsBesideLargeAndSmallFramesLoseNothing) {
    struct CountedListings : Connection::RingSweeper {
        std::atomic<int> listings{0};
        void sweepLater(const wp<Connection>&) override { ++listings; }
    } sweeper;
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds));
    sp<Connection> sender = Connection::adopt(fds[0]);
    sp<Connection> receiver = Connection::adopt(fds[1]);
    // Socket only where shared memory is not offered: then nothing is swept.
    const int region = sender->offerSharedMemory(sweeper);
    if (region >= 0) {
        ASSERT_EQ(NO_ERROR,
                  receiver->acceptSharedMemory(fcntl(region, F_DUPFD_CLOEXEC, 0), sweeper));
    }
    sender->startSharedMemory();
    std::atomic<bool> done{false};
    std::atomic<int> sweeps{0};
    std::thread sweeping([&] {
        while (!done) {
            (void)sender->sweepSharedMemory();
            ++sweeps;
        }
    });
    // Two sweeps after a frame was taken give the ring back, so that the next
    // large frame widens it again, however the threads were scheduled.
    auto letTwoSweepsRun = [&] {
        const int target = sweeps.load() + 2;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (sweeps.load() < target && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
    };
    Bytes body(300 * 1024);
    for (int round = 0; round < 40; ++round) {
        for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<uint8_t>(i * 7 + round);
        OutgoingFrame frame = OutgoingFrame::make(FrameKind::kReply);
        frame.data = body.data();
        frame.header.dataSize = round % 2 == 0 ? 100 : static_cast<uint32_t>(body.size());
        ASSERT_EQ(NO_ERROR, sender->send(frame));
        Frame received;
        ASSERT_EQ(NO_ERROR, receiver->receive(&received, true));
        ASSERT_EQ(frame.header.dataSize, received.header.dataSize);
        ASSERT_EQ(0, memcmp(body.data(), received.data(), received.header.dataSize)) << round;
        letTwoSweepsRun();
    }
    done = true;
    sweeping.join();
    if (region >= 0) {
        EXPECT_LE(20, sweeper.listings.load()) << "each large frame after a trim widens again";
    }
}

// A ring that widened before the process started its pool is given back by
// the pool's first thread, not kept for as long as its connection lives.
TEST(SharedMemoryPath, RingsWidenedBeforeThePoolStartedAreTrimmedOnceItRuns) {
    auto* pool = new ThreadPool;  // pool threads never return: both outlive the test
    auto* trimmer = new RingTrimmer(*pool);
    ASSERT_EQ(NO_ERROR, pool->init());
    ASSERT_EQ(NO_ERROR, trimmer->init());
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds));
    sp<Connection> sender = Connection::adopt(fds[0]);
    sp<Connection> receiver = Connection::adopt(fds[1]);
    const int region = sender->offerSharedMemory(*trimmer);
    if (region < 0) GTEST_SKIP() << "shared memory is off: nothing to trim";
    ScopedFd watched(fcntl(region, F_DUPFD_CLOEXEC, 0));
    ASSERT_EQ(NO_ERROR, receiver->acceptSharedMemory(fcntl(region, F_DUPFD_CLOEXEC, 0), *trimmer));
    sender->startSharedMemory();
    auto residentBlocks = [&] {
        struct stat status {};
        EXPECT_EQ(0, fstat(watched.get(), &status));
        return status.st_blocks;
    };
    const auto narrow = residentBlocks();
    Bytes body(512 * 1024, 7);
    OutgoingFrame frame = OutgoingFrame::make(FrameKind::kReply);
    frame.data = body.data();
    frame.header.dataSize = static_cast<uint32_t>(body.size());
    ASSERT_EQ(NO_ERROR, sender->send(frame));
    Frame received;
    ASSERT_EQ(NO_ERROR, receiver->receive(&received, true));
    const auto wide = residentBlocks();
    ASSERT_GT(wide, narrow + 512);  // 512-byte blocks: at least 256 KiB more

    // Meanwhile connections that closed do not stay listed: each listing
    // holds a weak reference.
    int other[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, other));
    close(other[1]);
    wp<Connection> closed = Connection::adopt(other[0]);
    for (int i = 0; i < 1000; ++i) trimmer->sweepLater(closed);
    EXPECT_GT(200, closed.get_refs()->getWeakCount());

    pool->start();
    EXPECT_TRUE(tvproc::waitUntil([&] { return residentBlocks() < wide / 2; }));
}

// What another process can make this one log again and again is written once
// a second from each place, with the count of those left out.
TEST(LogLimit, AFloodFromOnePlaceIsOneLineASecondWithTheCountLeftOut) {
    tavrin_test::LogCapture log;
    for (int pid = 0; pid < 100; ++pid) TV_ALOGW_LIMITED("refused pid %d", pid);
    // None when the test is repeated within the second.
    ASSERT_GE(1u, log.lines().size());
    if (!log.lines().empty()) {
        EXPECT_EQ("refused pid 0", log.lines()[0].message);
    }

    LogLimit limit;
    size_t omitted = 7;
    EXPECT_TRUE(limit.admit(0, &omitted));
    EXPECT_EQ(0u, omitted);
    for (int ms = 1; ms < LogLimit::kPeriodMs; ms += 10) EXPECT_FALSE(limit.admit(ms, &omitted));
    EXPECT_TRUE(limit.admit(LogLimit::kPeriodMs, &omitted));
    EXPECT_EQ(100u, omitted);
}

// Stands for a pool thread lingering on a connection: counts the pool's stops,
// and those that came while no pool thread waited in epoll.
class CountedLinger : public ThreadPool::Lingerer {
  public:
    explicit CountedLinger(ThreadPool& pool) : mPool(pool) {}
    void stopLingering() override {
        std::lock_guard<std::mutex> guard(mLock);
        ++mStops;
        if (!mPool.hasIdleThreads()) ++mStopsWithNoThreadWaiting;
    }
    int stops() {
        std::lock_guard<std::mutex> guard(mLock);
        return mStops;
    }
    int stopsWithNoThreadWaiting() {
        std::lock_guard<std::mutex> guard(mLock);
        return mStopsWithNoThreadWaiting;
    }

  private:
    ThreadPool& mPool;
    std::mutex mLock;
    int mStops = 0;
    int mStopsWithNoThreadWaiting = 0;
};

TEST(ThreadPool, LingersEndAfterAPeriodOrAtOnceWhenTheLastFreeThreadTakesWorkDelayedWorkHoldsNone) {
    // Pool threads never return: the pool outlives the test.
    auto* pool = new ThreadPool;
    ASSERT_EQ(NO_ERROR, pool->init());
    CountedLinger unticked(*pool);
    EXPECT_FALSE(pool->beginLinger(&unticked));  // no thread waits in epoll to tick
    pool->setMaxThreads(0);
    pool->start();
    ASSERT_TRUE(tvproc::waitUntil([&] { return pool->hasIdleThreads(); }));

    // Stopped once it lasted a period, and once only.
    CountedLinger ticked(*pool);
    const auto begun = std::chrono::steady_clock::now();
    ASSERT_TRUE(pool->beginLinger(&ticked));
    ASSERT_TRUE(tvproc::waitUntil([&] { return ticked.stops() > 0; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begun,
              std::chrono::milliseconds(ThreadPool::kLingerTickMs));
    pool->endLinger(&ticked);
    EXPECT_EQ(1, ticked.stops());

    // The only thread, which cannot be replaced, takes work: nobody is left
    // to tick, and the linger ends at once.
    CountedLinger held(*pool);
    ASSERT_TRUE(pool->beginLinger(&held));
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    pool->post(new WorkTask([released] { released.wait(); }));
    EXPECT_TRUE(tvproc::waitUntil([&] { return held.stopsWithNoThreadWaiting() > 0; }));
    pool->endLinger(&held);
    release.set_value();
    ASSERT_TRUE(tvproc::waitUntil([&] { return pool->hasIdleThreads(); }));

    // Delayed work waits on the pool's timer, not on a pool thread: the only
    // thread runs what is posted meanwhile, and delayed work in deadline order.
    std::mutex lock;
    std::vector<std::string> ran;
    auto record = [&](std::string what) {
        std::lock_guard<std::mutex> guard(lock);
        ran.push_back(std::move(what));
    };
    const auto posted = std::chrono::steady_clock::now();
    std::atomic<bool> lateEnough{false};
    pool->postAfter(500, [&] {
        lateEnough = std::chrono::steady_clock::now() - posted >= std::chrono::milliseconds(500);
        record("later");
    });
    pool->postAfter(50, [&] { record("sooner"); });
    pool->post(new WorkTask([&] { record("now"); }));
    ASSERT_TRUE(tvproc::waitUntil([&] {
        std::lock_guard<std::mutex> guard(lock);
        return ran.size() == 3;
    }));
    EXPECT_EQ((std::vector<std::string>{"now", "sooner", "later"}), ran);
    EXPECT_TRUE(lateEnough);
}

#if TVBINDER_CHECK_LOCKS
TEST(TransportLocks, AreTakenInRankOrderOnlyAndNeverHeldIntoApplicationCode) {
    Mutex peer(LockRank::kPeer);
    Mutex table(LockRank::kPeerTable);
    {
        LockGuard outer(peer);
        LockGuard inner(table);
        EXPECT_EQ(2u, HeldLocks::count());
    }
    EXPECT_EQ(0u, HeldLocks::count());
    HeldLocks::expectNone("BBinder::transact");

    EXPECT_DEATH(
        {
            LockGuard inner(table);
            LockGuard outer(peer);
        },
        "the Peer lock taken while holding the PeerTable lock");
    EXPECT_DEATH(
        {
            Mutex exports(LockRank::kExports);
            LockGuard held(exports);
            HeldLocks::expectNone("binderDied");
        },
        "binderDied with the ExportTable lock held");
}
#endif

}  // namespace
