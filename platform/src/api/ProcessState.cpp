#include <binder/IBinder.h>
#include <binder/ProcessState.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <mutex>

#include "base/TransportFds.h"
#include "runtime/Runtime.h"

namespace android {

namespace {

std::mutex& processLock() {
    static auto* lock = new std::mutex;  // usable until the very end of the process
    return *lock;
}

sp<ProcessState>& processSingleton() {
    static auto* process = new sp<ProcessState>;
    return *process;
}

void lockForFork() {
    processLock().lock();
    tvbinder::TransportFds::lockForFork();
}

void unlockInParent() {
    tvbinder::TransportFds::unlockInParent();
    processLock().unlock();
}

// The child must get its own endpoint: it drops every descriptor of the
// transport and starts afresh on its next ProcessState::self().
void resetInChild() {
    tvbinder::TransportFds::closeAllInChild();
    tvbinder::Runtime::abandonInChild();
    processSingleton().clear();
    processLock().unlock();
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
    std::lock_guard<std::mutex> guard(processLock());
    sp<ProcessState>& process = processSingleton();
    if (process == nullptr) process = new ProcessState();
    return process;
}

sp<ProcessState> ProcessState::selfOrNull() {
    std::lock_guard<std::mutex> guard(processLock());
    return processSingleton();
}

ProcessState::ProcessState() : mRuntime(tvbinder::Runtime::create()) {}

ProcessState::~ProcessState() = default;

sp<IBinder> ProcessState::getContextObject(const sp<IBinder>& /*caller*/) {
    return mRuntime->contextObject();
}

bool ProcessState::becomeContextManager() {
    return mRuntime->becomeContextManager();
}

void ProcessState::startThreadPool() {
    mRuntime->pool().start();
}

status_t ProcessState::setThreadPoolMaxThreadCount(size_t maxThreads) {
    mRuntime->pool().setMaxThreads(maxThreads);
    return NO_ERROR;
}

size_t ProcessState::getThreadPoolMaxThreadCount() const {
    return mRuntime->pool().maxThreads();
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
    std::lock_guard<std::mutex> guard(processLock());
    rewriteArgv0(name);
}

}  // namespace android
