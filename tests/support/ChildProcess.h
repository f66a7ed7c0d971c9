#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// Child processes of the tests and the benchmark, and the channel to them.
namespace tvtest {

// One end of a stream socket to another process, carrying lines of text;
// every wait is bounded. send() may be called from any thread, the rest from
// one thread at a time.
class Channel {
  public:
    explicit Channel(int fd = -1) : mFd(fd) {}
    ~Channel() { close(); }
    Channel(Channel&& other) noexcept { *this = std::move(other); }
    // Takes over `other`'s descriptor; this one's is closed when `other` goes.
    Channel& operator=(Channel&& other) noexcept {
        std::swap(mFd, other.mFd);
        mPending.swap(other.mPending);
        return *this;
    }

    bool send(const std::string& line) const;
    // The next line, or "" after `timeout` or once the other end has closed.
    std::string receive(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    // What comes until the other end closes, within `timeout`.
    std::string receiveAll(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    bool sendValue(int64_t value) const { return send(std::to_string(value)); }
    std::optional<int64_t> receiveValue(std::chrono::milliseconds timeout);
    // True once there is something to read, or the other end has closed.
    bool readable(std::chrono::milliseconds timeout) const;
    void close();

  private:
    int mFd = -1;
    std::string mPending;
};

// A program to run: the path, then its arguments.
struct Program {
    std::vector<std::string> argv;
};

// A child process and the channel to it. It dies with its parent and is
// killed and reaped when this object goes, so that nothing outlives a test.
// Used by the thread that made it.
class ChildProcess {
  public:
    using Body = std::function<int(Channel& parent)>;
    // A fork that runs `body` and exits with its result.
    explicit ChildProcess(const Body& body);
    // A fresh copy of this program in `role` (see TVTEST_CHILD_ROLE), its
    // environment this process's changed by `environment` ("NAME=value" sets,
    // "NAME" removes); the channel is its ParentChannel.
    ChildProcess(const std::string& role, const std::vector<std::string>& args = {},
                 const std::vector<std::string>& environment = {});
    // The channel is the program's stdout, errors() its stderr.
    explicit ChildProcess(const Program& program);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return mPid; }
    Channel& channel() { return mChannel; }
    Channel& errors() { return mErrors; }
    std::string readLine(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        return mChannel.receive(timeout);
    }
    void writeLine(const std::string& line) { mChannel.send(line); }
    void kill(int signal);
    // The exit status (as from waitpid), or -1 if it did not end in time.
    int wait(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    // Closes the channel and waits for the end, killing the child past
    // `timeout`: its exit code, or -1 when it did not exit by itself.
    int finish(std::chrono::milliseconds timeout = std::chrono::seconds(20));

  private:
    // Starts `argv` with the child's end of the channel at `channelFd`.
    void spawn(std::vector<std::string> argv, int channelFd, bool withErrors,
               const std::vector<std::string>& environment = {});

    pid_t mPid = -1;
    bool mReaped = false;
    Channel mChannel;
    Channel mErrors;
};

// The child's side of the channel, in a role.
class ParentChannel {
  public:
    static void send(const std::string& line) { channel().send(line); }
    // The next line from the test, or "" after `timeout` or when it is gone.
    static std::string receive(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        return channel().receive(timeout);
    }

  private:
    static Channel& channel();
};

// Child roles: functions that run instead of the tests in a child process.
using ChildRole = int (*)(const std::vector<std::string>& args);
struct ChildRoleRegistration {
    ChildRoleRegistration(const char* name, ChildRole role);
};
// When the program was started as `--child=<role> args...`, runs that role
// and stores its exit status in *status; false otherwise.
bool runChildRoleIfAsked(int argc, char** argv, int* status);

#define TVTEST_CHILD_ROLE(name)                                                                   \
    static int childRole_##name(const std::vector<std::string>& args);                            \
    static ::tvtest::ChildRoleRegistration childRoleRegistration_##name(#name, childRole_##name); \
    static int childRole_##name(const std::vector<std::string>& args)

}  // namespace tvtest
