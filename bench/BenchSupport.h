#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <vector>

// CLOCK_MONOTONIC in nanoseconds: one clock for every process of the machine,
// so that timestamps taken in different processes can be subtracted.
int64_t monotonicNanos();

// Equivalent of running under `taskset -c 0`; threads started later inherit it.
void pinToFirstCpu();

int64_t median(std::vector<int64_t> samples);

// CPU time the calling process has used, in nanoseconds.
int64_t ownCpuNanos();
// CPU time the live threads of `pid` have used, in nanoseconds
// (/proc/<pid>/task/*/schedstat: finer than the clock ticks of /proc/<pid>/stat).
int64_t cpuNanosOf(pid_t pid);

// Read from /proc/<pid>: the number of threads and of open descriptors.
size_t threadCountOf(pid_t pid);
size_t descriptorCountOf(pid_t pid);
