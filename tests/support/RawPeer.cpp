#include "RawPeer.h"

#include <binder/BpBinder.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "peers/Peer.h"
#include "runtime/Runtime.h"
#include "wire/SocketDirectory.h"

namespace tvraw {

using android::tvbinder::endpointAddress;
using android::tvbinder::socketAddress;

RawConnection::RawConnection(uint64_t endpoint) {
    mFd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    // Bounds connect() to a full backlog.
    timeval timeout{5, 0};
    setsockopt(mFd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
    sockaddr_un address;
    socklen_t length;
    connected = socketAddress(endpointAddress(endpoint), &address, &length) &&
                connect(mFd, reinterpret_cast<sockaddr*>(&address), length) == 0;
}

RawConnection::~RawConnection() {
    close(mFd);
}

void RawConnection::send(const void* bytes, size_t size, const std::vector<int>& fds) {
    iovec part{const_cast<void*>(bytes), size};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * android::tvbinder::kMaxFdsPerFrame)];
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

void RawConnection::sendFrame(FrameHeader header, const Bytes& body, const std::vector<int>& fds) {
    Bytes bytes(sizeof(header));
    memcpy(bytes.data(), &header, sizeof(header));
    bytes.insert(bytes.end(), body.begin(), body.end());
    send(bytes.data(), bytes.size(), fds);
}

void RawConnection::hello(uint64_t endpoint, uint32_t flags) {
    FrameHeader header = makeHeader(FrameKind::kHello);
    header.argument = endpoint;
    header.flags = flags;
    sendFrame(header);
}

bool RawConnection::endsWithin(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    FrameHeader ignored;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        const ssize_t size = receive(&ignored, std::max(left, std::chrono::milliseconds(0)));
        if (size <= 0) return size == 0;
    }
}

ssize_t RawConnection::receive(FrameHeader* header, std::chrono::milliseconds timeout) {
    pollfd waiter{mFd, POLLIN, 0};
    if (poll(&waiter, 1, static_cast<int>(timeout.count())) <= 0) return -1;
    uint8_t buffer[70000];
    ssize_t n = recv(mFd, buffer, sizeof(buffer), 0);
    // A peer that closed with frames of ours unread resets the connection.
    if (n < 0 && errno == ECONNRESET) return 0;
    if (n >= static_cast<ssize_t>(sizeof(FrameHeader))) memcpy(header, buffer, sizeof(*header));
    return n;
}

FrameHeader RawConnection::makeHeader(FrameKind kind) {
    FrameHeader header{};
    header.magic = android::tvbinder::kFrameMagic;
    header.kind = static_cast<uint32_t>(kind);
    return header;
}

uint64_t endpointOf(const android::sp<android::IBinder>& binder) {
    return binder->remoteBinder()->owner()->endpoint();
}

uint64_t ownEndpoint() {
    return android::tvbinder::Runtime::current()->endpoint();
}

FrameHeader transactionTo(const android::sp<android::IBinder>& binder, uint32_t code) {
    FrameHeader header = RawConnection::makeHeader(FrameKind::kTransaction);
    header.code = code;
    header.tokenHi = binder->remoteBinder()->tokenHi();
    header.tokenLo = binder->remoteBinder()->tokenLo();
    return header;
}

Bytes carrying(FrameHeader* header, const std::vector<FlatObject>& records, const Bytes& prefix) {
    header->dataSize = static_cast<uint32_t>(prefix.size() + records.size() * sizeof(FlatObject));
    header->objectCount = static_cast<uint32_t>(records.size());
    Bytes body(prefix);
    body.resize(header->dataSize + records.size() * sizeof(uint32_t));
    for (size_t i = 0; i < records.size(); ++i) {
        const uint32_t offset = static_cast<uint32_t>(prefix.size() + i * sizeof(FlatObject));
        memcpy(body.data() + offset, &records[i], sizeof(FlatObject));
        memcpy(body.data() + header->dataSize + i * sizeof(uint32_t), &offset, sizeof(offset));
    }
    return body;
}

int sealedMemfd(const Bytes& contents, size_t size) {
    int fd = memfd_create("hostile", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (ftruncate(fd, static_cast<off_t>(size)) != 0 ||
        pwrite(fd, contents.data(), contents.size(), 0) != static_cast<ssize_t>(contents.size()) ||
        fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

FullBacklog::FullBacklog()
    : endpoint(std::random_device()() | uint64_t{std::random_device()()} << 32) {
    mListener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address;
    socklen_t length;
    if (!socketAddress(endpointAddress(endpoint), &address, &length) ||
        bind(mListener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(mListener, 0) != 0) {
        return;
    }
    while (mWaiting.size() < 64) {
        int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (connect(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
            full = errno == EAGAIN;
            close(fd);
            break;
        }
        mWaiting.push_back(fd);
    }
}

FullBacklog::~FullBacklog() {
    for (int fd : mWaiting) close(fd);
    close(mListener);
    unlink(endpointAddress(endpoint).c_str());
}

}  // namespace tvraw
