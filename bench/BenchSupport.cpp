#include "BenchSupport.h"

#include <dirent.h>
#include <errno.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>

int64_t monotonicNanos() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

void pinToFirstCpu() {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(0, &cpus);
    if (sched_setaffinity(0, sizeof cpus, &cpus) != 0) perror("sched_setaffinity");
}

int64_t median(std::vector<int64_t> samples) {
    if (samples.empty()) return 0;
    auto middle = samples.begin() + static_cast<ptrdiff_t>(samples.size() / 2);
    std::nth_element(samples.begin(), middle, samples.end());
    return *middle;
}

size_t threadCountOf(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/status";
    FILE* status = fopen(path.c_str(), "re");
    if (status == nullptr) return 0;
    char line[256];
    size_t threads = 0;
    while (fgets(line, sizeof line, status) != nullptr) {
        if (sscanf(line, "Threads: %zu", &threads) == 1) break;
    }
    fclose(status);
    return threads;
}

size_t descriptorCountOf(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/fd";
    DIR* directory = opendir(path.c_str());
    if (directory == nullptr) return 0;
    size_t count = 0;
    while (const struct dirent* entry = readdir(directory)) {
        if (entry->d_name[0] != '.') ++count;
    }
    closedir(directory);
    return count;
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
        const ssize_t got = read(fd, bytes, size);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        bytes += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}
