#pragma once

#include <stdint.h>
#include <sys/types.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

namespace android {

class BBinder;
class ProcessState;

// Per-thread state of the transport: who is calling the transaction that the
// thread is executing. Kept by the transport for each thread; this class
// answers for it.
class IPCThreadState {
  public:
    static IPCThreadState* self();
    // The calling thread's state, or null when it has none yet.
    static IPCThreadState* selfOrNull();

    sp<ProcessState> process();

    // The caller of the transaction being executed, as the kernel reported
    // it for the connection; outside a transaction, this process.
    pid_t getCallingPid() const;
    uid_t getCallingUid() const;
    // A new pidfd (O_CLOEXEC) of the process whose synchronous call this
    // thread is serving, or -1: outside such a call, after
    // clearCallingIdentity(), or once that process has exited. Unlike the
    // pid, it cannot come to name another process.
    int dupCallingPidFd() const;
    // Until restoreCallingIdentity(token), the caller reads as this process.
    int64_t clearCallingIdentity();
    void restoreCallingIdentity(int64_t token);

    // Turns the calling thread into a pool thread for good (not counted
    // against the pool's maximum).
    void joinThreadPool(bool isMain = true);
    // Sends are never buffered; kept for callers written for the platform.
    void flushCommands();

    // Serves `object` as the context manager's object once
    // ProcessState::becomeContextManager succeeded.
    void setTheContextObject(const sp<BBinder>& object);

  private:
    IPCThreadState();
    ~IPCThreadState();
    static void destroy(void* state);
};

}  // namespace android
