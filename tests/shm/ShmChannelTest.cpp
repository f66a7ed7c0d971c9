// The shared-memory channel in one process: both ends over one region, and a
// "peer" view of the region for the cases where the other side lies.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <linux/futex.h>
#include <poll.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Futex.h"
#include "ShmChannel.h"

namespace android {
namespace tvbinder {
namespace shm {
namespace {

using namespace std::chrono_literals;
using Clock = ShmChannel::Clock;

constexpr size_t kRing = 4096;
// Generous: only a lost wake-up or a hang comes near it.
constexpr auto kPatience = 20s;

Clock::time_point later() {
    return Clock::now() + kPatience;
}

std::string pattern(size_t length, unsigned seed) {
    std::string text(length, '\0');
    for (size_t i = 0; i < length; ++i) text[i] = static_cast<char>('a' + (i * 7 + seed) % 26);
    return text;
}

struct Pair {
    std::unique_ptr<ShmChannel> creator;
    std::unique_ptr<ShmChannel> adopter;
};

Pair makePair(ShmChannelOptions options = {}, size_t ringBytes = kRing) {
    options.ringBytes = ringBytes;
    Pair pair;
    EXPECT_EQ(NO_ERROR, ShmChannel::create(options, &pair.creator));
    EXPECT_EQ(NO_ERROR, ShmChannel::adopt(fcntl(pair.creator->regionFd(), F_DUPFD_CLOEXEC, 0),
                                          options, &pair.adopter));
    return pair;
}

status_t sendText(ShmChannel* channel, const std::string& text,
                  Clock::time_point deadline = later()) {
    iovec parts[2] = {
        {const_cast<char*>(text.data()), text.size() / 3},
        {const_cast<char*>(text.data()) + text.size() / 3, text.size() - text.size() / 3}};
    return channel->send(parts, 2, deadline);
}

std::string receiveText(ShmChannel* channel, status_t* status = nullptr) {
    BufferSink sink;
    size_t length = 0;
    const status_t result = channel->receive(&sink, &length, later());
    if (status != nullptr) *status = result;
    if (result != NO_ERROR) return "<" + std::to_string(result) + ">";
    return std::string(reinterpret_cast<const char*>(sink.data()), length);
}

// A second thread that is always joined: when the test fails early, shutting
// the pair down releases it from any wait.
class Background {
  public:
    Background(Pair* pair, std::function<void()> body) : mPair(pair), mThread(std::move(body)) {}
    ~Background() {
        mPair->creator->shutdown();
        mPair->adopter->shutdown();
        mThread.join();
    }

  private:
    Pair* mPair;
    std::thread mThread;
};

// The adopter's side of a ping-pong: sends back what it receives until the
// pair is shut down.
void echoUntilShutDown(Pair* pair) {
    for (;;) {
        status_t status = NO_ERROR;
        const std::string text = receiveText(pair->adopter.get(), &status);
        if (status != NO_ERROR || sendText(pair->adopter.get(), text) != NO_ERROR) return;
    }
}

// The region as the other process sees it: free to write anything anywhere.
class PeerView {
  public:
    explicit PeerView(int fd, size_t ringBytes = kRing)
        : mRing(ringBytes), mBytes(regionBytes(ringBytes)) {
        mBase =
            static_cast<uint8_t*>(mmap(nullptr, mBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        EXPECT_NE(MAP_FAILED, mBase);
    }
    ~PeerView() { munmap(mBase, mBytes); }
    DirectionControl& control(int direction) {
        return *reinterpret_cast<DirectionControl*>(mBase + kControlOffset +
                                                    direction * sizeof(DirectionControl));
    }
    uint8_t* data(int direction) { return mBase + kDataOffset + direction * mRing; }
    void putRecord(int direction, uint64_t at, uint32_t payload, uint32_t remaining) {
        const RecordHeader header{payload, remaining};
        memcpy(data(direction) + at % mRing, &header, sizeof header);
    }
    void publish(int direction, uint64_t tail) { control(direction).tail.store(tail); }

  private:
    size_t mRing;
    size_t mBytes;
    uint8_t* mBase;
};

TEST(ShmChannelTest, MessagesArriveWholeAndInOrderAcrossWrapsInBothDirections) {
    Pair pair = makePair();
    // Lengths that are not multiples of the alignment walk the wrap point
    // through every record position, the header and the payload.
    for (unsigned i = 0; i < 600; ++i) {
        const std::string text = pattern(1 + (i * 37) % 1500, i);
        ShmChannel* from = i % 2 ? pair.creator.get() : pair.adopter.get();
        ShmChannel* to = i % 2 ? pair.adopter.get() : pair.creator.get();
        ASSERT_EQ(NO_ERROR, sendText(from, text));
        ASSERT_EQ(text, receiveText(to)) << "message " << i;
    }
    // The largest message one record holds, then messages that stream
    // through the ring in records while the reader copies them out.
    for (size_t length : {kRing - sizeof(RecordHeader), kRing, size_t{1} << 20}) {
        const std::string text = pattern(length, 3);
        std::thread sender([&] { EXPECT_EQ(NO_ERROR, sendText(pair.creator.get(), text)); });
        EXPECT_EQ(text, receiveText(pair.adopter.get())) << length;
        sender.join();  // the receive above returned: the sender is not waiting for room
    }
}

// After a large message, small ones go back to the front of the ring (past a
// skip record), and sweeps give the pages beyond the front back once no send
// reached them since the previous sweep and the reader took everything.
TEST(ShmChannelTest, SmallMessagesKeepToTheFrontOfALargeRingAndSweepsGiveTheRestBack) {
    constexpr size_t kLarge = 256 * 1024;
    Pair pair = makePair({}, kLarge);
    PeerView peer(pair.creator->regionFd(), kLarge);
    const std::string big = pattern(200 * 1024, 5);
    ASSERT_EQ(NO_ERROR, sendText(pair.creator.get(), big));
    EXPECT_TRUE(pair.creator->takeWidening());
    EXPECT_FALSE(pair.creator->takeWidening());
    EXPECT_TRUE(pair.creator->sweep());  // just sent
    EXPECT_TRUE(pair.creator->sweep());  // not read yet
    ASSERT_EQ(big, receiveText(pair.adopter.get()));
    EXPECT_FALSE(pair.creator->sweep());
    EXPECT_EQ(0, peer.data(0)[100 * 1024]);

    for (unsigned i = 0; i < 3; ++i) {
        ASSERT_EQ(NO_ERROR, sendText(pair.creator.get(), pattern(100, i)));
        ASSERT_EQ(pattern(100, i), receiveText(pair.adopter.get()));
    }
    EXPECT_EQ(kLarge + 3 * (8 + 104), peer.control(0).tail.load());
    EXPECT_TRUE(pair.creator->takeWidening());  // the skip record's page
    EXPECT_TRUE(pair.creator->sweep());
    EXPECT_FALSE(pair.creator->sweep());
    EXPECT_EQ(NO_ERROR, sendText(pair.creator.get(), big));
    EXPECT_EQ(big, receiveText(pair.adopter.get()));
}

TEST(ShmChannelTest, AFullRingHoldsTheSenderBackWithoutLosingAnything) {
    Pair pair = makePair();
    const std::string text = pattern(1000, 1);
    int sent = 0;
    while (sendText(pair.creator.get(), text, Clock::now()) == NO_ERROR) ++sent;
    EXPECT_EQ(4, sent);  // records of 1008 bytes in 4096
    // A refused message left nothing behind; the next one waits for room.
    {
        Background sender(
            &pair, [&] { EXPECT_EQ(NO_ERROR, sendText(pair.creator.get(), pattern(900, 2))); });
        for (int i = 0; i < sent; ++i) EXPECT_EQ(text, receiveText(pair.adopter.get()));
        EXPECT_EQ(pattern(900, 2), receiveText(pair.adopter.get()));
    }
    EXPECT_FALSE(pair.creator->broken());
}

// For a peer on another CPU a large message goes in records the peer can copy
// out one by one. Their headers take room too: a send that has room for the
// message in one record but not for its records waits, and writes nothing,
// rather than run over what the reader has not read yet.
TEST(ShmChannelTest, ALargeMessageForAPeerOnAnotherCpuGoesInRecordsWithRoomForAll) {
    if (!threadMayRunInParallel()) GTEST_SKIP() << "needs two CPUs";
    constexpr size_t kRing128 = 128 * 1024;
    constexpr size_t kRecord = 16 * 1024;
    Pair pair = makePair({}, kRing128);
    PeerView peer(pair.creator->regionFd(), kRing128);
    peer.control(0).consumerCpu.store(UINT32_MAX);  // the reader last woke up elsewhere
    const std::string head = pattern(16, 1);
    const std::string body = pattern(40 * 1024, 2);
    const iovec headPart{const_cast<char*>(head.data()), head.size()};
    const iovec bodyPart{const_cast<char*>(body.data()), body.size()};
    const size_t recordsBytes = (8 + 16) + 3 * 8 + body.size();
    const std::string unread = pattern(kRing128 - (recordsBytes - 8) - 8, 3);
    ASSERT_EQ(NO_ERROR, sendText(pair.creator.get(), unread));
    EXPECT_EQ(TIMED_OUT, pair.creator->sendHeaded(headPart, &bodyPart, 1, Clock::now()));
    EXPECT_EQ(8 + unread.size(), peer.control(0).tail.load());
    EXPECT_FALSE(pair.creator->broken());
    EXPECT_EQ(unread, receiveText(pair.adopter.get()));

    ASSERT_EQ(NO_ERROR, pair.creator->sendHeaded(headPart, &bodyPart, 1, later()));
    RecordHeader first{};
    memcpy(&first, peer.data(0) + 8 + 16, sizeof first);  // back at the front, past the head
    EXPECT_EQ(kRecord, first.payload);
    EXPECT_EQ(body.size(), first.remaining);
    EXPECT_EQ(head, receiveText(pair.adopter.get()));
    EXPECT_EQ(body, receiveText(pair.adopter.get()));

    // Longer than the ring: it streams, in such records too.
    const std::string streamed = pattern(300 * 1024, 4);
    const iovec streamedPart{const_cast<char*>(streamed.data()), streamed.size()};
    std::thread sender([&] {
        EXPECT_EQ(NO_ERROR, pair.creator->sendHeaded(headPart, &streamedPart, 1, later()));
    });
    EXPECT_EQ(head, receiveText(pair.adopter.get()));
    EXPECT_EQ(streamed, receiveText(pair.adopter.get()));
    sender.join();
}

// The sink is asked for a buffer after the header was copied and checked and
// before the payload is copied: it rewrites the shared header meanwhile.
class ScribblingSink : public BufferSink {
  public:
    explicit ScribblingSink(PeerView* peer) : mPeer(peer) {}
    uint8_t* reserve(size_t length) override {
        mPeer->putRecord(0, 0, 4000, 4000);
        return BufferSink::reserve(length);
    }

  private:
    PeerView* mPeer;
};

// Each lie of a producer, written straight into the region, is met with
// kPeerCorrupted, and the channel stays broken even once the ring looks sane;
// so is each lie of a consumer about its head. A header rewritten after it
// was read changes nothing.
TEST(ShmChannelTest, ALyingWriterOrReaderBreaksOnlyItsChannel) {
    struct Lie {
        const char* what;
        std::vector<RecordHeader> records;  // laid out one after the other
        uint64_t tail;
    };
    const std::vector<Lie> lies = {
        {"tail beyond a whole ring", {}, kRing + 8},
        {"tail short of a header", {}, 4},
        {"record longer than what was published", {{100, 100}}, 8 + 64},
        {"message beyond the reader's maximum", {{8, 5000}}, 16},
        {"record longer than its message", {{16, 8}}, 24},
        {"empty message", {{0, 0}}, 8},
        {"continuation of another message", {{8, 100}, {8, 50}}, 32},
        {"tail behind the head", {{8, 8}}, 16},
        {"skip short of the wrap", {{16, kSkipToWrap}}, 24},
        {"skip beyond what was published", {{kRing - 8, kSkipToWrap}}, 8},
        {"skip inside a message", {{8, 100}, {kRing - 24, kSkipToWrap}}, kRing},
    };
    ShmChannelOptions options;
    options.maxMessage = 1000;
    for (const Lie& lie : lies) {
        SCOPED_TRACE(lie.what);
        Pair pair = makePair(options);
        PeerView peer(pair.creator->regionFd());
        uint64_t at = 0;
        for (const RecordHeader& record : lie.records) {
            peer.putRecord(0, at, record.payload, record.remaining);
            at += sizeof record + alignRecord(record.payload);
        }
        peer.publish(0, lie.tail);
        BufferSink sink;
        size_t length = 0;
        status_t status = pair.adopter->tryReceive(&sink, &length);
        if (status == NO_ERROR) {  // the valid record before the lie
            peer.publish(0, 8);
            status = pair.adopter->tryReceive(&sink, &length);
        }
        EXPECT_EQ(kPeerCorrupted, status);
        peer.putRecord(0, 0, 8, 8);
        peer.publish(0, 16);
        EXPECT_EQ(kPeerCorrupted, pair.adopter->tryReceive(&sink, &length));
        EXPECT_TRUE(pair.adopter->broken());
    }
    for (uint64_t head : {uint64_t{4096}, uint64_t{4}, ~uint64_t{0}}) {
        SCOPED_TRACE(head);
        Pair pair = makePair();
        PeerView peer(pair.creator->regionFd());
        ASSERT_EQ(NO_ERROR, sendText(pair.creator.get(), pattern(100, 0)));
        peer.control(0).head.store(head);
        EXPECT_EQ(kPeerCorrupted, sendText(pair.creator.get(), pattern(100, 0)));
        EXPECT_TRUE(pair.creator->broken());
    }

    Pair pair = makePair();
    PeerView peer(pair.creator->regionFd());
    ASSERT_EQ(NO_ERROR, sendText(pair.creator.get(), pattern(100, 1)));
    ASSERT_EQ(NO_ERROR, sendText(pair.creator.get(), pattern(50, 2)));
    ScribblingSink sink(&peer);
    size_t length = 0;
    ASSERT_EQ(NO_ERROR, pair.adopter->tryReceive(&sink, &length));
    EXPECT_EQ(pattern(100, 1), std::string(reinterpret_cast<const char*>(sink.data()), length));
    EXPECT_EQ(pattern(50, 2), receiveText(pair.adopter.get()));
}

int regionFile(size_t size, RegionHeader header, int seals) {
    const int fd = memfd_create("test-region", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    EXPECT_EQ(0, ftruncate(fd, static_cast<off_t>(size)));
    EXPECT_EQ(ssize_t(sizeof header), pwrite(fd, &header, sizeof header, 0));
    if (seals != 0) {
        EXPECT_EQ(0, fcntl(fd, F_ADD_SEALS, seals));
    }
    return fd;
}

TEST(ShmChannelTest, OnlyASealedRegionOfTheSizeItsHeaderImpliesIsMapped) {
    const int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
    const RegionHeader good{kRegionMagic, kRegionVersion, kRing, 0};
    const size_t size = regionBytes(kRing);
    struct Case {
        const char* what;
        int fd;
    };
    const Case refused[] = {
        {"not sealed", regionFile(size, good, 0)},
        {"may still shrink", regionFile(size, good, F_SEAL_GROW | F_SEAL_SEAL)},
        {"larger than its header says", regionFile(size + 4096, good, kSeals)},
        {"smaller than its header says", regionFile(size - 4096, good, kSeals)},
        {"foreign header", regionFile(size, {1, kRegionVersion, kRing, 0}, kSeals)},
        {"ring not a power of two",
         regionFile(regionBytes(6144), {kRegionMagic, 1, 6144, 0}, kSeals)},
        {"not a memfd", open("/dev/zero", O_RDWR | O_CLOEXEC)},
    };
    for (const Case& one : refused) {
        std::unique_ptr<ShmChannel> channel;
        EXPECT_EQ(BAD_VALUE, ShmChannel::adopt(one.fd, {}, &channel)) << one.what;
    }
    // What a well-behaved creator sends is accepted, and stays its size.
    Pair pair = makePair();
    ASSERT_NE(nullptr, pair.adopter);
    EXPECT_NE(0, ftruncate(pair.adopter->regionFd(), 0));
    EXPECT_NE(0, ftruncate(pair.creator->regionFd(), static_cast<off_t>(size) * 2));
}

// Keeps the calling thread, and the threads it starts meanwhile, on the CPU
// it runs on: there a waiting end yields to an awake peer instead of sleeping.
class OnOneCpu {
  public:
    OnOneCpu() {
        sched_getaffinity(0, sizeof mSaved, &mSaved);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(sched_getcpu(), &one);
        EXPECT_EQ(0, sched_setaffinity(0, sizeof one, &one));
    }
    ~OnOneCpu() { sched_setaffinity(0, sizeof mSaved, &mSaved); }
    OnOneCpu(const OnOneCpu&) = delete;
    OnOneCpu& operator=(const OnOneCpu&) = delete;

  private:
    cpu_set_t mSaved;
};

// Two threads hammer the futex paths: ping-pong, then a stream of one-ways
// through a small ring (the sender waits for room as often as the reader
// waits for data), without spinning, spinning, and both on one CPU. The
// sleep slice is an hour: a lost wake-up would show as TIMED_OUT.
TEST(ShmChannelTest, WakeUpsAreNeverLost) {
    struct Placement {
        std::chrono::nanoseconds spin;
        bool oneCpu;
    };
    for (const Placement placement : {Placement{std::chrono::nanoseconds(0), false},
                                      Placement{std::chrono::nanoseconds(5000), false},
                                      Placement{std::chrono::nanoseconds(5000), true}}) {
        SCOPED_TRACE(std::to_string(placement.spin.count()) + (placement.oneCpu ? " one CPU" : ""));
        std::optional<OnOneCpu> pinned;
        if (placement.oneCpu) pinned.emplace();
        ShmChannelOptions options;
        options.spin = placement.spin;
        options.sleepSlice = std::chrono::hours(1);
        Pair pair = makePair(options);
        constexpr int kRoundTrips = 5000;
        {
            Background echo(&pair, [&] { echoUntilShutDown(&pair); });
            for (int i = 0; i < kRoundTrips; ++i) {
                ASSERT_EQ(NO_ERROR, sendText(pair.creator.get(), pattern(16, i)));
                ASSERT_EQ(pattern(16, i), receiveText(pair.creator.get()));
            }
        }
        pair = makePair(options);
        constexpr int kOneWays = 20000;
        Background sender(&pair, [&] {
            for (int i = 0; i < kOneWays; ++i) {
                if (sendText(pair.creator.get(), pattern(1 + i % 700, i)) != NO_ERROR) return;
            }
        });
        for (int i = 0; i < kOneWays; ++i) {
            ASSERT_EQ(pattern(1 + i % 700, i), receiveText(pair.adopter.get())) << i;
        }
    }
}

// The scheduler charges a yield against the yielder's share of its CPU: a
// pair that kept yielding beside a busy task would get a round trip per slice
// of that task (about 1.5 ms here) instead of its share of the CPU.
TEST(ShmChannelTest, APairThatSharesItsCpuWithABusyTaskKeepsItsShare) {
    OnOneCpu pinned;
    Pair pair = makePair();
    Background echo(&pair, [&] { echoUntilShutDown(&pair); });
    constexpr int kRoundTrips = 3000;
    auto pingPong = [&] {
        const Clock::time_point start = Clock::now();
        for (int i = 0; i < kRoundTrips; ++i) {
            if (sendText(pair.creator.get(), pattern(16, i)) != NO_ERROR ||
                receiveText(pair.creator.get()) != pattern(16, i)) {
                ADD_FAILURE() << "round trip " << i;
                break;
            }
        }
        return Clock::now() - start;
    };
    const Clock::duration alone = pingPong();
    std::atomic<bool> stop{false};
    std::thread busy([&] {
        while (!stop.load(std::memory_order_relaxed)) spinPause();
    });
    const Clock::duration beside = pingPong();
    stop = true;
    busy.join();
    // Its share is half the CPU: about twice as long, not hundreds of times.
    using std::chrono::milliseconds;
    EXPECT_LT(std::chrono::duration_cast<milliseconds>(beside).count(),
              std::max<int64_t>(std::chrono::duration_cast<milliseconds>(alone * 20).count(), 500));
}

// A service yielding after each answer to a client that went on to other
// work pays a context switch a call; a ping-pong's yields mostly pay.
TEST(YieldPayoff, YieldsThatFindNothingPauseForLongerEachTimeUntilOneFindsTheMessage) {
    YieldPayoff payoff;
    auto waitsWithoutYield = [&] {
        int skipped = 0;
        while (!payoff.mayYield() && skipped < 1000) ++skipped;
        return skipped;
    };
    // The pause after each miss in a row; one that paid starts the count again.
    const std::vector<int> pauses = {0, 0, 0, 1, 2, 4, 8, 16, 32, 64, 64};
    EXPECT_EQ(0, waitsWithoutYield());
    for (int round = 0; round < 2; ++round) {
        for (size_t miss = 0; miss < (round == 0 ? pauses.size() : 4); ++miss) {
            payoff.record(false);
            EXPECT_EQ(pauses[miss], waitsWithoutYield()) << "round " << round << " miss " << miss;
        }
        payoff.record(true);
    }
}

TEST(ShmChannelTest, APollingReaderIsWokenThroughItsPollWaker) {
    Pair pair = makePair();
    const int event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    pair.creator->setPollWaker([event] { eventfd_write(event, 1); });
    {
        constexpr int kMessages = 20000;
        Background sender(&pair, [&] {
            for (int i = 0; i < kMessages; ++i) {
                if (sendText(pair.creator.get(), pattern(1 + i % 300, i)) != NO_ERROR) return;
            }
        });
        BufferSink sink;
        for (int received = 0; received < kMessages;) {
            size_t length = 0;
            const status_t status = pair.adopter->tryReceive(&sink, &length);
            if (status == NO_ERROR) {
                ASSERT_EQ(pattern(1 + received % 300, received),
                          std::string(reinterpret_cast<const char*>(sink.data()), length));
                ++received;
                continue;
            }
            ASSERT_EQ(WOULD_BLOCK, status);
            if (pair.adopter->armPolling()) continue;
            pollfd ready{event, POLLIN, 0};
            ASSERT_EQ(1, poll(&ready, 1, std::chrono::milliseconds(kPatience).count()));
            eventfd_t ignored;
            eventfd_read(event, &ignored);
        }
    }
    close(event);
}

TEST(ShmChannelTest, ShutdownWakesASleepingReceiverAndABlockedSender) {
    Pair pair = makePair();
    while (sendText(pair.creator.get(), pattern(1000, 0), Clock::now()) == NO_ERROR) {
    }
    status_t received = NO_ERROR;
    status_t sent = NO_ERROR;
    std::thread receiver([&] { receiveText(pair.creator.get(), &received); });
    std::thread sender([&] { sent = sendText(pair.creator.get(), pattern(1000, 0)); });
    std::this_thread::sleep_for(50ms);  // let both fall asleep; the outcome is the same if not
    const auto start = Clock::now();
    pair.creator->shutdown();
    receiver.join();
    sender.join();
    EXPECT_LT(Clock::now() - start, 5s);
    EXPECT_EQ(DEAD_OBJECT, received);
    EXPECT_EQ(DEAD_OBJECT, sent);
    // The peer's sends fail too: nothing would read them.
    EXPECT_EQ(DEAD_OBJECT, sendText(pair.adopter.get(), pattern(10, 0)));
}

// A peer may move whoever sleeps on our futex word onto a futex of its own,
// which we cannot wake: a stop must reach the sleeper anyway.
TEST(ShmChannelTest, AStoppedWaitEndsEvenWhenThePeerMovedItsSleeperAway) {
    Pair pair = makePair();
    PeerView peer(pair.creator->regionFd());
    SleepStop stop;
    std::atomic<status_t> waited{NO_ERROR};
    std::atomic<bool> done{false};
    std::thread sleeper([&] {
        waited = pair.creator->waitReadable(stop);
        done = true;
    });
    std::atomic<uint32_t>& word = peer.control(1).consumer;
    std::atomic<uint32_t> elsewhere{0};
    long moved = 0;
    for (auto end = Clock::now() + kPatience; moved != 1 && Clock::now() < end;) {
        moved = syscall(SYS_futex, &word, FUTEX_CMP_REQUEUE, 0, 1L, &elsewhere, kSleeping);
        if (moved != 1) std::this_thread::sleep_for(1ms);  // not asleep yet
    }
    EXPECT_EQ(1, moved);
    stop.stop();
    for (auto end = Clock::now() + kPatience; !done && Clock::now() < end;) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_TRUE(done);
    EXPECT_EQ(TIMED_OUT, waited);
    syscall(SYS_futex, &elsewhere, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);  // when it failed
    sleeper.join();
}

}  // namespace
}  // namespace shm
}  // namespace tvbinder
}  // namespace android
