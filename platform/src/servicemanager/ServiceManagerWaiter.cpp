#include "servicemanager/ServiceManagerWaiter.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>

namespace android {
namespace tvbinder {

ServiceManagerWaiter::ServiceManagerWaiter() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return;
    mOwnEnd = ScopedFd(ends[0]);
    mServiceManagerEnd = ScopedFd(ends[1]);
}

ServiceManagerWaiter::Outcome ServiceManagerWaiter::waitUntil(
    std::chrono::steady_clock::time_point deadline) {
    using std::chrono::milliseconds;
    for (;;) {
        const auto left =
            std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd wake{mOwnEnd.get(), POLLIN, 0};
        const int ready =
            poll(&wake, 1, static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT_MAX)));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return Outcome::kTimedOut;
        char registered = 0;
        // A hang-up with nothing before it: the service manager dropped us.
        return recv(mOwnEnd.get(), &registered, 1, MSG_DONTWAIT) == 1 ? Outcome::kRegistered
                                                                      : Outcome::kHungUp;
    }
}

}  // namespace tvbinder
}  // namespace android
