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

#include "RawPeer.h"
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

}  // namespace
