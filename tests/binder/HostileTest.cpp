#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stddef.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "Connection.h"
#include "FlatObject.h"
#include "Frame.h"
#include "Peer.h"
#include "Runtime.h"
#include "ServedChild.h"
#include "SocketDirectory.h"
#include "TestService.h"
#include "TestSupport.h"

using android::IBinder;
using android::tvbinder::endpointAddress;
using android::tvbinder::FlatObject;
using android::tvbinder::FrameHeader;
using android::tvbinder::FrameKind;
using android::tvbinder::kFrameMagic;
using android::tvbinder::kHelloLink;
using android::tvbinder::kLayoutBodyInMemfd;
using android::tvbinder::Runtime;
using tvtest::ServedChild;
using tvtest::TestService;

namespace {

using Bytes = std::vector<uint8_t>;

// A socket to a process's endpoint that speaks the wire protocol by hand.
class RawConnection {
  public:
    explicit RawConnection(uint64_t endpoint) {
        mFd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un address;
        socklen_t length;
        connected =
            android::tvbinder::socketAddress(endpointAddress(endpoint), &address, &length) &&
            connect(mFd, reinterpret_cast<sockaddr*>(&address), length) == 0;
    }
    ~RawConnection() { close(mFd); }

    bool connected = false;

    void send(const void* bytes, size_t size, const std::vector<int>& fds = {}) {
        iovec part{const_cast<void*>(bytes), size};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 8)];
        if (!fds.empty()) {
            message.msg_control = control;
            message.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
            cmsghdr* cmsg = CMSG_FIRSTHDR(&message);
            cmsg->cmsg_level = SOL_SOCKET;
            cmsg->cmsg_type = SCM_RIGHTS;
            cmsg->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
            memcpy(CMSG_DATA(cmsg), fds.data(), sizeof(int) * fds.size());
        }
        sendmsg(mFd, &message, MSG_NOSIGNAL);
    }
    void sendFrame(FrameHeader header, const Bytes& body = {}, const std::vector<int>& fds = {}) {
        Bytes bytes(sizeof(header));
        memcpy(bytes.data(), &header, sizeof(header));
        bytes.insert(bytes.end(), body.begin(), body.end());
        send(bytes.data(), bytes.size(), fds);
    }
    void hello(uint64_t endpoint) {
        FrameHeader header = makeHeader(FrameKind::kHello);
        header.argument = endpoint;
        sendFrame(header);
    }
    // True when the peer closed the connection (within a generous bound).
    bool closedByPeer() {
        FrameHeader ignored;
        return receive(&ignored) == 0;
    }
    // The size of the next frame (its header in *header), 0 at end, -1 on timeout.
    ssize_t receive(FrameHeader* header) {
        pollfd waiter{mFd, POLLIN, 0};
        if (poll(&waiter, 1, 20000) <= 0) return -1;
        uint8_t buffer[70000];
        ssize_t n = recv(mFd, buffer, sizeof(buffer), 0);
        if (n >= static_cast<ssize_t>(sizeof(FrameHeader))) memcpy(header, buffer, sizeof(*header));
        return n;
    }

    static FrameHeader makeHeader(FrameKind kind) {
        FrameHeader header{};
        header.magic = kFrameMagic;
        header.kind = static_cast<uint32_t>(kind);
        return header;
    }

  private:
    int mFd = -1;
};

uint64_t endpointOf(const android::sp<android::IBinder>& binder) {
    return binder->remoteBinder()->owner()->endpoint();
}

uint64_t ownEndpoint() {
    return Runtime::current()->endpoint();
}

FrameHeader transactionTo(const android::sp<android::IBinder>& binder, uint32_t code) {
    FrameHeader header = RawConnection::makeHeader(FrameKind::kTransaction);
    header.code = code;
    header.tokenHi = binder->remoteBinder()->tokenHi();
    header.tokenLo = binder->remoteBinder()->tokenLo();
    return header;
}

// Data holding one object record at offset 0, then its offsets table.
Bytes bodyWithRecord(const FlatObject& record, uint32_t offset = 0,
                     size_t dataSize = sizeof(FlatObject)) {
    Bytes body(dataSize + sizeof(uint32_t));
    if (offset + sizeof(record) <= dataSize) memcpy(body.data() + offset, &record, sizeof(record));
    memcpy(body.data() + dataSize, &offset, sizeof(offset));
    return body;
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

TEST_F(HostilePeers, ConnectionsThatDoNotIntroduceThemselvesProperlyAreClosed) {
    {
        RawConnection raw(endpoint);
        ASSERT_TRUE(raw.connected);
        raw.send("garbage!", 8);
        EXPECT_TRUE(raw.closedByPeer());
    }
    {
        RawConnection raw(endpoint);
        raw.hello(0x1234567890abcdefULL);  // nobody listens there
        EXPECT_TRUE(raw.closedByPeer());
    }
    {
        ServedChild other;
        ASSERT_TRUE(other.ready());
        RawConnection raw(endpoint);
        raw.hello(endpointOf(other.binder()));  // a live process that is not us
        EXPECT_TRUE(raw.closedByPeer());
    }
    {
        RawConnection raw(endpoint);
        FrameHeader header = transactionTo(child.binder(), TestService::ECHO);
        raw.sendFrame(header);  // a transaction before the hello
        EXPECT_TRUE(raw.closedByPeer());
    }
    expectStillServing();
}

TEST_F(HostilePeers, MalformedFramesCloseTheConnection) {
    FrameHeader valid = transactionTo(child.binder(), IBinder::PING_TRANSACTION);
    ASSERT_EQ(0, replyStatusTo(valid));

    {
        auto raw = introduced();
        raw->send("short", 5);
        EXPECT_TRUE(raw->closedByPeer());
    }
    auto with = [&](const std::function<void(FrameHeader&)>& change) {
        FrameHeader header = valid;
        change(header);
        return header;
    };
    EXPECT_TRUE(hangsUpOn(with([](FrameHeader& h) { h.magic = 0xdeadbeef; })));
    EXPECT_TRUE(hangsUpOn(with([](FrameHeader& h) { h.kind = 99; })));
    EXPECT_TRUE(hangsUpOn(with([](FrameHeader& h) { h.dataSize = 100; }), Bytes(50)));
    const FrameHeader tooManyObjects = with([](FrameHeader& h) {
        h.dataSize = 64;
        h.objectCount = 1000;
    });
    EXPECT_TRUE(hangsUpOn(tooManyObjects, Bytes(64 + 4000)));
    // Larger than a message may be.
    EXPECT_TRUE(hangsUpOn(with([](FrameHeader& h) { h.dataSize = 68000; }), Bytes(68000)));

    const FrameHeader oneObject = with([](FrameHeader& h) {
        h.dataSize = 64;
        h.objectCount = 1;
    });
    FlatObject fd{};
    fd.type = FlatObject::kTypeFd;
    EXPECT_TRUE(hangsUpOn(oneObject, bodyWithRecord(fd, 40, 64)));  // past the end
    EXPECT_TRUE(hangsUpOn(oneObject, bodyWithRecord(fd, 2, 64)));   // unaligned
    EXPECT_TRUE(hangsUpOn(oneObject, bodyWithRecord(fd, 0, 64)));   // no descriptor sent
    FlatObject unknownType{};
    unknownType.type = 0x12345678;
    EXPECT_TRUE(hangsUpOn(oneObject, bodyWithRecord(unknownType, 0, 64)));

    int pipeFds[2];
    ASSERT_EQ(0, pipe2(pipeFds, O_CLOEXEC));
    EXPECT_TRUE(hangsUpOn(valid, {}, {pipeFds[0]}));  // a descriptor with no record
    close(pipeFds[0]);
    close(pipeFds[1]);

    EXPECT_TRUE(hangsUpOn(RawConnection::makeHeader(FrameKind::kReply)));  // unsolicited

    expectStillServing();
}

TEST_F(HostilePeers, AMalformedFrameAmongOneWaysClosesTheLinkAfterThoseSentBeforeIt) {
    // Sent in one go, so that the child reads them in batches.
    constexpr int32_t kCalls = 40;
    RawConnection link(endpoint);
    FrameHeader hello = RawConnection::makeHeader(FrameKind::kHello);
    hello.argument = ownEndpoint();
    hello.flags = kHelloLink;
    link.sendFrame(hello);
    for (int32_t i = 0; i < kCalls; ++i) {
        FrameHeader call = transactionTo(child.binder(), TestService::SEQUENCE);
        call.flags = IBinder::FLAG_ONEWAY;
        call.dataSize = sizeof(i);
        std::vector<uint8_t> body(sizeof(i));
        memcpy(body.data(), &i, sizeof(i));
        link.sendFrame(call, body);
    }
    FrameHeader badMagic = transactionTo(child.binder(), TestService::SEQUENCE);
    badMagic.flags = IBinder::FLAG_ONEWAY;
    badMagic.magic = 0xdeadbeef;
    link.sendFrame(badMagic);
    EXPECT_TRUE(link.closedByPeer());

    android::Parcel data;
    android::Parcel reply;
    data.writeInt32(kCalls);
    ASSERT_EQ(android::NO_ERROR,
              child.binder()->transact(TestService::SEQUENCE_REPORT, data, &reply));
    EXPECT_EQ(kCalls, reply.readInt32());
    EXPECT_EQ(1, reply.readInt32()) << "one-ways ran out of order";
    expectStillServing();
}

TEST_F(HostilePeers, LargeFrameBodiesMustComeInASealedMemfdOfTheRightSize) {
    FrameHeader header = transactionTo(child.binder(), IBinder::PING_TRANSACTION);
    header.layout = kLayoutBodyInMemfd;
    header.dataSize = 100000;
    auto memfdOf = [](size_t size, bool sealed) {
        int fd = memfd_create("hostile", MFD_CLOEXEC | MFD_ALLOW_SEALING);
        EXPECT_EQ(0, ftruncate(fd, static_cast<off_t>(size)));
        if (sealed) fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE);
        return fd;
    };
    int wrongSize = memfdOf(1000, true);
    EXPECT_TRUE(hangsUpOn(header, {}, {wrongSize}));
    int unsealed = memfdOf(100000, false);
    EXPECT_TRUE(hangsUpOn(header, {}, {unsealed}));
    EXPECT_TRUE(hangsUpOn(header));  // no memfd at all
    int good = memfdOf(100000, true);
    EXPECT_EQ(0, replyStatusTo(header, {}, {good}));
    close(wrongSize);
    close(unsealed);
    close(good);
    expectStillServing();
}

TEST_F(HostilePeers, ObjectsThePeerWasNeverHandedAreRefused) {
    FrameHeader unknownTarget = transactionTo(child.binder(), TestService::ECHO);
    unknownTarget.tokenHi ^= 1;
    EXPECT_EQ(android::FAILED_TRANSACTION, replyStatusTo(unknownTarget));

    // A record naming one of the child's own objects under a guessed token.
    FlatObject forged{};
    forged.type = FlatObject::kTypeBinder;
    forged.endpoint = endpoint;
    forged.tokenHi = 0x0123456789abcdefULL;
    forged.tokenLo = 42;
    FrameHeader carrying = transactionTo(child.binder(), TestService::HOLD);
    carrying.dataSize = sizeof(FlatObject);
    carrying.objectCount = 1;
    EXPECT_NE(0, replyStatusTo(carrying, bodyWithRecord(forged)));

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
    RawConnection link(endpoint);
    FrameHeader hello = RawConnection::makeHeader(FrameKind::kHello);
    hello.argument = ownEndpoint();
    hello.flags = kHelloLink;
    link.sendFrame(hello);
    link.sendFrame(release);
    expectStillServing();
}

TEST_F(HostilePeers, AFloodOfIdleConnectionsIsCappedAndDoesNotStopTheService) {
    expectStillServing();  // leaves this process an idle connection from before the flood
    std::vector<std::unique_ptr<RawConnection>> idle;
    for (int i = 0; i < 300; ++i) idle.push_back(std::make_unique<RawConnection>(endpoint));
    expectStillServing();
    // One process gets at most 256 of them; the rest are closed at once.
    EXPECT_TRUE(idle.back()->closedByPeer());
    idle.clear();
    expectStillServing();
}

// Runs the rest of the child as the unprivileged "nobody".
bool becomeAnotherUser() {
    return setresgid(65534, 65534, 65534) == 0 && setresuid(65534, 65534, 65534) == 0;
}

// Another user's process looks for the test's registry: 0 when refused.
TVTEST_CHILD_ROLE(other_user_client) {
    (void)args;
    if (!becomeAnotherUser()) return 2;
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
    tvtest::ParentChannel::send("ready");
    tvtest::ParentChannel::receive();
    return 0;
}

// A process of the test's user in context args[0]: 0 when it did not trust
// that context's registry.
TVTEST_CHILD_ROLE(context_client) {
    if (args.empty()) return 2;
    setenv("TAVRIN_BINDER_CONTEXT", args[0].c_str(), 1);
    return android::ProcessState::self()->getContextObject(nullptr) == nullptr ? 0 : 1;
}

int exitCodeOf(tvtest::ChildProcess& child) {
    const int status = child.wait();
    return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(OtherUsers, AreNeitherServedNorTrusted) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to run a process as another user";
    tvtest::ChildProcess client("other_user_client");
    EXPECT_EQ(0, exitCodeOf(client)) << "another user reached the test's registry";

    const std::string context = "tvtest-other-" + std::to_string(getpid());
    tvtest::ChildProcess registry("other_user_registry", {context});
    ASSERT_EQ("ready", registry.readLine());
    tvtest::ChildProcess user("context_client", {context});
    EXPECT_EQ(0, exitCodeOf(user)) << "a registry run by another user was trusted";
    registry.writeLine("quit");
    EXPECT_EQ(0, exitCodeOf(registry));
}

// Reports where this process listens, then waits for "quit".
TVTEST_CHILD_ROLE(report_socket) {
    (void)args;
    android::ProcessState::self();
    tvtest::ParentChannel::send(endpointAddress(Runtime::current()->endpoint()));
    tvtest::ParentChannel::receive();
    return 0;
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
        child.writeLine("quit");
        EXPECT_EQ(0, exitCodeOf(child));
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
