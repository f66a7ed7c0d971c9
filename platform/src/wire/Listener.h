#pragma once

#include <sys/types.h>
#include <utils/Errors.h>

#include <string>

#include "base/EventSource.h"
#include "base/TransportFds.h"

namespace android {
namespace tvbinder {

// A listening SOCK_SEQPACKET socket on a socket file of the user's socket
// directory.
class Listener : public EventSource {
  public:
    // `answersHello`: connections accepted here learn this process's endpoint
    // (the context manager's address is not derived from it).
    explicit Listener(bool answersHello)
        : EventSource(Type::kListener), mAnswersHello(answersHello) {}

    // EADDRINUSE (as a negative status) when a live process has the address;
    // a stale socket file there is replaced.
    status_t listenOn(const std::string& address);
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
