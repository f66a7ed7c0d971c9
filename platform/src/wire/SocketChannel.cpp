#define LOG_TAG "tvbinder"

#include "wire/SocketChannel.h"

#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "base/Clock.h"
#include "base/LogLimit.h"
#include "base/TransportFds.h"
#include "wire/FlatObject.h"

namespace android {
namespace tvbinder {

namespace {

// Writes the body into a sealed memfd: a frame too large for one message.
int makeBodyMemfd(const OutgoingFrame& frame) {
    int fd = memfd_create("tvbinder-frame", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) return -1;
    const size_t dataSize = frame.header.dataSize;
    const size_t offsetsSize = frame.offsets.size() * sizeof(uint32_t);
    bool ok = ftruncate(fd, static_cast<off_t>(dataSize + offsetsSize)) == 0;
    if (ok && dataSize > 0) ok = pwrite(fd, frame.data, dataSize, 0) == ssize_t(dataSize);
    if (ok && offsetsSize > 0) {
        ok = pwrite(fd, frame.offsets.data(), offsetsSize, off_t(dataSize)) == ssize_t(offsetsSize);
    }
    if (ok) {
        ok = fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) == 0;
    }
    if (!ok) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool preadAll(int fd, void* buffer, size_t size, off_t offset) {
    auto* bytes = static_cast<uint8_t*>(buffer);
    while (size > 0) {
        ssize_t n = pread(fd, bytes, size, offset);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        bytes += n;
        size -= static_cast<size_t>(n);
        offset += n;
    }
    return true;
}

constexpr size_t kControlSize = CMSG_SPACE(sizeof(int) * kMaxFdsPerFrame);

// Where a thread receives: room for a batch of the largest inline frames.
// Taken from the heap on first use; pages that no frame reaches stay
// untouched.
struct ReceiveArea {
    uint8_t data[kReceiveBatch][kMaxInlineFrame];
    alignas(cmsghdr) char control[kReceiveBatch][kControlSize];
    mmsghdr messages[kReceiveBatch];
    iovec parts[kReceiveBatch];
};

ReceiveArea& receiveArea() {
    thread_local std::unique_ptr<ReceiveArea> area;
    if (area == nullptr) area.reset(new ReceiveArea);  // left uninitialised: not touched
    return *area;
}

void prepareSlot(ReceiveArea& area, size_t slot) {
    area.parts[slot] = {area.data[slot], kMaxInlineFrame};
    msghdr& message = area.messages[slot].msg_hdr;
    message = msghdr{};
    message.msg_iov = &area.parts[slot];
    message.msg_iovlen = 1;
    message.msg_control = area.control[slot];
    message.msg_controllen = kControlSize;
}

}  // namespace

status_t SocketChannel::send(const OutgoingFrame& frame, int waitMs) {
    FrameHeader header = frame.header;
    header.objectCount = static_cast<uint32_t>(frame.offsets.size());
    const size_t bodySize = frameBodySize(header);
    if (!frame.withinLimits()) {
        ALOGW("refusing to send a frame of %zu bytes with %zu objects and %zu descriptors",
              bodySize, frame.offsets.size(), frame.fds.size());
        return BAD_VALUE;
    }

    iovec parts[3];
    int partCount = 0;
    ScopedFd memfd;
    int fds[kMaxFdsPerFrame];
    size_t fdCount = 0;
    parts[partCount++] = {&header, sizeof(header)};
    if (sizeof(header) + bodySize > kMaxInlineFrame) {
        memfd = ScopedFd(makeBodyMemfd(frame));
        if (!memfd.valid()) return NO_MEMORY;
        header.layout |= kLayoutBodyInMemfd;
        fds[fdCount++] = memfd.get();
    } else {
        if (header.dataSize > 0) {
            parts[partCount++] = {const_cast<uint8_t*>(frame.data), header.dataSize};
        }
        if (!frame.offsets.empty()) {
            parts[partCount++] = {const_cast<uint32_t*>(frame.offsets.data()),
                                  frame.offsets.size() * sizeof(uint32_t)};
        }
    }
    for (int fd : frame.fds) fds[fdCount++] = fd;

    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = static_cast<size_t>(partCount);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFdsPerFrame)];
    if (fdCount > 0) {
        message.msg_control = control;
        message.msg_controllen = CMSG_SPACE(sizeof(int) * fdCount);
        cmsghdr* cmsg = CMSG_FIRSTHDR(&message);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(sizeof(int) * fdCount);
        memcpy(CMSG_DATA(cmsg), fds, sizeof(int) * fdCount);
    }

    int64_t deadline = 0;  // set when the socket is first found full
    for (;;) {
        ssize_t n = sendmsg(mFd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n >= 0) return NO_ERROR;
        if (errno == EINTR) continue;
        if (errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN) return DEAD_OBJECT;
        if (errno != EAGAIN) {
            ALOGW("sendmsg failed: %s", strerror(errno));
            return FAILED_TRANSACTION;
        }
        if (waitMs <= 0) return WOULD_BLOCK;
        if (deadline == 0) deadline = monotonicMs() + waitMs;
        int64_t left = deadline - monotonicMs();
        pollfd waiter{mFd, POLLOUT, 0};
        if (left <= 0 || poll(&waiter, 1, static_cast<int>(left)) == 0) return WOULD_BLOCK;
    }
}

status_t SocketChannel::receive(Frame* out, bool block) {
    ReceiveArea& area = receiveArea();
    prepareSlot(area, 0);
    ssize_t n;
    do {
        n = recvmsg(mFd, &area.messages[0].msg_hdr, MSG_CMSG_CLOEXEC | (block ? 0 : MSG_DONTWAIT));
    } while (n < 0 && errno == EINTR);
    if (n < 0) return errno == EAGAIN ? WOULD_BLOCK : DEAD_OBJECT;
    return parse(area.messages[0].msg_hdr, size_t(n), area.data[0], out);
}

size_t SocketChannel::receiveWaiting(Frame* out, status_t* statuses, size_t max) {
    ReceiveArea& area = receiveArea();
    max = std::min(max, kReceiveBatch);
    for (size_t slot = 0; slot < max; ++slot) prepareSlot(area, slot);
    int n;
    do {
        n = recvmmsg(mFd, area.messages, static_cast<unsigned>(max),
                     MSG_CMSG_CLOEXEC | MSG_DONTWAIT, nullptr);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        statuses[0] = errno == EAGAIN ? WOULD_BLOCK : DEAD_OBJECT;
        return errno == EAGAIN ? 0 : 1;
    }
    // Every message is parsed, even after a bad one, so that each one's
    // descriptors are owned (and closed) by its frame.
    for (int slot = 0; slot < n; ++slot) {
        statuses[slot] = parse(area.messages[slot].msg_hdr, area.messages[slot].msg_len,
                               area.data[slot], &out[slot]);
    }
    return static_cast<size_t>(n);
}

bool SocketChannel::waitReadable(int timeoutMs) {
    pollfd waiter{mFd, POLLIN, 0};
    int ready;
    do {
        ready = poll(&waiter, 1, timeoutMs);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

status_t SocketChannel::parse(const msghdr& message, size_t n, const uint8_t* buffer, Frame* out) {
    for (cmsghdr* cmsg = CMSG_FIRSTHDR(&message); cmsg != nullptr;
         cmsg = CMSG_NXTHDR(const_cast<msghdr*>(&message), cmsg)) {
        if (cmsg->cmsg_level != SOL_SOCKET || cmsg->cmsg_type != SCM_RIGHTS) continue;
        size_t count = (cmsg->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int fd;
            memcpy(&fd, CMSG_DATA(cmsg) + i * sizeof(int), sizeof(int));
            out->addFd(fd);
        }
    }
    if (n == 0) return DEAD_OBJECT;
    if ((message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0 || n < sizeof(FrameHeader)) {
        return BAD_VALUE;
    }
    memcpy(&out->header, buffer, sizeof(FrameHeader));
    const FrameHeader& header = out->header;
    if (!out->headerWithinLimits(kLayoutBodyInMemfd)) return BAD_VALUE;
    if ((header.layout & kLayoutBodyInMemfd) != 0) {
        if (n != sizeof(FrameHeader) || out->fds().empty()) return BAD_VALUE;
        const int raw = out->takeFirstFd();
        if (!chargeBody(frameBodySize(header), &out->charge)) {
            ::close(raw);
            return NO_MEMORY;
        }
        status_t status = readMemfdBody(raw, out);
        ::close(raw);
        return status;
    }
    return out->copyInlineBody(buffer + sizeof(FrameHeader), n - sizeof(FrameHeader));
}

bool SocketChannel::chargeBody(size_t bytes, BodyCharge* charge) {
    if (mAccount == nullptr) return true;
    if (!mAccount->takeBody(bytes)) {
        TV_ALOGW_LIMITED("pid %d sent more large frames at once than its share", mPeerPid);
        return false;
    }
    *charge = BodyCharge(mAccount, bytes);
    return true;
}

status_t SocketChannel::readMemfdBody(int memfd, Frame* out) {
    const FrameHeader& header = out->header;
    struct stat status;
    const size_t bodySize = frameBodySize(header);
    int seals = fcntl(memfd, F_GET_SEALS);
    const int required = F_SEAL_SHRINK | F_SEAL_WRITE;
    // Seals first: only a memfd has them, and any other file (one on a
    // peer's FUSE mount, say) could stall fstat().
    if (seals < 0 || (seals & required) != required || fstat(memfd, &status) != 0 ||
        !S_ISREG(status.st_mode) || size_t(status.st_size) != bodySize) {
        return BAD_VALUE;
    }
    uint8_t* data = out->allocateData(header.dataSize);
    if (data == nullptr) return NO_MEMORY;
    out->offsets.resize(header.objectCount);
    if (!preadAll(memfd, data, header.dataSize, 0) ||
        !preadAll(memfd, out->offsets.data(), header.objectCount * sizeof(uint32_t),
                  off_t(header.dataSize))) {
        return BAD_VALUE;
    }
    return NO_ERROR;
}

}  // namespace tvbinder
}  // namespace android
