#define LOG_TAG "tvbinder"

#include "threads/ThreadPool.h"

#include <errno.h>
#include <log/log.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>
#include <thread>

namespace android {
namespace tvbinder {

namespace {

constexpr uint32_t kEvents = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;

epoll_event eventFor(EventSource* source, bool writable) {
    epoll_event event{};
    event.events = kEvents | (writable ? uint32_t{EPOLLOUT} : 0u);
    event.data.ptr = source;
    return event;
}

}  // namespace

status_t ThreadPool::init() {
    mEpoll = ScopedFd(epoll_create1(EPOLL_CLOEXEC));
    if (!mEpoll.valid()) return -errno;
    mWakeFd = ScopedFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!mWakeFd.valid()) return -errno;
    add(&mWake, mWakeFd.get());
    const status_t status = mTickTimer.init();
    if (status != NO_ERROR) return status;
    return mDelayed.init();
}

void ThreadPool::add(EventSource* source, int fd) {
    epoll_event event = eventFor(source, false);
    if (epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
        ALOGE("cannot watch descriptor %d: %s", fd, strerror(errno));
    }
}

void ThreadPool::rearm(EventSource* source, int fd, bool writable) {
    epoll_event event = eventFor(source, writable);
    if (epoll_ctl(mEpoll.get(), EPOLL_CTL_MOD, fd, &event) != 0) {
        ALOGE("cannot re-arm descriptor %d: %s", fd, strerror(errno));
    }
}

void ThreadPool::post(const sp<PoolTask>& task, bool wake) {
    {
        LockGuard guard(mTaskLock);
        mPosted.push_back(task);
        mPostedCount.fetch_add(1);
    }
    if (wake) wakeOne();
}

sp<PoolTask> ThreadPool::takePosted() {
    LockGuard guard(mTaskLock);
    if (mPosted.empty()) return nullptr;
    sp<PoolTask> task = std::move(mPosted.front());
    mPosted.pop_front();
    mPostedCount.fetch_sub(1);
    return task;
}

void ThreadPool::runPostedStandingIn() {
    std::vector<sp<PoolTask>> taken;
    {
        LockGuard guard(mTaskLock);
        for (auto it = mPosted.begin(); it != mPosted.end();) {
            if (!(*it)->standsIn()) {
                ++it;
                continue;
            }
            taken.push_back(std::move(*it));
            it = mPosted.erase(it);
            mPostedCount.fetch_sub(1);
        }
    }
    for (const sp<PoolTask>& task : taken) task->runStandingIn();
}

void ThreadPool::runPosted() {
    while (hasPostedTasks()) {
        sp<PoolTask> task = takePosted();
        if (task == nullptr) return;
        if (hasPostedTasks() && hasIdleThreads()) wakeOne();
        task->run();
    }
}

void ThreadPool::Wake::onEvent(uint32_t /*events*/) {
    uint64_t count;
    ssize_t drained = read(mPool.mWakeFd.get(), &count, sizeof(count));
    (void)drained;
    mPool.rearm(this, mPool.mWakeFd.get());
}

void ThreadPool::wakeOne() {
    const uint64_t one = 1;
    ssize_t written = write(mWakeFd.get(), &one, sizeof(one));
    (void)written;  // a full counter already wakes a thread
}

bool ThreadPool::started() const {
    LockGuard guard(mLock);
    return mStarted;
}

void ThreadPool::remove(int fd) {
    epoll_ctl(mEpoll.get(), EPOLL_CTL_DEL, fd, nullptr);
}

void ThreadPool::start() {
    {
        LockGuard guard(mLock);
        if (mStarted) return;
        mStarted = true;
    }
    if (spawn(true)) return;
    LockGuard guard(mLock);
    mStarted = false;  // a later start may find a thread to spare
}

void ThreadPool::setMaxThreads(size_t maxThreads) {
    LockGuard guard(mLock);
    mMaxThreads = maxThreads;
}

size_t ThreadPool::maxThreads() const {
    LockGuard guard(mLock);
    return mMaxThreads;
}

bool ThreadPool::spawn(bool isMain) {
    size_t number;
    {
        LockGuard guard(mLock);
        number = ++mNamed;
    }
    try {
        std::thread([this, isMain, number] {
            char name[16];
            snprintf(name, sizeof(name), "tvbinder:%zu", number);
            pthread_setname_np(pthread_self(), name);
            join(isMain);
        }).detach();
    } catch (const std::system_error& error) {
        // Out of threads or memory, or the process is in exec: the threads
        // already running carry on. Told once, not at every event.
        if (!mSpawnFailing.exchange(true)) {
            ALOGW("cannot start a pool thread: %s", error.what());
        }
        return false;
    }
    mSpawnFailing = false;
    return true;
}

void ThreadPool::onEventTaken() {
    if (mWaiting.fetch_sub(1) != 1) return;
    bool spawnOne = false;
    {
        LockGuard guard(mLock);
        for (StandIn* standIn : mStandIns) standIn->onPoolBusy();
        spawnOne = mSpawned < mMaxThreads;
        if (spawnOne) ++mSpawned;
    }
    if (spawnOne) {
        if (spawn(false)) return;
        LockGuard guard(mLock);
        --mSpawned;
    }
    // Nobody is left to tick, and a lingering thread is better used on
    // whatever comes next.
    stopAllLingers();
}

void ThreadPool::join(bool /*isMain*/) {
    for (;;) {
        epoll_event event;
        mWaiting.fetch_add(1);
        // A stand-in may have taken the wake-up for a task posted meanwhile.
        if (hasPostedTasks()) {
            onEventTaken();
            runPosted();
            continue;
        }
        int count = epoll_wait(mEpoll.get(), &event, 1, -1);
        if (count <= 0) {
            mWaiting.fetch_sub(1);
            if (count < 0 && errno != EINTR) {
                ALOGE("epoll_wait failed: %s", strerror(errno));
                return;
            }
            continue;
        }
        auto* source = static_cast<EventSource*>(event.data.ptr);
        if (source == &mTicker) {
            // No work: the thread stays counted as waiting throughout.
            mTicker.onEvent(event.events);
            mWaiting.fetch_sub(1);
            continue;
        }
        onEventTaken();
        source->onEvent(event.events);
        runPosted();
    }
}

bool ThreadPool::beginLinger(Lingerer* lingerer) {
    LockGuard guard(mLingerLock);
    // Checked under the lock that stopAllLingers() takes once the count fell
    // to 0: a linger that begins after it sees the count.
    if (!hasIdleThreads()) return false;
    // Without a tick nothing would end it.
    if (!mTicking && !setTicking(true)) return false;
    mLingering.push_back({lingerer, mTicks, false});
    return true;
}

void ThreadPool::endLinger(Lingerer* lingerer) {
    LockGuard guard(mLingerLock);
    auto it = std::find_if(mLingering.begin(), mLingering.end(),
                           [lingerer](const Lingering& l) { return l.lingerer == lingerer; });
    if (it != mLingering.end()) mLingering.erase(it);
}

bool ThreadPool::setTicking(bool ticking) {
    if (!mTickTimer.repeat(ticking ? kLingerTickMs : 0)) {
        ALOGE("cannot set the linger timer: %s", strerror(errno));
        return false;
    }
    mTicking = ticking;
    return true;
}

// A linger ends at the second tick after it began: it lasted a period at least.
void ThreadPool::tickLingers() {
    LockGuard guard(mLingerLock);
    ++mTicks;
    for (Lingering& lingering : mLingering) {
        if (mTicks - lingering.sinceTick >= 2) stop(lingering);
    }
    if (mLingering.empty() && mTicking) (void)setTicking(false);
}

void ThreadPool::stopAllLingers() {
    LockGuard guard(mLingerLock);
    for (Lingering& lingering : mLingering) stop(lingering);
}

void ThreadPool::stop(Lingering& lingering) {
    if (lingering.stopped) return;
    lingering.stopped = true;
    lingering.lingerer->stopLingering();
}

void ThreadPool::LingerTicker::onEvent(uint32_t /*events*/) {
    mPool.mTickTimer.takeExpiry();
    mPool.tickLingers();
    mPool.mTickTimer.giveBack();
}

bool ThreadPool::LingerTicker::onEventStandingIn(uint32_t events) {
    onEvent(events);
    return true;
}

void ThreadPool::addStandIn(StandIn* standIn) {
    LockGuard guard(mLock);
    mStandIns.push_back(standIn);
}

void ThreadPool::removeStandIn(StandIn* standIn) {
    LockGuard guard(mLock);
    mStandIns.erase(std::find(mStandIns.begin(), mStandIns.end(), standIn));
}

void ThreadPool::standIn() {
    epoll_event event;
    if (epoll_wait(mEpoll.get(), &event, 1, 0) != 1) return;
    auto* source = static_cast<EventSource*>(event.data.ptr);
    if (source == &mWake) {
        // Posted tasks are for pool threads: a free one gets the wake-up.
        mWake.onEvent(event.events);
        runPostedStandingIn();
        if (hasPostedTasks() && hasIdleThreads()) wakeOne();
        return;
    }
    if (source->onEventStandingIn(event.events)) return;
    post(new WorkTask([source, events = event.events] { source->onEvent(events); }));
}

}  // namespace tvbinder
}  // namespace android
