#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <chrono>

namespace android {
namespace tvbinder {

// What the listeners refused, or closed to make room: told in one line of
// each kind at most once a period, so that a flood of connections is not a
// flood of log lines however it is paced. What comes within a period of the
// last lines is told, summed, by the first pass after it. Owned by the
// Acceptor, used under its lock.
class RefusalLog {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr Clock::duration kPeriod = std::chrono::seconds(1);

    // What one pass of accepting did.
    struct Counts {
        size_t otherUser = 0;
        size_t overShare = 0;
        size_t noDescriptor = 0;
        size_t evicted = 0;
        pid_t lastRefused = 0;  // pid of the last refused for its user or share
        pid_t lastEvicted = 0;  // pid whose connection was closed last
    };

    // Adds a pass's counts; logs what is counted once the period since the
    // last lines is over.
    void record(const Counts& pass, Clock::time_point now);

  private:
    void log() const;

    Counts mUntold;
    Clock::time_point mLastTold{};  // long ago: the first lines go at once
};

}  // namespace tvbinder
}  // namespace android
