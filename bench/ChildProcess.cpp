#include "ChildProcess.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ProcSupport.h"

bool sendValue(int channel, int64_t value) {
    return tvproc::writeFully(channel, &value, sizeof value);
}

std::optional<int64_t> receiveValue(int channel, std::chrono::milliseconds timeout) {
    int64_t value = 0;
    if (!tvproc::readFullyWithin(channel, &value, sizeof value, timeout)) return std::nullopt;
    return value;
}

ChildProcess::ChildProcess(const Body& body) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        perror("socketpair");
        return;
    }
    const pid_t parent = getpid();
    mPid = fork();
    if (mPid == 0) {
        close(ends[0]);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(1);
        const int status = body(ends[1]);
        fflush(stdout);
        _exit(status);
    }
    close(ends[1]);
    if (mPid < 0) {
        perror("fork");
        close(ends[0]);
        return;
    }
    mChannel = ends[0];
}

ChildProcess::~ChildProcess() {
    finish(std::chrono::milliseconds(0));
}

bool ChildProcess::send(int64_t value) const {
    return mChannel >= 0 && sendValue(mChannel, value);
}

std::optional<int64_t> ChildProcess::receive(std::chrono::milliseconds timeout) const {
    if (mChannel < 0) return std::nullopt;
    return receiveValue(mChannel, timeout);
}

void ChildProcess::closeChannel() {
    if (mChannel >= 0) close(mChannel);
    mChannel = -1;
}

bool ChildProcess::finish(std::chrono::milliseconds timeout) {
    closeChannel();
    if (mPid <= 0) return false;
    const int status = tvproc::waitForExit(mPid, timeout);
    if (status == -1) tvproc::killAndReap(mPid);
    mPid = -1;
    return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}
