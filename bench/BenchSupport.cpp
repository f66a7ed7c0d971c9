#include "BenchSupport.h"

#include <dirent.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <string>

#include "ProcSupport.h"

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

int64_t ownCpuNanos() {
    struct timespec used;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<int64_t>(used.tv_sec) * 1000000000 + used.tv_nsec;
}

int64_t cpuNanosOf(pid_t pid) {
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    DIR* directory = opendir(tasks.c_str());
    if (directory == nullptr) return 0;
    int64_t total = 0;
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_name[0] == '.') continue;
        FILE* stat = fopen((tasks + "/" + entry->d_name + "/schedstat").c_str(), "re");
        if (stat == nullptr) continue;
        long long onCpu = 0;
        if (fscanf(stat, "%lld", &onCpu) == 1) total += onCpu;
        fclose(stat);
    }
    closedir(directory);
    return total;
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
    return tvproc::countEntries("/proc/" + std::to_string(pid) + "/fd");
}
