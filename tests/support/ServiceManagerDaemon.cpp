#include "ServiceManagerDaemon.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "ProcSupport.h"

extern char** environ;

namespace {

std::string daemonPath() {
    const char* configured = getenv("TAVRIN_SERVICEMANAGER");
    if (configured != nullptr && configured[0] != '\0') return configured;
    return tvproc::besideThisProgram("tavrin-servicemanager");
}

pid_t spawnQuietly(const char* const* argv) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int error =
        posix_spawn(&pid, argv[0], &actions, nullptr, const_cast<char**>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? pid : -1;
}

}  // namespace

ServiceManagerDaemon::ServiceManagerDaemon(const std::string& context)
    : mPath(daemonPath()), mContext(context) {
    const char* argv[] = {mPath.c_str(), "--foreground", "--context", mContext.c_str(), nullptr};
    const pid_t driver = getpid();
    mPid = fork();
    if (mPid == 0) {
        // The daemon must not outlive a driver that dies before its destructor runs.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() == driver) execv(argv[0], const_cast<char**>(argv));
        _exit(127);
    }
    if (mPid < 0) {
        perror("fork");
        return;
    }
    mServing = awaitServing(std::chrono::seconds(5));
    if (!mServing) fprintf(stderr, "%s does not answer\n", mPath.c_str());
}

ServiceManagerDaemon::~ServiceManagerDaemon() {
    if (mPid > 0) tvproc::killAndReap(mPid);
}

bool ServiceManagerDaemon::awaitServing(std::chrono::milliseconds timeout) {
    const char* argv[] = {mPath.c_str(), "--list", "--context", mContext.c_str(), nullptr};
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (runToCompletion(argv) == 0) return true;
        if (waitpid(mPid, nullptr, WNOHANG) == mPid) {
            mPid = -1;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

int ServiceManagerDaemon::runToCompletion(const char* const* argv) const {
    const pid_t pid = spawnQuietly(argv);
    if (pid < 0) return -1;
    const int status = tvproc::waitForExit(pid, std::chrono::seconds(5));
    if (status == -1) {
        tvproc::killAndReap(pid);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
