#pragma once

#include <android/log.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace tavrin_test {

struct LogLine {
    int priority;
    std::string tag;
    std::string message;
};

inline bool operator==(const LogLine& a, const LogLine& b) {
    return a.priority == b.priority && a.tag == b.tag && a.message == b.message;
}

inline std::ostream& operator<<(std::ostream& out, const LogLine& line) {
    return out << "{" << line.priority << ", \"" << line.tag << "\", \"" << line.message << "\"}";
}

// Collects every line written through liblog while it lives, at every
// priority, and can hold the thread that writes a chosen message there until
// the test lets it go. One at a time per process; any thread may log.
class LogCapture {
  public:
    LogCapture() : mPreviousPriority(__android_log_set_minimum_priority(ANDROID_LOG_VERBOSE)) {
        clear();
        __android_log_set_logger(&LogCapture::collect);
    }
    ~LogCapture() {
        __android_log_set_logger(__android_log_stderr_logger);
        __android_log_set_minimum_priority(mPreviousPriority);
        std::lock_guard<std::mutex> hold(state().lock);
        for (auto& stop : state().stops) stop.second = Stop::kReleased;
        state().changed.notify_all();
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const {
        std::lock_guard<std::mutex> hold(state().lock);
        return state().lines;
    }
    size_t count(const LogLine& wanted) const {
        std::lock_guard<std::mutex> hold(state().lock);
        return countLocked(wanted);
    }
    // True once `wanted` was logged, within `timeout`.
    bool await(const LogLine& wanted,
               std::chrono::milliseconds timeout = std::chrono::seconds(20)) const {
        return waitFor([&] { return countLocked(wanted) > 0; }, timeout);
    }
    void clear() {
        std::lock_guard<std::mutex> hold(state().lock);
        state().lines.clear();
    }

    // The first thread to log `message` from now on waits there until
    // release(message), for 20 s at most.
    void holdAt(const std::string& message) {
        std::lock_guard<std::mutex> hold(state().lock);
        state().stops[message] = Stop::kArmed;
    }
    bool awaitHeld(const std::string& message) const {
        return waitFor([&] { return state().stops.at(message) == Stop::kHolding; },
                       std::chrono::seconds(20));
    }
    void release(const std::string& message) {
        std::lock_guard<std::mutex> hold(state().lock);
        state().stops[message] = Stop::kReleased;
        state().changed.notify_all();
    }

  private:
    enum class Stop { kArmed, kHolding, kReleased };
    struct State {
        std::mutex lock;
        std::condition_variable changed;
        std::vector<LogLine> lines;
        std::map<std::string, Stop> stops;
    };

    static State& state() {
        static auto* const instance = new State;
        return *instance;
    }
    static size_t countLocked(const LogLine& wanted) {
        size_t count = 0;
        for (const LogLine& line : state().lines) count += line == wanted;
        return count;
    }
    template <typename Condition>
    static bool waitFor(Condition condition, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> hold(state().lock);
        return state().changed.wait_for(hold, timeout, condition);
    }
    static void collect(const __android_logger_data* data, const char* message) {
        std::unique_lock<std::mutex> hold(state().lock);
        const std::string text = message != nullptr ? message : "";
        state().lines.push_back({data->priority, data->tag != nullptr ? data->tag : "", text});
        state().changed.notify_all();
        auto stop = state().stops.find(text);
        if (stop == state().stops.end() || stop->second != Stop::kArmed) return;
        stop->second = Stop::kHolding;
        state().changed.wait_for(hold, std::chrono::seconds(20),
                                 [&] { return stop->second == Stop::kReleased; });
    }

    const int mPreviousPriority;
};

}  // namespace tavrin_test
