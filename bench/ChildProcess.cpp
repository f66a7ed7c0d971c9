#include "ChildProcess.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "BenchSupport.h"

namespace {

bool readFullyWithin(int fd, void* data, size_t size, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    char* bytes = static_cast<char*>(data);
    while (size > 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        struct pollfd readable = {fd, POLLIN, 0};
        const int polled = poll(&readable, 1, static_cast<int>(std::max<int64_t>(0, left.count())));
        if (polled < 0 && errno == EINTR) continue;
        if (polled <= 0) return false;
        const ssize_t got = read(fd, bytes, size);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        bytes += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

}  // namespace

bool sendValue(int channel, int64_t value) {
    return writeFully(channel, &value, sizeof value);
}

std::optional<int64_t> receiveValue(int channel, std::chrono::milliseconds timeout) {
    int64_t value = 0;
    if (!readFullyWithin(channel, &value, sizeof value, timeout)) return std::nullopt;
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
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    pid_t waited = waitpid(mPid, &status, WNOHANG);
    while (waited == 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        waited = waitpid(mPid, &status, WNOHANG);
    }
    if (waited == 0) {
        kill(mPid, SIGKILL);
        waitpid(mPid, &status, 0);
    }
    mPid = -1;
    return waited > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}
