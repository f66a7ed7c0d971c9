#define LOG_TAG "tvbinder"

#include "wire/SocketDirectory.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <log/log.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <vector>

#include "base/Locks.h"

namespace android {
namespace tvbinder {

namespace {

// A directory of ours that nobody else may enter, made if missing.
bool isPrivateDirectory(const std::string& path) {
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return false;
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) return false;
    return S_ISDIR(status.st_mode) && status.st_uid == geteuid() && (status.st_mode & 077) == 0;
}

std::string choosePath() {
    const char* runtime = getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && runtime[0] == '/') {
        struct stat status;
        const std::string candidate = std::string(runtime) + "/tvbinder";
        if (stat(runtime, &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid() &&
            isPrivateDirectory(candidate)) {
            return candidate;
        }
        ALOGW("XDG_RUNTIME_DIR (%s) is not a private directory of this user", runtime);
    }
    const std::string fallback = "/tmp/tvbinder-" + std::to_string(geteuid());
    if (isPrivateDirectory(fallback)) return fallback;
    ALOGE("%s is not a private directory of this user: not listening", fallback.c_str());
    return "";
}

// The paths under `directory` of the sockets bound in this network
// namespace, from /proc/net/unix (path is the last of 8 columns).
bool boundSocketPaths(const std::string& directory, std::set<std::string>* paths) {
    std::ifstream table("/proc/net/unix");
    if (!table) return false;
    std::string line;
    const std::string prefix = directory + "/";
    while (std::getline(table, line)) {
        const size_t start = line.find(prefix);
        if (start != std::string::npos) paths->insert(line.substr(start));
    }
    return true;
}

}  // namespace

std::string SocketDirectory::path() {
    // Chosen and checked once per user: a private directory cannot be
    // changed by anybody else since (both places are the user's own, or in
    // sticky /tmp). Looked up again after setuid(), or after a failure.
    static auto* lock = new Mutex(LockRank::kSocketDirectory);
    static auto* known = new std::pair<uid_t, std::string>(static_cast<uid_t>(-1), "");
    LockGuard guard(*lock);
    if (known->first != geteuid() || known->second.empty()) {
        *known = {geteuid(), choosePath()};
    }
    return known->second;
}

SocketDirectoryLock::SocketDirectoryLock(const std::string& directory)
    : mFd(open((directory + "/.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)) {
    if (mFd < 0) return;
    while (flock(mFd, LOCK_EX) != 0 && errno == EINTR) {
    }
}

SocketDirectoryLock::~SocketDirectoryLock() {
    if (mFd >= 0) close(mFd);
}

void SocketDirectory::removeStale(size_t limit) {
    const std::string directory = path();
    if (directory.empty()) return;
    SocketDirectoryLock lock(directory);
    DIR* listing = opendir(directory.c_str());
    if (listing == nullptr) return;
    std::vector<std::string> sockets;
    while (dirent* entry = readdir(listing)) {
        if (sockets.size() >= limit) break;
        if (entry->d_type == DT_SOCK) sockets.push_back(directory + "/" + entry->d_name);
    }
    closedir(listing);
    if (sockets.empty()) return;
    // Bound sockets are listed by the kernel with their paths: the others
    // are left over. Asking the kernel wakes no live process up.
    std::set<std::string> bound;
    if (!boundSocketPaths(directory, &bound)) return;  // nothing is known to be stale
    for (const std::string& socket : sockets) {
        if (bound.count(socket) == 0) unlink(socket.c_str());
    }
}

std::string endpointAddress(uint64_t endpoint) {
    char name[32];
    snprintf(name, sizeof(name), "/ep-%016" PRIx64, endpoint);
    return SocketDirectory::path() + name;
}

std::string contextAddress(const std::string& context) {
    // A context name is one file name: no way out of the directory.
    if (context.find('/') != std::string::npos || context == "." || context == "..") return "";
    return SocketDirectory::path() + "/ctx-" + context;
}

bool socketAddress(const std::string& path, sockaddr_un* address, socklen_t* length) {
    *address = sockaddr_un{};
    address->sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address->sun_path)) return false;
    memcpy(address->sun_path, path.data(), path.size());
    *length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
    return true;
}

}  // namespace tvbinder
}  // namespace android
