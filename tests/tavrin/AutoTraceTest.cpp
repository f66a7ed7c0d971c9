#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Log/AutoTrace.h"
#include "LogCapture.h"

namespace {

using tavrin_test::LogCapture;
using tavrin_test::LogLine;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

TEST(AutoTrace, WritesEntryAndExitLinesAtVerboseTheTimedOnesWithClockTimesAndDuration) {
    LogCapture log;
    { AutoTrace trace("[Tavrin]", "Discoverer", "bindTo", false); }
    { AutoTrace trace("[App]", "Worker", "step", true); }
    const std::vector<LogLine> lines = log.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0],
              (LogLine{ANDROID_LOG_VERBOSE, "[Tavrin]", "[Discoverer][bindTo] [-IN-]\n"}));
    EXPECT_EQ(lines[1],
              (LogLine{ANDROID_LOG_VERBOSE, "[Tavrin]", "[Discoverer][bindTo] [-OUT-]\n"}));
    EXPECT_EQ(lines[2].priority, ANDROID_LOG_VERBOSE);
    EXPECT_EQ(lines[2].tag, "[App]");
    EXPECT_THAT(lines[2].message, MatchesRegex("\\[Worker\\]\\[step\\] \\[-IN-\\] "
                                               "time\\[[0-9]+s\\]\\[[0-9]+us\\]\n"));
    EXPECT_EQ(lines[3].priority, ANDROID_LOG_VERBOSE);
    EXPECT_THAT(lines[3].message,
                MatchesRegex("\\[Worker\\]\\[step\\] \\[-OUT-\\] time\\[[0-9]+s\\]\\[[0-9]+us\\] "
                             "duration\\[[0-9]+s\\]\\[-?[0-9]+us\\]\n"));
    // The duration is subtracted field by field, without a borrow.
    log.clear();
    const timeval end = {11, 100000};
    AutoTrace::logTimedExit("[App]", "Worker", "step", 10, 900000, end);
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{ANDROID_LOG_VERBOSE, "[App]",
                                                 "[Worker][step] [-OUT-] time[11s][100000us] "
                                                 "duration[1s][-800000us]\n"}));
}

std::string report(const char* argument, int line) {
    return std::string("../Log/AutoTrace:") + std::to_string(line) +
           ": AutoTrace::AutoTrace(const char*, const char*, const char*, bool): Assertion `" +
           argument + "' failed.";
}

TEST(AutoTraceDeathTest, NullArgumentsAreProgrammingErrors) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(AutoTrace(nullptr, "F", "f", false), HasSubstr(report("tag", 16)));
    EXPECT_DEATH(AutoTrace("[T]", nullptr, "f", false), HasSubstr(report("file", 17)));
    EXPECT_DEATH(AutoTrace("[T]", "F", nullptr, true), HasSubstr(report("function", 18)));
}

}  // namespace
