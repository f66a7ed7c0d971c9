#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>
#include <pthread.h>
#include <unistd.h>

#include "calls/ThreadCalls.h"
#include "runtime/Runtime.h"

namespace android {

namespace {

pthread_key_t threadStateKey(void (*destructor)(void*)) {
    static pthread_key_t key = [destructor] {
        pthread_key_t created;
        pthread_key_create(&created, destructor);
        return created;
    }();
    return key;
}

}  // namespace

IPCThreadState* IPCThreadState::self() {
    IPCThreadState* state = selfOrNull();
    if (state == nullptr) {
        state = new IPCThreadState();
        pthread_setspecific(threadStateKey(destroy), state);
    }
    return state;
}

IPCThreadState* IPCThreadState::selfOrNull() {
    return static_cast<IPCThreadState*>(pthread_getspecific(threadStateKey(destroy)));
}

IPCThreadState::IPCThreadState() = default;

IPCThreadState::~IPCThreadState() = default;

void IPCThreadState::destroy(void* state) {
    delete static_cast<IPCThreadState*>(state);
}

sp<ProcessState> IPCThreadState::process() {
    return ProcessState::self();
}

// The calling identity is the thread's, not this object's: an
// IPCThreadState is only the platform's way to ask for it.
pid_t IPCThreadState::getCallingPid() const {
    const pid_t caller = tvbinder::ThreadCalls::self().callingPid();
    return caller != 0 ? caller : getpid();
}

uid_t IPCThreadState::getCallingUid() const {
    const tvbinder::ThreadCalls& thread = tvbinder::ThreadCalls::self();
    return thread.callingPid() != 0 ? thread.callingUid() : getuid();
}

int IPCThreadState::dupCallingPidFd() const {
    return tvbinder::ThreadCalls::self().dupCallingPidfd();
}

int64_t IPCThreadState::clearCallingIdentity() {
    return tvbinder::ThreadCalls::self().clearCallingIdentity();
}

void IPCThreadState::restoreCallingIdentity(int64_t token) {
    tvbinder::ThreadCalls::self().restoreCallingIdentity(token);
}

void IPCThreadState::joinThreadPool(bool isMain) {
    ProcessState::self()->runtime().pool().join(isMain);
}

void IPCThreadState::flushCommands() {}

void IPCThreadState::setTheContextObject(const sp<BBinder>& object) {
    ProcessState::self()->runtime().contextManager().setObject(object);
}

}  // namespace android
