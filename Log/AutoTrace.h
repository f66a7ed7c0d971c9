#pragma once

#include <android/log.h>
#include <stdint.h>
#include <sys/time.h>
#include <utils/String8.h>

#include "utils/Assert.h"

// Writes an entry line when constructed and an exit line when destroyed, at
// VERBOSE under `tag`: "[file][function] [-IN-]" and "[file][function]
// [-OUT-]". A timed trace adds the wall-clock times and the duration. Lives on
// one thread's stack; the texts are copied.
class AutoTrace {
  public:
    AutoTrace(const char* tag, const char* file, const char* function, bool timed)
        : mTag(copyOf(tag)), mFile(copyOf(file)), mFunction(copyOf(function)), mTimed(timed) {
        tavrin::assertOrAbort(tag != nullptr, "tag", kCheckFile, 16, kCheckFunction);
        tavrin::assertOrAbort(file != nullptr, "file", kCheckFile, 17, kCheckFunction);
        tavrin::assertOrAbort(function != nullptr, "function", kCheckFile, 18, kCheckFunction);
        if (!mTimed) {
            __android_log_print(ANDROID_LOG_VERBOSE, mTag.c_str(), "[%s][%s] [-IN-]\n",
                                mFile.c_str(), mFunction.c_str());
            return;
        }
        timeval now;
        gettimeofday(&now, nullptr);
        mStartSeconds = now.tv_sec;
        mStartMicros = now.tv_usec;
        __android_log_print(ANDROID_LOG_VERBOSE, mTag.c_str(),
                            "[%s][%s] [-IN-] time[%llds][%lldus]\n", mFile.c_str(),
                            mFunction.c_str(), static_cast<long long>(mStartSeconds),
                            static_cast<long long>(mStartMicros));
    }

    ~AutoTrace() {
        if (!mTimed) {
            __android_log_print(ANDROID_LOG_VERBOSE, mTag.c_str(), "[%s][%s] [-OUT-]\n",
                                mFile.c_str(), mFunction.c_str());
            return;
        }
        timeval now;
        gettimeofday(&now, nullptr);
        logTimedExit(mTag.c_str(), mFile.c_str(), mFunction.c_str(), mStartSeconds, mStartMicros,
                     now);
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

    // A null text is copied as empty so that the checks can report it.
    static android::String8 copyOf(const char* text) {
        return android::String8(text != nullptr ? text : "");
    }

    android::String8 mTag;
    android::String8 mFile;
    android::String8 mFunction;
    bool mTimed;
    int64_t mStartSeconds = 0;
    int64_t mStartMicros = 0;
};
