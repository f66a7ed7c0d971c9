// Sends each input as one message through a real SOCK_SEQPACKET pair into
// the socket path's receive (a Connection's SocketChannel), then validates
// the frame as the transport does.
//
// Input: one mode byte (FuzzFormats.h), then the message. With kBodyInMemfd
// the message is the header only and the bytes after it go into a memfd sent
// as the first descriptor, as a large frame travels.

#include <sys/mman.h>
#include <sys/socket.h>

#include "FuzzFormats.h"
#include "FuzzSupport.h"
#include "wire/Connection.h"

namespace {

using android::sp;
using android::status_t;
using android::tvbinder::Connection;
using android::tvbinder::Frame;
using android::tvbinder::FrameHeader;

using namespace fuzz::frame_mode;

struct Link {
    int sender;
    sp<Connection> receiver;
};

const Link& link() {
    static const Link* const made = [] {
        int fds[2];
        FUZZ_CHECK(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) == 0);
        return new Link{fds[0], Connection::adopt(fds[1])};
    }();
    return *made;
}

// A received descriptor that nobody closes takes the lowest free number.
int lowestFreeFd() {
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    FUZZ_CHECK(fd >= 0);
    close(fd);
    return fd;
}

int bodyMemfd(const fuzz::Bytes& body, bool sealed) {
    int fd = memfd_create("fuzz-frame", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    FUZZ_CHECK(fd >= 0);
    FUZZ_CHECK(write(fd, body.data(), body.size()) == ssize_t(body.size()));
    if (sealed) FUZZ_CHECK(fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE) == 0);
    return fd;
}

void sendMessage(const fuzz::Bytes& message, const std::vector<int>& fds) {
    iovec part{const_cast<uint8_t*>(message.data()), message.size()};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 8)];
    if (!fds.empty()) {
        header.msg_control = control;
        header.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
        cmsghdr* cmsg = CMSG_FIRSTHDR(&header);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
        memcpy(CMSG_DATA(cmsg), fds.data(), sizeof(int) * fds.size());
    }
    FUZZ_CHECK(sendmsg(link().sender, &header, MSG_DONTWAIT) == ssize_t(message.size()));
}

void check(const Frame& frame, status_t status) {
    FUZZ_CHECK(status != android::WOULD_BLOCK);  // the message was there
    // validate() reads the records the offsets point at: ASan checks that
    // parse() left it nothing to read beyond the data.
    if (status == android::NO_ERROR) (void)frame.validate();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quietLogs();
    link();  // its descriptors are open before any input counts descriptors
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    const uint8_t mode = input.byte();
    fuzz::Bytes message = input.rest();
    const int lowestFree = lowestFreeFd();

    std::vector<int> fds;
    if ((mode & kBodyInMemfd) != 0) {
        const size_t headerSize = std::min(message.size(), sizeof(FrameHeader));
        fds.push_back(bodyMemfd(fuzz::Bytes(message.begin() + headerSize, message.end()),
                                (mode & kSealed) != 0));
        message.resize(headerSize);
    }
    for (int i = 0; i < ((mode >> kExtraFdsShift) & 7); ++i) {
        fds.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        FUZZ_CHECK(fds.back() >= 0);
    }
    if ((mode & kOversize) != 0) message.resize(android::tvbinder::kMaxInlineFrame + 1);
    sendMessage(message, fds);
    for (int fd : fds) close(fd);

    if ((mode & kBatch) != 0) {
        Frame frames[2];
        status_t statuses[2];
        FUZZ_CHECK(link().receiver->receiveWaiting(frames, statuses, 2) == 1);
        check(frames[0], statuses[0]);
    } else {
        Frame frame;
        check(frame, link().receiver->receive(&frame, false));
    }
    // Every descriptor that came with the message went with its frame.
    FUZZ_CHECK(lowestFreeFd() == lowestFree);
    return 0;
}
