#pragma once

#include <android/log.h>

#include <mutex>
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
// priority. One at a time per process.
class LogCapture {
  public:
    LogCapture() {
        clear();
        mPreviousPriority = __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
        __android_log_set_logger(&LogCapture::collect);
    }

    ~LogCapture() {
        __android_log_set_logger(__android_log_stderr_logger);
        __android_log_set_minimum_priority(mPreviousPriority);
    }

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const {
        std::lock_guard<std::mutex> hold(mutex());
        return store();
    }

    // The lines whose tag starts with `prefix`, in order.
    std::vector<LogLine> linesTagged(const std::string& prefix) const {
        std::vector<LogLine> matching;
        for (const LogLine& line : lines()) {
            if (line.tag.compare(0, prefix.size(), prefix) == 0) matching.push_back(line);
        }
        return matching;
    }

    void clear() {
        std::lock_guard<std::mutex> hold(mutex());
        store().clear();
    }

  private:
    static void collect(const __android_logger_data* data, const char* message) {
        std::lock_guard<std::mutex> hold(mutex());
        store().push_back({data->priority, data->tag != nullptr ? data->tag : "",
                           message != nullptr ? message : ""});
    }

    static std::mutex& mutex() {
        static std::mutex instance;
        return instance;
    }

    static std::vector<LogLine>& store() {
        static std::vector<LogLine> instance;
        return instance;
    }

    int mPreviousPriority;
};

}  // namespace tavrin_test
