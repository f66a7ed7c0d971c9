#define LOG_TAG "tvbinder"

#include "ThreadPool.h"

#include <binder/IPCThreadState.h>
#include <errno.h>
#include <log/log.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>

#include <thread>

#include "Runtime.h"

namespace android {
namespace tvbinder {

namespace {

constexpr uint32_t kEvents = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;

}  // namespace

ThreadPool::ThreadPool(Runtime& runtime) : mRuntime(runtime) {}

status_t ThreadPool::init() {
    mEpoll = ScopedFd(epoll_create1(EPOLL_CLOEXEC));
    return mEpoll.valid() ? NO_ERROR : -errno;
}

void ThreadPool::add(EventSource* source, int fd) {
    epoll_event event{};
    event.events = kEvents;
    event.data.ptr = source;
    if (epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
        ALOGE("cannot watch descriptor %d: %s", fd, strerror(errno));
    }
}

void ThreadPool::rearm(EventSource* source, int fd) {
    epoll_event event{};
    event.events = kEvents;
    event.data.ptr = source;
    if (epoll_ctl(mEpoll.get(), EPOLL_CTL_MOD, fd, &event) != 0) {
        ALOGE("cannot re-arm descriptor %d: %s", fd, strerror(errno));
    }
}

void ThreadPool::remove(int fd) {
    epoll_ctl(mEpoll.get(), EPOLL_CTL_DEL, fd, nullptr);
}

void ThreadPool::start() {
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mStarted) return;
        mStarted = true;
    }
    spawn(true);
}

void ThreadPool::setMaxThreads(size_t maxThreads) {
    std::lock_guard<std::mutex> guard(mLock);
    mMaxThreads = maxThreads;
}

size_t ThreadPool::maxThreads() const {
    std::lock_guard<std::mutex> guard(mLock);
    return mMaxThreads;
}

void ThreadPool::spawn(bool isMain) {
    size_t number;
    {
        std::lock_guard<std::mutex> guard(mLock);
        number = ++mNamed;
    }
    std::thread([isMain, number] {
        char name[16];
        snprintf(name, sizeof(name), "tvbinder:%zu", number);
        pthread_setname_np(pthread_self(), name);
        IPCThreadState::self()->joinThreadPool(isMain);
    }).detach();
}

void ThreadPool::onEventTaken() {
    if (mWaiting.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mSpawned >= mMaxThreads) return;
        ++mSpawned;
    }
    spawn(false);
}

void ThreadPool::join(bool /*isMain*/) {
    for (;;) {
        epoll_event event;
        mWaiting.fetch_add(1, std::memory_order_acq_rel);
        int count = epoll_wait(mEpoll.get(), &event, 1, -1);
        if (count <= 0) {
            mWaiting.fetch_sub(1, std::memory_order_acq_rel);
            if (count < 0 && errno != EINTR) {
                ALOGE("epoll_wait failed: %s", strerror(errno));
                return;
            }
            continue;
        }
        onEventTaken();
        mRuntime.onEvent(static_cast<EventSource*>(event.data.ptr), event.events);
    }
}

}  // namespace tvbinder
}  // namespace android
