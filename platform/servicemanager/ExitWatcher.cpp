#define LOG_TAG "servicemanager"

#include "ExitWatcher.h"

#include <errno.h>
#include <log/log.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace android {

ExitWatcher::ExitWatcher(std::function<void(uint64_t key)> onExit) : mOnExit(std::move(onExit)) {
    mEpoll = epoll_create1(EPOLL_CLOEXEC);
    mStop = eventfd(0, EFD_CLOEXEC);
    epoll_event stop{};
    stop.events = EPOLLIN;
    stop.data.u64 = 0;
    LOG_ALWAYS_FATAL_IF(mEpoll < 0 || mStop < 0 || epoll_ctl(mEpoll, EPOLL_CTL_ADD, mStop, &stop),
                        "cannot watch for exits: %s", strerror(errno));
    mThread = std::thread([this] { run(); });
}

ExitWatcher::~ExitWatcher() {
    const uint64_t one = 1;
    if (write(mStop, &one, sizeof one) != sizeof one) ALOGW("cannot stop: %s", strerror(errno));
    mThread.join();
    close(mStop);
    close(mEpoll);
}

bool ExitWatcher::add(int pidfd, uint64_t key) {
    // One-shot: a dead process's pidfd stays readable until its owner removes it.
    epoll_event event{};
    event.events = EPOLLIN | EPOLLONESHOT;
    event.data.u64 = key;
    return epoll_ctl(mEpoll, EPOLL_CTL_ADD, pidfd, &event) == 0;
}

void ExitWatcher::remove(int pidfd) {
    epoll_ctl(mEpoll, EPOLL_CTL_DEL, pidfd, nullptr);
}

void ExitWatcher::run() {
    for (;;) {
        epoll_event events[16];
        const int ready = epoll_wait(mEpoll, events, 16, -1);
        if (ready < 0 && errno != EINTR) {
            ALOGE("no longer watching for exits: %s", strerror(errno));
            return;
        }
        for (int i = 0; i < ready; ++i) {
            if (events[i].data.u64 == 0) return;
            mOnExit(events[i].data.u64);
        }
    }
}

}  // namespace android
