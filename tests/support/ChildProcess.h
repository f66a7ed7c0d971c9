#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace tvtest {

// A copy of the test program started with `--child=<role> args...`, talking
// to the test over two pipes (lines of text). The destructor kills and reaps
// it, so that no test leaves a process behind.
class ChildProcess {
  public:
    ChildProcess(const std::string& role, const std::vector<std::string>& args = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return mPid; }
    // The next line the child sent, or "" after `timeout` or at its end.
    std::string readLine(std::chrono::milliseconds timeout = std::chrono::seconds(20));
    void writeLine(const std::string& line);
    void kill(int signal);
    // The exit status (as from waitpid), or -1 if it did not end in time.
    int wait(std::chrono::milliseconds timeout = std::chrono::seconds(20));

  private:
    pid_t mPid = -1;
    bool mReaped = false;
    int mFromChild = -1;
    int mToChild = -1;
    std::string mPending;
};

// The child's side of the pipes.
class ParentChannel {
  public:
    static void send(const std::string& line);
    // The next line from the test, or "" after `timeout` or when it is gone.
    static std::string receive(std::chrono::milliseconds timeout = std::chrono::seconds(20));
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
