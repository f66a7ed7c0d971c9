#include "utils/AutoLock.h"

namespace tavrin {

AutoLock::AutoLock(Mutex& mutex) : mMutex(&mutex) {
    mMutex->lock();
}

AutoLock::~AutoLock() {
    mMutex->unlock();
}

}  // namespace tavrin
