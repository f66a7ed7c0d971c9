#pragma once

#include <stdint.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <string>

namespace android {
namespace tvbinder {

// Where this user's processes listen: a directory only the user can reach,
// "$XDG_RUNTIME_DIR/tvbinder" when that is usable, else "/tmp/tvbinder-<uid>".
// Made with mode 0700 on first use and checked once per effective user: a
// real directory (never followed through a symlink), owned by that user,
// closed to everyone else. Empty (with an error logged) when no such
// directory can be had. Thread-safe.
class SocketDirectory {
  public:
    static std::string path();
    // Unlinks the socket files in it that no socket is bound to any more
    // (left by processes that did not exit cleanly), at most `limit` looked at.
    static void removeStale(size_t limit);
};

// Held while a socket is bound and made to listen, and while stale ones are
// removed: a socket bound but not yet listening looks stale. One lock file
// per directory, locked with flock (released if its holder dies).
class SocketDirectoryLock {
  public:
    explicit SocketDirectoryLock(const std::string& directory);
    ~SocketDirectoryLock();
    SocketDirectoryLock(const SocketDirectoryLock&) = delete;
    SocketDirectoryLock& operator=(const SocketDirectoryLock&) = delete;

  private:
    int mFd;
};

// "<socket directory>/ep-<16 hex digits>": where a process listens.
std::string endpointAddress(uint64_t endpoint);
// "<socket directory>/ctx-<context>", or "" for a context name that is not a
// plain file name.
std::string contextAddress(const std::string& context);

// The address of the socket file `path`; false when it does not fit.
bool socketAddress(const std::string& path, sockaddr_un* address, socklen_t* length);

}  // namespace tvbinder
}  // namespace android
