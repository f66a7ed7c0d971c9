#include "ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <stdexcept>

#include "ProcSupport.h"

extern char** environ;

namespace tvtest {

namespace {

// The child reads the test's lines on fd 3 and writes its own on fd 4.
constexpr int kChildInputFd = 3;
constexpr int kChildOutputFd = 4;

std::map<std::string, ChildRole>& roles() {
    static auto* registry = new std::map<std::string, ChildRole>;
    return *registry;
}

// Reads one line from `fd` into `pending`'s front; "" on timeout or end.
std::string readLineFrom(int fd, std::string* pending, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    size_t newline;
    while ((newline = pending->find('\n')) == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !tvproc::readSomeWithin(fd, pending, left)) return "";
    }
    std::string line = pending->substr(0, newline);
    pending->erase(0, newline + 1);
    return line;
}

void writeLineTo(int fd, const std::string& line) {
    const std::string text = line + "\n";
    tvproc::writeFully(fd, text.data(), text.size());
}

}  // namespace

ChildProcess::ChildProcess(const std::string& role, const std::vector<std::string>& args) {
    int toChild[2];
    int fromChild[2];
    if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe2 failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, toChild[0], kChildInputFd);
    posix_spawn_file_actions_adddup2(&actions, fromChild[1], kChildOutputFd);

    std::string roleArgument = "--child=" + role;
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>("/proc/self/exe"));
    argv.push_back(roleArgument.data());
    std::vector<std::string> copies = args;
    for (std::string& arg : copies) argv.push_back(arg.data());
    argv.push_back(nullptr);
    int error = posix_spawn(&mPid, "/proc/self/exe", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(toChild[0]);
    close(fromChild[1]);
    mToChild = toChild[1];
    mFromChild = fromChild[0];
    if (error != 0) {
        close(mToChild);
        close(mFromChild);
        throw std::runtime_error(std::string("posix_spawn failed: ") + strerror(error));
    }
}

ChildProcess::~ChildProcess() {
    if (!mReaped) tvproc::killAndReap(mPid);
    close(mToChild);
    close(mFromChild);
}

std::string ChildProcess::readLine(std::chrono::milliseconds timeout) {
    return readLineFrom(mFromChild, &mPending, timeout);
}

void ChildProcess::writeLine(const std::string& line) {
    writeLineTo(mToChild, line);
}

void ChildProcess::kill(int signal) {
    if (!mReaped) ::kill(mPid, signal);
}

int ChildProcess::wait(std::chrono::milliseconds timeout) {
    if (mReaped) return -1;
    const int status = tvproc::waitForExit(mPid, timeout);
    mReaped = status != -1;
    return status;
}

void ParentChannel::send(const std::string& line) {
    writeLineTo(kChildOutputFd, line);
}

std::string ParentChannel::receive(std::chrono::milliseconds timeout) {
    static std::string pending;
    return readLineFrom(kChildInputFd, &pending, timeout);
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
