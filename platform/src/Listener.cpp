#include "Listener.h"

#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace android {
namespace tvbinder {

status_t Listener::listenOn(const std::string& address) {
    ScopedFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid()) return -errno;
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    if (address.size() + 1 > sizeof(name.sun_path)) return BAD_VALUE;
    memcpy(name.sun_path + 1, address.data(), address.size());
    auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + address.size());
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&name), length) != 0) return -errno;
    if (listen(fd.get(), SOMAXCONN) != 0) return -errno;
    mFd = std::move(fd);
    return NO_ERROR;
}

int Listener::acceptOne() {
    for (;;) {
        int fd = accept4(mFd.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0 || errno != EINTR) return fd;
    }
}

}  // namespace tvbinder
}  // namespace android
