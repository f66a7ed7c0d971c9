#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <map>

#include "utils/Mutex.h"

namespace tavrin_binder {

// Bounds the GET_SUB_SERVICE requests that wait in this process, each on a
// binder thread of its own: all services of the process together keep half
// of the pool for everything else, and one calling process gets at most
// half of what is left to waiters, so that it cannot starve the others.
//
// One per process, never destroyed. Binder threads; mLock guards the counts.
class WaiterQuota {
  public:
    static WaiterQuota& self();

    // Counts a waiter of `caller`; false, counting nothing, when there is no
    // room for it.
    bool admit(pid_t caller);
    void release(pid_t caller);

  private:
    WaiterQuota() = default;

    tavrin::Mutex mLock;
    size_t mWaiting = 0;
    std::map<pid_t, size_t> mWaitingOf;  // callers with at least one waiter
};

}  // namespace tavrin_binder
