#include "ServiceManagerDaemon.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "ProcSupport.h"

ServiceManagerDaemon::ServiceManagerDaemon(const std::string& context)
    : mProcess([path = path(), context](tvtest::Channel&) {
          execl(path.c_str(), path.c_str(), "--foreground", "--context", context.c_str(),
                static_cast<char*>(nullptr));
          return 127;
      }) {
    mServing = tvproc::waitUntil([&] { return list(context) == 0; }, std::chrono::seconds(20));
    if (!mServing) fprintf(stderr, "%s does not answer\n", path().c_str());
}

void ServiceManagerDaemon::kill() {
    mProcess.kill(SIGKILL);
    mProcess.wait();
}

int ServiceManagerDaemon::list(const std::string& context, std::string* out) {
    tvtest::ChildProcess lister(tvtest::Program{{path(), "--list", "--context", context}});
    const std::string listed = lister.channel().receiveAll();
    if (out != nullptr) *out = listed;
    return lister.finish();
}

std::string ServiceManagerDaemon::path() {
    const char* configured = getenv("TAVRIN_SERVICEMANAGER");
    if (configured != nullptr && configured[0] != '\0') return configured;
    return tvproc::besideThisProgram("tavrin-servicemanager");
}
