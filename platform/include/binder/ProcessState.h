#pragma once

#include <stddef.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>

namespace android {

class IBinder;

namespace tvbinder {
class Runtime;
}  // namespace tvbinder

// The process's side of the transport: its endpoint, its thread pool and its
// way to the context manager. The context (TAVRIN_BINDER_CONTEXT, "default"
// when unset) is read once, when the first ProcessState is made. A child made
// by fork() starts afresh with its own endpoint.
class ProcessState : public virtual RefBase {
  public:
    static sp<ProcessState> self();
    // The existing instance, or null when none was made yet.
    static sp<ProcessState> selfOrNull();

    // The context manager's object, always the same proxy while the manager
    // lives; null while no context manager listens.
    sp<IBinder> getContextObject(const sp<IBinder>& caller);
    // Claims the context: false when another live process already holds it.
    // The object served is the one given to IPCThreadState::setTheContextObject.
    bool becomeContextManager();

    // Starts the main pool thread; later calls do nothing.
    void startThreadPool();
    // The most threads the pool spawns on demand (main and joined threads not counted).
    status_t setThreadPoolMaxThreadCount(size_t maxThreads);
    size_t getThreadPoolMaxThreadCount() const;

    // Names the process: its main thread's name (what ps shows), the calling
    // thread's name and, as far as it fits, its command line.
    void setProcessName(const char* name);

    // ---- For the transport only ----
    tvbinder::Runtime& runtime() const { return mRuntime; }

  private:
    ProcessState();
    ~ProcessState() override;

    tvbinder::Runtime& mRuntime;  // lives as long as the process (pool threads use it)
};

}  // namespace android
