#pragma once

#include <android/log.h>
#include <stdint.h>
#include <sys/time.h>
#include <utils/String8.h>

#include <optional>

#include "utils/Assert.h"

// Writes an entry line when constructed and an exit line when destroyed, at
// VERBOSE under `tag`: "[file][function] [-IN-]" and "[file][function]
// [-OUT-]". A timed trace adds the wall-clock times and the duration. Lives on
// one thread's stack; the texts are copied. When VERBOSE is not logged for
// `tag` (the default), the trace copies nothing and writes nothing, so that
// traced operations on hot paths cost next to nothing.
class AutoTrace {
  public:
    AutoTrace(const char* tag, const char* file, const char* function, bool timed) : mTimed(timed) {
        tavrin::assertOrAbort(tag != nullptr, "tag", kCheckFile, 16, kCheckFunction);
        tavrin::assertOrAbort(file != nullptr, "file", kCheckFile, 17, kCheckFunction);
        tavrin::assertOrAbort(function != nullptr, "function", kCheckFile, 18, kCheckFunction);
        if (__android_log_is_loggable(ANDROID_LOG_VERBOSE, tag, ANDROID_LOG_INFO) == 0) return;
        mTexts.emplace(
            Texts{android::String8(tag), android::String8(file), android::String8(function)});
        if (!mTimed) {
            __android_log_print(ANDROID_LOG_VERBOSE, tag, "[%s][%s] [-IN-]\n", file, function);
            return;
        }
        timeval now;
        gettimeofday(&now, nullptr);
        mStartSeconds = now.tv_sec;
        mStartMicros = now.tv_usec;
        __android_log_print(ANDROID_LOG_VERBOSE, tag, "[%s][%s] [-IN-] time[%llds][%lldus]\n", file,
                            function, static_cast<long long>(mStartSeconds),
                            static_cast<long long>(mStartMicros));
    }

    ~AutoTrace() {
        if (!mTexts) return;
        const Texts& texts = *mTexts;
        if (!mTimed) {
            __android_log_print(ANDROID_LOG_VERBOSE, texts.tag.c_str(), "[%s][%s] [-OUT-]\n",
                                texts.file.c_str(), texts.function.c_str());
            return;
        }
        timeval now;
        gettimeofday(&now, nullptr);
        logTimedExit(texts.tag.c_str(), texts.file.c_str(), texts.function.c_str(), mStartSeconds,
                     mStartMicros, now);
    }

    AutoTrace(const AutoTrace&) = delete;
    AutoTrace& operator=(const AutoTrace&) = delete;

    // The exit line of a timed trace that started at the given time. The
    // duration is taken field by field, without borrowing, so its
    // microseconds may be negative; seconds plus microseconds is the duration.
    static void logTimedExit(const char* tag, const char* file, const char* function,
                             int64_t startSeconds, int64_t startMicros, const timeval& now) {
        const int64_t nowSeconds = now.tv_sec;
        const int64_t nowMicros = now.tv_usec;
        __android_log_print(ANDROID_LOG_VERBOSE, tag,
                            "[%s][%s] [-OUT-] time[%llds][%lldus] duration[%llds][%lldus]\n", file,
                            function, static_cast<long long>(nowSeconds),
                            static_cast<long long>(nowMicros),
                            static_cast<long long>(nowSeconds - startSeconds),
                            static_cast<long long>(nowMicros - startMicros));
    }

  private:
    // Assertion report texts, fixed so that reports stay recognisable.
    static constexpr const char* kCheckFile = "../Log/AutoTrace";
    static constexpr const char* kCheckFunction =
        "AutoTrace::AutoTrace(const char*, const char*, const char*, bool)";

    struct Texts {
        android::String8 tag;
        android::String8 file;
        android::String8 function;
    };

    std::optional<Texts> mTexts;  // copied only when the trace is written
    bool mTimed;
    int64_t mStartSeconds = 0;
    int64_t mStartMicros = 0;
};
