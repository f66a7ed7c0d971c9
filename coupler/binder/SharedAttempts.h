#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace tavrin_binder {

// Work on one name that callers at the same time share (the first connection
// to a service or to a sub-service): the first caller does it, callers that
// come while it is under way wait for its outcome instead of doing it again,
// each no longer than its own deadline. Work on other names goes on
// meanwhile. Owned by whoever shares; any thread. No lock is held while the
// work runs or while callers wait.
template <typename Outcome>
class SharedAttempts {
  public:
    using Clock = std::chrono::steady_clock;
    enum class Share { DONE, JOINED, LATE };

    // No deadline: wait for the attempt under way however long it takes.
    static constexpr Clock::time_point kNoDeadline = Clock::time_point::max();

    SharedAttempts() = default;
    SharedAttempts(const SharedAttempts&) = delete;
    SharedAttempts& operator=(const SharedAttempts&) = delete;

    // Runs `work` for `name` unless an attempt is under way (DONE), or takes
    // the outcome of the one under way (JOINED); LATE, with *outcome left
    // alone, when `deadline` passes before that attempt ends.
    Share share(const std::string& name, Clock::time_point deadline,
                const std::function<Outcome()>& work, Outcome* outcome) {
        std::shared_ptr<Attempt> attempt;
        {
            std::unique_lock<std::mutex> hold(mLock);
            auto underWay = mUnderWay.find(name);
            if (underWay != mUnderWay.end()) {
                attempt = underWay->second;
                const auto ended = [&] { return attempt->ended; };
                if (deadline == kNoDeadline) {
                    mEnded.wait(hold, ended);
                } else if (!mEnded.wait_until(hold, deadline, ended)) {
                    return Share::LATE;
                }
                *outcome = attempt->outcome;
                return Share::JOINED;
            }
            attempt = std::make_shared<Attempt>();
            mUnderWay.emplace(name, attempt);
        }
        Outcome result = work();
        {
            std::lock_guard<std::mutex> hold(mLock);
            attempt->outcome = result;
            attempt->ended = true;
            mUnderWay.erase(name);
        }
        mEnded.notify_all();
        *outcome = result;
        return Share::DONE;
    }

  private:
    struct Attempt {
        bool ended = false;
        Outcome outcome{};
    };

    std::mutex mLock;  // guards mUnderWay and every Attempt
    std::condition_variable mEnded;
    std::map<std::string, std::shared_ptr<Attempt>> mUnderWay;
};

}  // namespace tavrin_binder
