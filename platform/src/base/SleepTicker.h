#pragma once

namespace android {
namespace tvbinder {

// Ends sleeps that have no timer of their own. Arming a timer for each futex
// sleep costs more than the rest of a round trip on one CPU, so a thread about
// to sleep that way lists itself instead, and the ticker stops it once it has
// slept a while: a lingering pool thread then goes back to epoll, a caller
// looks at its socket for a hang-up and sleeps again. Implemented by the
// thread pool, which ticks only while someone is listed, and only while one
// of its threads waits in epoll to take the ticks.
class SleepTicker {
  public:
    class Sleeper {
      public:
        // Ends the sleep, from another thread, once. Called under the
        // ticker's lock: must not wait.
        virtual void stopSleeping() = 0;

      protected:
        virtual ~Sleeper() = default;
    };

    // Lists `sleeper` until endSleep(): it is stopped at the `ticks`th tick
    // after it began (the first may come at once), or at once when nobody is
    // left to tick. False, and nothing listed, when nobody would tick: sleep
    // with a timer then.
    [[nodiscard]] virtual bool beginSleep(Sleeper* sleeper, unsigned ticks) = 0;
    // The sleeper is awake: it is not stopped any more.
    virtual void endSleep(Sleeper* sleeper) = 0;

  protected:
    virtual ~SleepTicker() = default;
};

}  // namespace tvbinder
}  // namespace android
