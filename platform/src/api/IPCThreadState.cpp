#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>
#include <pthread.h>
#include <unistd.h>

#include "calls/ChainRegistry.h"
#include "peers/Peer.h"
#include "runtime/Runtime.h"
#include "wire/Connection.h"

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

IPCThreadState::~IPCThreadState() {
    delete mMailbox;
}

void IPCThreadState::destroy(void* state) {
    delete static_cast<IPCThreadState*>(state);
}

sp<ProcessState> IPCThreadState::process() {
    return ProcessState::self();
}

pid_t IPCThreadState::getCallingPid() const {
    return mCallingPid != 0 ? mCallingPid : getpid();
}

uid_t IPCThreadState::getCallingUid() const {
    return mCallingPid != 0 ? mCallingUid : getuid();
}

int IPCThreadState::dupCallingPidFd() const {
    // The innermost connection served is the caller's only when the call
    // being executed is that synchronous one, not a one-way within it.
    if (mServing.empty() || mCallingPid == 0) return -1;
    const tvbinder::Connection& connection = *mServing.back().first;
    if (connection.peerPid() != mCallingPid || connection.peer() == nullptr) return -1;
    return connection.peer()->dupPidfd();
}

int64_t IPCThreadState::clearCallingIdentity() {
    const int64_t token =
        (int64_t{static_cast<int32_t>(mCallingUid)} << 32) | static_cast<uint32_t>(mCallingPid);
    mCallingPid = 0;
    mCallingUid = 0;
    return token;
}

void IPCThreadState::restoreCallingIdentity(int64_t token) {
    mCallingUid = static_cast<uid_t>(static_cast<uint64_t>(token) >> 32);
    mCallingPid = static_cast<pid_t>(static_cast<uint32_t>(token));
}

void IPCThreadState::joinThreadPool(bool isMain) {
    ProcessState::self()->runtime().pool().join(isMain);
}

void IPCThreadState::flushCommands() {}

void IPCThreadState::setTheContextObject(const sp<BBinder>& object) {
    ProcessState::self()->runtime().setContextObject(object);
}

}  // namespace android
