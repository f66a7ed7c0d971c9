#include "wire/Connection.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "wire/SocketDirectory.h"

namespace android {
namespace tvbinder {

namespace {

// Connects `fd` to the socket file `address`: 0, or the errno (ENOENT for an
// address that cannot be a socket file).
int connectSocket(int fd, const std::string& address) {
    sockaddr_un target;
    socklen_t length;
    if (!socketAddress(address, &target, &length)) return ENOENT;
    int result;
    do {
        result = connect(fd, reinterpret_cast<sockaddr*>(&target), length);
    } while (result < 0 && errno == EINTR);
    return result < 0 ? errno : 0;
}

}  // namespace

Connection::Connection(ScopedFd fd, pid_t peerPid, uid_t peerUid)
    : mFd(std::move(fd)), mPeerPid(peerPid), mPeerUid(peerUid), mSocket(mFd.get(), peerPid) {}

bool Connection::peerIsTrustedUser() const {
    return mPeerUid == geteuid() || mPeerUid == 0;
}

Connection::Connected Connection::connectTo(const std::string& address, int timeoutMs) {
    ScopedFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!fd.valid()) return {nullptr, errno};
    // The kernel bounds a connect() to a full backlog by the send timeout; a
    // non-blocking one fails at once instead.
    if (timeoutMs > 0) {
        timeval timeout{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
        setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
    } else {
        fcntl(fd.get(), F_SETFL, O_NONBLOCK);
    }
    const int error = connectSocket(fd.get(), address);
    if (error != 0) return {nullptr, error};
    if (timeoutMs <= 0) fcntl(fd.get(), F_SETFL, 0);
    // The listener's credentials are only known once connected.
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
        return {nullptr, errno};
    }
    return {new Connection(std::move(fd), credentials.pid, credentials.uid), 0};
}

sp<Connection> Connection::adopt(int fd) {
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) credentials = {};
    return new Connection(ScopedFd(fd), credentials.pid, credentials.uid);
}

bool Connection::refusesConnections(const std::string& address) {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return false;
    const int error = connectSocket(fd, address);
    ::close(fd);
    return error == ECONNREFUSED || error == ENOENT;
}

int Connection::offerSharedMemory(RingSweeper& sweeper) {
    if (!ShmFrameChannel::offered()) return -1;
    mShm = ShmFrameChannel::create(mSocket, mFd.get(), mPeerPid);
    if (mShm == nullptr) return -1;
    reportWideningTo(sweeper);
    return mShm->regionFd();
}

// Weak: a connection its owners dropped closes at once, swept or not.
void Connection::reportWideningTo(RingSweeper& sweeper) {
    mShm->onWidening([this, &sweeper] { sweeper.sweepLater(wp<Connection>(this)); });
}

void Connection::startSharedMemory() {
    if (mShm == nullptr) return;
    mShm->closeRegionFd();
    mChannel = mShm.get();
}

status_t Connection::acceptSharedMemory(int regionFd, RingSweeper& sweeper) {
    mShm = ShmFrameChannel::adopt(regionFd, mSocket, mFd.get(), mPeerPid);
    if (mShm == nullptr) return BAD_VALUE;
    reportWideningTo(sweeper);
    mChannel = mShm.get();
    return NO_ERROR;
}

void Connection::shutDown() {
    shutdown(mFd.get(), SHUT_RDWR);
    if (mShm != nullptr) mShm->shutdown();
}

}  // namespace tvbinder
}  // namespace android
