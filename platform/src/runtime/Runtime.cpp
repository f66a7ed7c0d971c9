#define LOG_TAG "tvbinder"

#include "runtime/Runtime.h"

#include <log/log.h>
#include <stdlib.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "base/Token.h"
#include "wire/SocketDirectory.h"

namespace android {
namespace tvbinder {

namespace {

// Sockets of processes that were killed: looked at when a process starts.
constexpr size_t kStaleSocketsLookedAt = 256;

std::atomic<Runtime*> gCurrent{nullptr};
// Runtimes a forked child left behind stay reachable: parts of them may still
// be referenced by objects the child inherited.
std::vector<Runtime*>* gAbandoned = nullptr;

std::string contextFromEnvironment() {
    const char* context = getenv("TAVRIN_BINDER_CONTEXT");
    return context != nullptr && context[0] != '\0' ? context : "default";
}

void removeSocketFilesAtExit() {
    if (Runtime* runtime = Runtime::current()) runtime->removeSocketFiles();
}

}  // namespace

Runtime* Runtime::current() {
    return gCurrent.load(std::memory_order_acquire);
}

Runtime& Runtime::create() {
    // Never destroyed: pool threads use it until the process ends.
    auto* runtime = new Runtime();
    status_t status = runtime->start();
    LOG_ALWAYS_FATAL_IF(status != NO_ERROR, "cannot set up the binder endpoint: %d", status);
    gCurrent.store(runtime, std::memory_order_release);
    return *runtime;
}

void Runtime::abandonInChild() {
    Runtime* runtime = gCurrent.exchange(nullptr);
    if (runtime == nullptr) return;
    if (gAbandoned == nullptr) gAbandoned = new std::vector<Runtime*>;
    gAbandoned->push_back(runtime);
}

Runtime::Runtime()
    : mEndpoint(Token::random().hi),
      mContextManager(mAcceptor, mExports, mPeers, mProxies, contextFromEnvironment(), mEndpoint) {}

status_t Runtime::start() {
    static std::once_flag atExit;
    std::call_once(atExit, [] { atexit(removeSocketFilesAtExit); });
    SocketDirectory::removeStale(kStaleSocketsLookedAt);
    mAccounts.init();
    mPeers.setMaxWatched(mAccounts.maxWatchedProcesses());
    mAcceptor.init();
    status_t status = mPool.init();
    if (status == NO_ERROR) status = mStallGuard.init();
    if (status == NO_ERROR) status = mRingTrimmer.init();
    if (status != NO_ERROR) return status;
    status = mListener.listenOn(endpointAddress(mEndpoint));
    if (status != NO_ERROR) return status;
    mAcceptor.watch(mListener);
    return NO_ERROR;
}

void Runtime::removeSocketFiles() {
    mListener.removeSocketFile();
    mContextManager.removeSocketFile();
}

}  // namespace tvbinder
}  // namespace android
