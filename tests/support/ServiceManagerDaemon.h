#pragma once

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>

#include "ChildProcess.h"
#include "ProcSupport.h"

// The service manager of a test's or the benchmark's own context, run in the
// foreground from the daemon binary beside this program ($TAVRIN_SERVICEMANAGER
// when set), and killed when this object goes away.
class ServiceManagerDaemon {
  public:
    explicit ServiceManagerDaemon(const std::string& context)
        : mProcess([path = path(), context](tvtest::Channel&) {
              execl(path.c_str(), path.c_str(), "--foreground", "--context", context.c_str(),
                    static_cast<char*>(nullptr));
              return 127;
          }) {
        mServing = tvproc::waitUntil([&] { return list(context) == 0; });
        if (!mServing) fprintf(stderr, "%s does not answer\n", path().c_str());
    }

    bool serving() const { return mServing; }
    pid_t pid() const { return mProcess.pid(); }
    void kill() {
        mProcess.kill(SIGKILL);
        mProcess.wait();
    }
    // Runs the daemon's `--list` for `context`: its exit code, its output in *out.
    static int list(const std::string& context, std::string* out = nullptr) {
        tvtest::ChildProcess lister(tvtest::Program{{path(), "--list", "--context", context}});
        const std::string listed = lister.channel().receiveAll();
        if (out != nullptr) *out = listed;
        return lister.finish();
    }
    static std::string path() {
        const char* configured = getenv("TAVRIN_SERVICEMANAGER");
        if (configured != nullptr && configured[0] != '\0') return configured;
        return tvproc::besideThisProgram("tavrin-servicemanager");
    }

  private:
    tvtest::ChildProcess mProcess;
    bool mServing = false;
};
