#include "ChildProcess.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <set>

#include "ProcSupport.h"

extern char** environ;

namespace tvtest {

namespace {

// A child in a role talks to its parent on this descriptor.
constexpr int kParentChannelFd = 3;

std::map<std::string, ChildRole>& roles() {
    static auto* registry = new std::map<std::string, ChildRole>;
    return *registry;
}

// For exec: the strings' characters, then a null pointer.
std::vector<char*> pointersTo(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    for (std::string& text : strings) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

bool socketPair(int ends[2]) {
    return socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0;
}

}  // namespace

bool Channel::send(const std::string& line) const {
    const std::string text = line + "\n";
    return mFd >= 0 && tvproc::writeFully(mFd, text.data(), text.size());
}

std::string Channel::receive(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    size_t newline;
    while ((newline = mPending.find('\n')) == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (mFd < 0 || left.count() <= 0 || !tvproc::readSomeWithin(mFd, &mPending, left)) {
            return "";
        }
    }
    std::string line = mPending.substr(0, newline);
    mPending.erase(0, newline + 1);
    return line;
}

std::string Channel::receiveAll(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (mFd >= 0 && tvproc::readSomeWithin(mFd, &mPending,
                                              std::chrono::duration_cast<std::chrono::milliseconds>(
                                                  deadline - std::chrono::steady_clock::now()))) {
    }
    return std::move(mPending);
}

std::optional<int64_t> Channel::receiveValue(std::chrono::milliseconds timeout) {
    const std::string line = receive(timeout);
    char* end = nullptr;
    const long long value = strtoll(line.c_str(), &end, 10);
    if (line.empty() || *end != '\0') return std::nullopt;
    return value;
}

bool Channel::readable(std::chrono::milliseconds timeout) const {
    pollfd waiter{mFd, POLLIN, 0};
    return !mPending.empty() || poll(&waiter, 1, static_cast<int>(timeout.count())) != 0;
}

void Channel::close() {
    if (mFd >= 0) ::close(mFd);
    mFd = -1;
    mPending.clear();
}

ChildProcess::ChildProcess(const Body& body) {
    int ends[2];
    if (!socketPair(ends)) return;
    const pid_t parent = getpid();
    mPid = fork();
    if (mPid == 0) {
        ::close(ends[0]);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(126);
        Channel channel(ends[1]);
        const int status = body(channel);
        fflush(stdout);
        _exit(status);
    }
    ::close(ends[1]);
    mChannel = Channel(ends[0]);
}

ChildProcess::ChildProcess(const std::string& role, const std::vector<std::string>& args,
                           const std::vector<std::string>& environment) {
    std::vector<std::string> argv{"/proc/self/exe", "--child=" + role};
    argv.insert(argv.end(), args.begin(), args.end());
    spawn(argv, kParentChannelFd, false, environment);
}

ChildProcess::ChildProcess(const Program& program) {
    spawn(program.argv, STDOUT_FILENO, true);
}

void ChildProcess::spawn(std::vector<std::string> argv, int channelFd, bool withErrors,
                         const std::vector<std::string>& environment) {
    int channel[2];
    int errors[2] = {-1, -1};
    if (!socketPair(channel) || (withErrors && !socketPair(errors))) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, channel[1], channelFd);
    if (withErrors) posix_spawn_file_actions_adddup2(&actions, errors[1], STDERR_FILENO);
    std::vector<std::string> variables;
    std::set<std::string> changed;
    for (const std::string& change : environment) {
        changed.insert(change.substr(0, change.find('=')));
        if (change.find('=') != std::string::npos) variables.push_back(change);
    }
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable;
        if (changed.count(text.substr(0, text.find('='))) == 0) variables.push_back(text);
    }
    if (posix_spawn(&mPid, argv[0].c_str(), &actions, nullptr, pointersTo(argv).data(),
                    pointersTo(variables).data()) != 0) {
        mPid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    ::close(channel[1]);
    if (withErrors) ::close(errors[1]);
    mChannel = Channel(channel[0]);
    mErrors = Channel(errors[0]);
}

ChildProcess::~ChildProcess() {
    if (mPid > 0 && !mReaped) tvproc::killAndReap(mPid);
}

void ChildProcess::kill(int signal) {
    if (mPid > 0 && !mReaped) ::kill(mPid, signal);
}

int ChildProcess::wait(std::chrono::milliseconds timeout) {
    if (mPid <= 0 || mReaped) return -1;
    const int status = tvproc::waitForExit(mPid, timeout);
    mReaped = status != -1;
    return status;
}

int ChildProcess::finish(std::chrono::milliseconds timeout) {
    mChannel.close();
    const int status = wait(timeout);
    return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Channel& ParentChannel::channel() {
    static auto* const channel = new Channel(kParentChannelFd);
    return *channel;
}

ChildRoleRegistration::ChildRoleRegistration(const char* name, ChildRole role) {
    roles()[name] = role;
}

bool runChildRoleIfAsked(int argc, char** argv, int* status) {
    static const char kPrefix[] = "--child=";
    if (argc < 2 || strncmp(argv[1], kPrefix, sizeof(kPrefix) - 1) != 0) return false;
    auto it = roles().find(argv[1] + sizeof(kPrefix) - 1);
    if (it == roles().end()) {
        *status = 127;
        return true;
    }
    // A child never outlives the test that started it.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    *status = getppid() == 1 ? 126 : it->second(std::vector<std::string>(argv + 2, argv + argc));
    return true;
}

}  // namespace tvtest
