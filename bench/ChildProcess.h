#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>

// A forked process running one function, with a stream socket to talk to it.
// The child dies with the benchmark driver (PR_SET_PDEATHSIG) and is killed
// and reaped when this object goes away, so a failed run leaves nothing behind.
class ChildProcess {
  public:
    // Returns the child's exit status; it receives its end of the channel.
    using Body = std::function<int(int channel)>;

    explicit ChildProcess(const Body& body);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return mPid; }
    bool send(int64_t value) const;
    std::optional<int64_t> receive(std::chrono::milliseconds timeout) const;
    // Tells the child to finish: it sees end of file on its channel.
    void closeChannel();
    // Waits up to `timeout` for the child to exit, then kills it. True when it
    // exited by itself with status 0.
    bool finish(std::chrono::milliseconds timeout);

  private:
    pid_t mPid = -1;
    int mChannel = -1;
};

// The child's side of the channel.
bool sendValue(int channel, int64_t value);
std::optional<int64_t> receiveValue(int channel, std::chrono::milliseconds timeout);
