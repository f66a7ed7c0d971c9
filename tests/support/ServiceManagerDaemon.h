#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

// The service manager of the benchmark's own context, run in the foreground
// from the daemon binary beside this program ($TAVRIN_SERVICEMANAGER when
// set), and killed when this object goes away.
class ServiceManagerDaemon {
  public:
    explicit ServiceManagerDaemon(const std::string& context);
    ~ServiceManagerDaemon();
    ServiceManagerDaemon(const ServiceManagerDaemon&) = delete;
    ServiceManagerDaemon& operator=(const ServiceManagerDaemon&) = delete;

    bool serving() const { return mServing; }

  private:
    // Asks `--list` until the daemon answers.
    bool awaitServing(std::chrono::milliseconds timeout);
    int runToCompletion(const char* const* argv) const;

    std::string mPath;
    std::string mContext;
    pid_t mPid = -1;
    bool mServing = false;
};
