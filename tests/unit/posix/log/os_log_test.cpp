#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <string>

#include "port/posix/log/log_output.h"
#include "port/posix/runtime/posix_runtime.h"
#include "services/uni_log.h"

namespace {

using ::testing::internal::CaptureStderr;
/* Lines reach standard error through the log's writer thread: wait for them first. */
std::string GetCapturedStderr()
{
    EXPECT_TRUE(sf_log::flush());
    return ::testing::internal::GetCapturedStderr();
}

TEST(Log, LineCarriesTimeLevelSourceLineFunctionAndMessage)
{
    uni_log_set_level(LOG_LEVEL_DETAIL);
    CaptureStderr();
    PrintLog(0, LOG_LEVEL_ERROR, "frame_init.cpp", 42, "smart_frame_init", "cmmod_init fails %d", -3);
    const std::string out = GetCapturedStderr();
    const std::regex line(
        R"(^\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\.\d{3}Z ERROR frame_init\.cpp:42 smart_frame_init: cmmod_init fails -3\n$)");
    EXPECT_TRUE(std::regex_match(out, line)) << out;
}

TEST(Log, EachLevelHasItsName)
{
    uni_log_set_level(LOG_LEVEL_DETAIL);
    CaptureStderr();
    for (int level = LOG_LEVEL_ERROR; level <= LOG_LEVEL_DETAIL; ++level) {
        PrintLog(0, level, "f.cpp", 1, "fn", "m");
    }
    const std::string out = GetCapturedStderr();
    for (const char *tag : {" ERROR f.cpp", " WARN f.cpp", " NOTICE f.cpp", " INFO f.cpp", " PROG f.cpp",
                            " DETAIL f.cpp"}) {
        EXPECT_NE(std::string::npos, out.find(tag)) << tag;
    }
}

TEST(Log, LinesAboveTheLevelAreFilteredOut)
{
    uni_log_set_level(LOG_LEVEL_PROGRESS);
    CaptureStderr();
    PrintLog(0, LOG_LEVEL_DETAIL, "f.cpp", 1, "fn", "too detailed");
    PrintLog(0, LOG_LEVEL_PROGRESS, "f.cpp", 2, "fn", "routine");
    PrintLog(0, LOG_LEVEL_ERROR, "f.cpp", 3, "fn", "broken");
    const std::string out = GetCapturedStderr();
    EXPECT_EQ(std::string::npos, out.find("too detailed"));
    EXPECT_NE(std::string::npos, out.find("fn: routine\n"));
    EXPECT_NE(std::string::npos, out.find("fn: broken\n"));
}

TEST(Log, OnlyErrorsAtLevelZeroAndTheLevelIsClamped)
{
    uni_log_set_level(-5);
    EXPECT_EQ(LOG_LEVEL_ERROR, uni_log_get_level());
    CaptureStderr();
    PrintLog(0, LOG_LEVEL_WARN, "f.cpp", 1, "fn", "warning");
    PrintLog(0, LOG_LEVEL_ERROR, "f.cpp", 1, "fn", "error");
    const std::string out = GetCapturedStderr();
    EXPECT_EQ(std::string::npos, out.find("warning"));
    EXPECT_NE(std::string::npos, out.find("error"));
    uni_log_set_level(99);
    EXPECT_EQ(LOG_LEVEL_DETAIL, uni_log_get_level());
}

TEST(Log, RawTextContinuesALineShownAndIsDroppedAfterALineFilteredOut)
{
    uni_log_set_level(LOG_LEVEL_PROGRESS);
    CaptureStderr();
    PrintLog(0, LOG_LEVEL_PROGRESS, "q.cpp", 7, "query", "dpid cnt< %d >:", 2);
    PrintLogRaw("%d ", 1);
    PrintLogRaw("%d ", 2);
    PrintLogRaw("\r\n");
    PrintLog(0, LOG_LEVEL_DETAIL, "q.cpp", 8, "query", "hidden");
    PrintLogRaw("%d ", 3);
    const std::string out = GetCapturedStderr();
    EXPECT_NE(std::string::npos, out.find("query: dpid cnt< 2 >:\n1 2 \r\n")) << out;
    EXPECT_EQ(std::string::npos, out.find("3 "));
}

TEST(Log, DefaultLevelIsNoticeWithoutEnvironment)
{
    unsetenv("SF_LOG_LEVEL");
    EXPECT_EQ(LOG_LEVEL_NOTICE, uni_log_get_level());
}

/* The environment is read once, at the first use of the log in the process (each test runs alone). */
TEST(Log, EnvironmentNameSetsTheInitialLevel)
{
    setenv("SF_LOG_LEVEL", "Detail", 1);
    EXPECT_EQ(LOG_LEVEL_DETAIL, uni_log_get_level());
    uni_log_set_level(LOG_LEVEL_ERROR); /* the call overrides the environment */
    EXPECT_EQ(LOG_LEVEL_ERROR, uni_log_get_level());
}

TEST(Log, EnvironmentNumberSetsTheInitialLevel)
{
    setenv("SF_LOG_LEVEL", "1", 1);
    EXPECT_EQ(LOG_LEVEL_WARN, uni_log_get_level());
}

TEST(Log, UnreadableEnvironmentKeepsTheDefault)
{
    setenv("SF_LOG_LEVEL", "loud", 1);
    EXPECT_EQ(LOG_LEVEL_NOTICE, uni_log_get_level());
}

} // namespace
