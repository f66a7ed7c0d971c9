#pragma once

#include <sys/types.h>

#include <string>

#include "ChildProcess.h"

// The service manager of a test's or the benchmark's own context, run in the
// foreground from the daemon binary beside this program ($TAVRIN_SERVICEMANAGER
// when set), and killed when this object goes away.
class ServiceManagerDaemon {
  public:
    explicit ServiceManagerDaemon(const std::string& context);

    bool serving() const { return mServing; }
    pid_t pid() const { return mProcess.pid(); }
    void kill();
    // Runs the daemon's `--list` for `context`: its exit code, its output in *out.
    static int list(const std::string& context, std::string* out = nullptr);
    static std::string path();

  private:
    tvtest::ChildProcess mProcess;
    bool mServing = false;
};
