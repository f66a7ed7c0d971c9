#pragma once

#include <pthread.h>

namespace tavrin {

// A plain pthread mutex: neither recursive nor error-checking. Take it
// through AutoLock.
class Mutex {
  public:
    Mutex();
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // Return pthread's result code.
    int lock();
    int unlock();

  private:
    pthread_mutex_t mMutex;
};

}  // namespace tavrin
