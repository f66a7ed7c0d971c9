#include "utils/Mutex.h"

namespace tavrin {

Mutex::Mutex() {
    pthread_mutex_init(&mMutex, nullptr);
}

Mutex::~Mutex() {
    pthread_mutex_destroy(&mMutex);
}

int Mutex::lock() {
    return pthread_mutex_lock(&mMutex);
}

int Mutex::unlock() {
    return pthread_mutex_unlock(&mMutex);
}

}  // namespace tavrin
