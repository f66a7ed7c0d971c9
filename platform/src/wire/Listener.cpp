#include "wire/Listener.h"

#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "wire/Connection.h"
#include "wire/SocketDirectory.h"

namespace android {
namespace tvbinder {

status_t Listener::listenOn(const std::string& address) {
    ScopedFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid()) return -errno;
    sockaddr_un name;
    socklen_t length;
    if (!socketAddress(address, &name, &length)) return BAD_VALUE;
    SocketDirectoryLock lock(address.substr(0, address.rfind('/')));
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&name), length) != 0) {
        if (errno != EADDRINUSE) return -errno;
        // A socket left by a process that is gone is taken over; a live
        // listener keeps its address.
        if (!Connection::refusesConnections(address)) return -EADDRINUSE;
        unlink(address.c_str());
        if (bind(fd.get(), reinterpret_cast<sockaddr*>(&name), length) != 0) return -errno;
    }
    if (listen(fd.get(), SOMAXCONN) != 0) return -errno;
    mFd = std::move(fd);
    mPath = address;
    mOwner = getpid();
    return NO_ERROR;
}

void Listener::removeSocketFile() {
    // Never the parent's file from a child made by fork().
    if (!mPath.empty() && mOwner == getpid()) unlink(mPath.c_str());
}

int Listener::acceptOne() {
    for (;;) {
        int fd = accept4(mFd.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0 || errno != EINTR) return fd;
    }
}

}  // namespace tvbinder
}  // namespace android
