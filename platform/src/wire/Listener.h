#pragma once

#include <sys/types.h>
#include <utils/Errors.h>

#include <string>

#include "base/TransportFds.h"

namespace android {
namespace tvbinder {

// A listening SOCK_SEQPACKET socket on a socket file of the user's socket
// directory. Made and kept by its owner (the Runtime, the ContextManager);
// accepted on by the Acceptor.
class Listener {
  public:
    // `answersHello`: connections accepted here learn this process's endpoint
    // (the context manager's address is not derived from it).
    explicit Listener(bool answersHello) : mAnswersHello(answersHello) {}

    // EADDRINUSE (as a negative status) when a live process has the address;
    // a stale socket file there is replaced. Takes the socket directory's
    // lock, which other processes take too: never called under a lock.
    [[nodiscard]] status_t listenOn(const std::string& address);
    // At a clean exit: the socket file goes (only in the process that made it).
    void removeSocketFile();
    // A new connection's descriptor, or -1 when none is waiting.
    int acceptOne();

    int fd() const { return mFd.get(); }
    bool answersHello() const { return mAnswersHello; }

  private:
    ScopedFd mFd;
    const bool mAnswersHello;
    std::string mPath;
    pid_t mOwner = 0;
};

}  // namespace tvbinder
}  // namespace android
