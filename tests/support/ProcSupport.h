#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

// Process and descriptor helpers shared by the tests and the benchmark: every
// wait is bounded, and a child that overstays is killed and reaped.
namespace tvproc {

// Polls `condition` until it holds or `timeout` passes.
bool waitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = std::chrono::seconds(20));

// The exit status of `pid` (as from waitpid), or -1 if it is still running
// after `timeout`.
int waitForExit(pid_t pid, std::chrono::milliseconds timeout);
void killAndReap(pid_t pid);

// Exact-size transfers; false on end of file or error.
bool writeFully(int fd, const void* data, size_t size);
bool readFully(int fd, void* data, size_t size);
// Appends what one read brings to `pending`; false on timeout, end of file or error.
bool readSomeWithin(int fd, std::string* pending, std::chrono::milliseconds timeout);

// `base` made unique to this process and this call, for names of objects.
std::string uniqueName(const std::string& base);

// The path of `name` in the directory of the running program.
std::string besideThisProgram(const std::string& name);

// Entries of a directory such as /proc/<pid>/fd, without "." and ".."; with
// `counted`, only those it accepts (given the directory's descriptor and the
// entry's name).
size_t countEntries(const std::string& directory,
                    const std::function<bool(int, const char*)>& counted = {});

// The process's name, as ps shows it.
std::string processNameOf(pid_t pid);
// The process's open descriptors other than regular files.
size_t countOpenFds(pid_t pid);

// What `pid` has used: CPU time of all its threads, its resident memory in
// KiB and the shared memory part of it (0 once it is gone).
std::chrono::milliseconds cpuTime(pid_t pid);
size_t residentKib(pid_t pid);
size_t residentSharedKib(pid_t pid);

// Samples a process's open descriptors and resident memory from another
// thread, keeping the highest of each, until stopped.
class PeakWatch {
  public:
    explicit PeakWatch(pid_t pid);
    ~PeakWatch() { stop(); }
    PeakWatch(const PeakWatch&) = delete;
    PeakWatch& operator=(const PeakWatch&) = delete;

    void stop();
    size_t descriptors() const { return mDescriptors; }
    size_t residentKib() const { return mResidentKib; }

  private:
    std::atomic<bool> mStopped{false};
    std::atomic<size_t> mDescriptors{0};
    std::atomic<size_t> mResidentKib{0};
    std::thread mSampler;
};

}  // namespace tvproc
