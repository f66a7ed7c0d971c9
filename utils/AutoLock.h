#pragma once

#include "utils/Mutex.h"

namespace tavrin {

// Holds a Mutex for the lifetime of the object, so every way out of a block
// releases it. The mutex is not recursive: never nest two on one Mutex.
class AutoLock {
  public:
    explicit AutoLock(Mutex& mutex);
    ~AutoLock();
    AutoLock(const AutoLock&) = delete;
    AutoLock& operator=(const AutoLock&) = delete;

  private:
    Mutex* mMutex;
};

}  // namespace tavrin
