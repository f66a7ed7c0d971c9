#include <binder/IBinder.h>
#include <binder/ProcessState.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>

#include "base/Locks.h"
#include "base/TransportFds.h"
#include "runtime/Runtime.h"

namespace android {

namespace {

// The process's one ProcessState, made on first use.
struct Singleton {
    // Held across fork(), with the descriptor registry's.
    tvbinder::Mutex lock{tvbinder::LockRank::kProcess};
    // Making the runtime binds its endpoint under the socket directory's
    // lock, which other processes take too: it is made without ours, and
    // other threads wait for it here.
    std::condition_variable_any made;
    sp<ProcessState> process TV_GUARDED_BY(lock);
    bool making TV_GUARDED_BY(lock) = false;
};

Singleton& singleton() {
    static auto* one = new Singleton;  // usable until the very end of the process
    return *one;
}

// The three fork handlers take the locks in one and release them in another.
void lockForFork() TV_NO_THREAD_SAFETY_ANALYSIS {
    singleton().lock.lock();
    tvbinder::TransportFds::lockForFork();
}

void unlockInParent() TV_NO_THREAD_SAFETY_ANALYSIS {
    tvbinder::TransportFds::unlockInParent();
    singleton().lock.unlock();
}

// The child must get its own endpoint: it drops every descriptor of the
// transport and starts afresh on its next ProcessState::self().
void resetInChild() TV_NO_THREAD_SAFETY_ANALYSIS {
    tvbinder::TransportFds::closeAllInChild();
    tvbinder::Runtime::abandonInChild();
    Singleton& one = singleton();
    one.process.clear();
    one.making = false;  // the thread making it stayed in the parent
    one.lock.unlock();
}

// Overwrites argv[0] in place, so that the command line shows the name too.
void rewriteArgv0(const char* name) {
    char* argv0 = program_invocation_name;
    if (argv0 == nullptr) return;
    const size_t room = strlen(argv0);
    const size_t length = std::min(strlen(name), room);
    memcpy(argv0, name, length);
    memset(argv0 + length, 0, room - length);
}

}  // namespace

sp<ProcessState> ProcessState::self() {
    static std::once_flag forkHandlers;
    std::call_once(forkHandlers, [] { pthread_atfork(lockForFork, unlockInParent, resetInChild); });
    Singleton& one = singleton();
    {
        tvbinder::LockGuard guard(one.lock);
        while (one.making) one.made.wait(one.lock);
        if (one.process != nullptr) return one.process;
        one.making = true;
    }
    sp<ProcessState> made = new ProcessState();
    {
        tvbinder::LockGuard guard(one.lock);
        one.process = made;
        one.making = false;
    }
    one.made.notify_all();
    return made;
}

sp<ProcessState> ProcessState::selfOrNull() {
    Singleton& one = singleton();
    tvbinder::LockGuard guard(one.lock);
    return one.process;
}

ProcessState::ProcessState() : mRuntime(tvbinder::Runtime::create()) {}

ProcessState::~ProcessState() = default;

sp<IBinder> ProcessState::getContextObject(const sp<IBinder>& /*caller*/) {
    return mRuntime.contextManager().object();
}

bool ProcessState::becomeContextManager() {
    return mRuntime.contextManager().claim();
}

void ProcessState::startThreadPool() {
    mRuntime.pool().start();
}

status_t ProcessState::setThreadPoolMaxThreadCount(size_t maxThreads) {
    mRuntime.pool().setMaxThreads(maxThreads);
    return NO_ERROR;
}

size_t ProcessState::getThreadPoolMaxThreadCount() const {
    return mRuntime.pool().maxThreads();
}

void ProcessState::setProcessName(const char* name) {
    if (name == nullptr) return;
    prctl(PR_SET_NAME, name, 0, 0, 0);
    // /proc/self/comm is the main thread's name, whichever thread writes it:
    // it is what ps shows for the process.
    int fd = open("/proc/self/comm", O_WRONLY | O_CLOEXEC);
    if (fd >= 0) {
        ssize_t written = write(fd, name, strlen(name));
        (void)written;
        close(fd);
    }
    Singleton& one = singleton();
    tvbinder::LockGuard guard(one.lock);
    rewriteArgv0(name);
}

}  // namespace android
