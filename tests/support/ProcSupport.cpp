#include "ProcSupport.h"

#include <dirent.h>
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <limits>
#include <sstream>
#include <thread>

namespace tvproc {

namespace {

using Clock = std::chrono::steady_clock;

// Waits for `fd` to become readable before `deadline`.
bool readableBefore(int fd, Clock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd waiter{fd, POLLIN, 0};
        const int ready = poll(&waiter, 1, static_cast<int>(std::max<int64_t>(0, left.count())));
        if (ready < 0 && errno == EINTR) continue;
        return ready > 0;
    }
}

ssize_t readRetrying(int fd, void* data, size_t size) {
    ssize_t got;
    do {
        got = read(fd, data, size);
    } while (got < 0 && errno == EINTR);
    return got;
}

size_t statusKib(pid_t pid, const std::string& field) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    while (status >> key) {
        if (key == field) {
            size_t kib = 0;
            status >> kib;
            return kib;
        }
        status.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    return 0;
}

}  // namespace

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (!condition()) {
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

int waitForExit(pid_t pid, std::chrono::milliseconds timeout) {
    int status = -1;
    const bool exited = waitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeout);
    return exited ? status : -1;
}

void killAndReap(pid_t pid) {
    kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

bool writeFully(int fd, const void* data, size_t size) {
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = write(fd, bytes, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        bytes += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

bool readFully(int fd, void* data, size_t size) {
    char* bytes = static_cast<char*>(data);
    while (size > 0) {
        const ssize_t got = readRetrying(fd, bytes, size);
        if (got <= 0) return false;
        bytes += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

bool readSomeWithin(int fd, std::string* pending, std::chrono::milliseconds timeout) {
    if (!readableBefore(fd, Clock::now() + timeout)) return false;
    char buffer[256];
    const ssize_t got = readRetrying(fd, buffer, sizeof buffer);
    if (got <= 0) return false;
    pending->append(buffer, static_cast<size_t>(got));
    return true;
}

std::string uniqueName(const std::string& base) {
    static std::atomic<int> counter{0};
    return base + "-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
}

std::string besideThisProgram(const std::string& name) {
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    const std::string program(self, length > 0 ? static_cast<size_t>(length) : 0);
    return program.substr(0, program.rfind('/') + 1) + name;
}

size_t countEntries(const std::string& directory,
                    const std::function<bool(int, const char*)>& counted) {
    DIR* dir = opendir(directory.c_str());
    if (dir == nullptr) return 0;
    size_t count = 0;
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        if (!counted || counted(dirfd(dir), entry->d_name)) ++count;
    }
    closedir(dir);
    return count;
}

std::string processNameOf(pid_t pid) {
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(comm, name);
    return name;
}

size_t countOpenFds(pid_t pid) {
    // Regular files are left out: a sanitizer's runtime opens the program's
    // libraries for a moment now and then, and the transport holds none.
    return countEntries(
        "/proc/" + std::to_string(pid) + "/fd", [](int directory, const char* name) {
            // One closed meanwhile is not counted either.
            struct stat target;
            return fstatat(directory, name, &target, 0) == 0 && !S_ISREG(target.st_mode);
        });
}

std::chrono::milliseconds cpuTime(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    // The name in parentheses may hold spaces; the fields after it do not.
    // utime and stime are the 12th and 13th fields after the name.
    std::istringstream fields(line.substr(std::min(line.rfind(')') + 1, line.size())));
    std::string skipped;
    for (int i = 1; i <= 11; ++i) fields >> skipped;
    unsigned long long user = 0, system = 0;
    fields >> user >> system;
    return std::chrono::milliseconds((user + system) * 1000 /
                                     static_cast<unsigned long long>(sysconf(_SC_CLK_TCK)));
}

size_t residentKib(pid_t pid) {
    return statusKib(pid, "VmRSS:");
}

size_t residentSharedKib(pid_t pid) {
    return statusKib(pid, "RssShmem:");
}

PeakWatch::PeakWatch(pid_t pid)
    : mSampler([this, pid] {
          while (!mStopped) {
              mDescriptors = std::max<size_t>(mDescriptors,
                                              countEntries("/proc/" + std::to_string(pid) + "/fd"));
              mResidentKib = std::max(mResidentKib.load(), tvproc::residentKib(pid));
              std::this_thread::sleep_for(std::chrono::milliseconds(20));
          }
      }) {}

void PeakWatch::stop() {
    mStopped = true;
    if (mSampler.joinable()) mSampler.join();
}

}  // namespace tvproc
