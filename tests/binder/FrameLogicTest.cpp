// Frames as the receiver checks them, in one process: the socket path's
// parsing (through a socket pair) and Frame::validate. A frame that fails
// either closes its connection (HostilePeers shows that end to end).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <vector>

#include "wire/Connection.h"
#include "wire/FlatObject.h"
#include "wire/Frame.h"
#include "wire/PeerAccounts.h"

using namespace android;
using namespace android::tvbinder;

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

int devNull() {
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

TEST(FrameValidation, RecordsMustBeAlignedInBoundsApartTypedAndMatchTheDescriptors) {
    Received valid(96, {{0, fdRecord()}, {32, binderRecord()}});
    valid.frame.addFd(devNull());
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
        {"descriptor without record", [](Received& r) { r.frame.addFd(devNull()); }},
    };
    for (const auto& [what, fault] : faults) {
        Received broken(96, {{0, fdRecord()}, {32, binderRecord()}});
        broken.frame.addFd(devNull());
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
        if (record.type == FlatObject::kTypeFd) broken.frame.addFd(devNull());
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
        mSender = fds[0];
        receiver = Connection::adopt(fds[1]);
        accounts.setDescriptorLimit(1024);
    }
    void TearDown() override { close(mSender); }

    // Sends `message` with at most one descriptor.
    void send(const Bytes& message, int fd = -1) {
        iovec part{const_cast<uint8_t*>(message.data()), message.size()};
        msghdr header{};
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
        if (fd >= 0) {
            header.msg_control = control;
            header.msg_controllen = sizeof(control);
            cmsghdr* cmsg = CMSG_FIRSTHDR(&header);
            cmsg->cmsg_level = SOL_SOCKET;
            cmsg->cmsg_type = SCM_RIGHTS;
            cmsg->cmsg_len = CMSG_LEN(sizeof(int));
            memcpy(CMSG_DATA(cmsg), &fd, sizeof(fd));
        }
        ASSERT_EQ(ssize_t(message.size()), sendmsg(mSender, &header, 0));
    }
    static Bytes headerOnly(const FrameHeader& header) {
        Bytes bytes(sizeof(header));
        memcpy(bytes.data(), &header, sizeof(header));
        return bytes;
    }
    // A header announcing a body of `dataSize` bytes in a memfd.
    static FrameHeader largeBody(uint32_t dataSize) {
        FrameHeader header = OutgoingFrame::make(FrameKind::kTransaction).header;
        header.layout = kLayoutBodyInMemfd;
        header.dataSize = dataSize;
        return header;
    }
    static int memfdOf(size_t size, bool sealed) {
        int fd = memfd_create("frame-test", MFD_CLOEXEC | MFD_ALLOW_SEALING);
        EXPECT_EQ(0, ftruncate(fd, static_cast<off_t>(size)));
        if (sealed) {
            EXPECT_EQ(0, fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE));
        }
        return fd;
    }
    status_t receive() {
        Frame frame;
        status_t status = receiver->receive(&frame, false);
        if (status == NO_ERROR) status = frame.validate();
        return status;
    }

    sp<Connection> receiver;
    PeerAccounts accounts;

  private:
    int mSender = -1;
};

TEST_F(SocketPath, MessagesHoldTheWholeFrameLargeBodiesASealedMemfdWithinTheSendersShare) {
    send(Bytes(5));
    EXPECT_EQ(BAD_VALUE, receive()) << "shorter than a header";

    FrameHeader header = OutgoingFrame::make(FrameKind::kTransaction).header;
    header.dataSize = 100;
    Bytes truncated = headerOnly(header);
    truncated.resize(truncated.size() + 50);
    send(truncated);
    EXPECT_EQ(BAD_VALUE, receive()) << "body shorter than announced";

    header.dataSize = 64;
    header.objectCount = 1000;
    Bytes tooManyObjects = headerOnly(header);
    tooManyObjects.resize(tooManyObjects.size() + 64 + 4000);
    send(tooManyObjects);
    EXPECT_EQ(BAD_VALUE, receive()) << "more objects than the data can hold";

    send(Bytes(kMaxInlineFrame + 1));
    EXPECT_EQ(BAD_VALUE, receive()) << "larger than a message may be";

    header = OutgoingFrame::make(FrameKind::kTransaction).header;
    header.dataSize = 4;
    Bytes whole = headerOnly(header);
    whole.resize(whole.size() + 4);
    send(whole);
    EXPECT_EQ(NO_ERROR, receive());

    const int wrongSize = memfdOf(1000, true);
    const int unsealed = memfdOf(100000, false);
    const int good = memfdOf(100000, true);
    send(headerOnly(largeBody(100000)), wrongSize);
    EXPECT_EQ(BAD_VALUE, receive()) << "memfd of another size";
    send(headerOnly(largeBody(100000)), unsealed);
    EXPECT_EQ(BAD_VALUE, receive()) << "memfd without seals";
    send(headerOnly(largeBody(100000)));
    EXPECT_EQ(BAD_VALUE, receive()) << "no memfd";
    send(headerOnly(largeBody(100000)), good);
    EXPECT_EQ(NO_ERROR, receive());

    // Charged to the sender's account while it is read: beyond the share,
    // the body is dropped and the connection lives on.
    sp<android::tvbinder::PeerAccount> account = accounts.admitConnection(getpid()).account;
    ASSERT_NE(nullptr, account);
    receiver->chargeBodiesTo(account);
    ASSERT_TRUE(account->takeBody(PeerAccounts::kBodyBudgetPerProcess - 50000));
    send(headerOnly(largeBody(100000)), good);
    EXPECT_EQ(NO_MEMORY, receive());
    account->returnBody(PeerAccounts::kBodyBudgetPerProcess - 50000);
    send(headerOnly(largeBody(100000)), good);
    EXPECT_EQ(NO_ERROR, receive());
    account->connectionGone(false);
    for (int fd : {wrongSize, unsealed, good}) close(fd);
}

}  // namespace
