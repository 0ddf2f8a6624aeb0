#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "port/posix/log/log_output.h"
#include "port/posix/runtime/posix_runtime.h"
#include "tests/unit/posix/posix_test_util.h"
#include "services/uni_log.h"

namespace {

std::string read_all(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

size_t count_of(const std::string &text, const std::string &needle)
{
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++n;
    }
    return n;
}

class LogFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/sf_log_test_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir_ = tmpl;
        path_ = dir_ + "/gateway.log";
        std::string why;
        ASSERT_TRUE(sf_log::use_file(path_, &why)) << why;
        uni_log_set_level(LOG_LEVEL_DETAIL);
    }
    void TearDown() override
    {
        std::remove(path_.c_str());
        std::remove((path_ + ".1").c_str());
        rmdir(dir_.c_str());
    }
    std::string text()
    {
        EXPECT_TRUE(sf_log::flush());
        return read_all(path_);
    }
    std::string dir_;
    std::string path_;
};

void log_failure(int i)
{
    PrintLog(0, LOG_LEVEL_ERROR, "report.cpp", 77, "report", "publication failed: %d", i);
}

TEST_F(LogFile, RepeatedErrorsOfOneSiteArePrintedUpToTheBurstThenCounted)
{
    sf_log::set_rate_limit(3, std::chrono::hours(1));
    for (int i = 0; i < 10; ++i) {
        log_failure(i);
    }
    PrintLog(0, LOG_LEVEL_ERROR, "report.cpp", 78, "report", "another site");
    const std::string out = text();
    EXPECT_NE(std::string::npos, out.find("ERROR report.cpp:77 report: publication failed: 0\n")) << out;
    EXPECT_NE(std::string::npos, out.find("report: publication failed: 2\n")) << out;
    EXPECT_EQ(std::string::npos, out.find("publication failed: 3")) << out;
    EXPECT_EQ(1u, count_of(out, "another site"));
    EXPECT_EQ(7u, sf_log::suppressed_lines());
}

TEST_F(LogFile, SuppressedLinesAreSummedUpWhenTheWindowEnds)
{
    sf_log::set_rate_limit(2, std::chrono::milliseconds(200));
    for (int i = 0; i < 7; ++i) {
        log_failure(i);
    }
    EXPECT_TRUE(posix_test::eventually(
        [this] { return text().find("WARN report.cpp:77 report: 5 similar lines suppressed\n") != std::string::npos; }))
        << text();
    /* a new window prints again */
    log_failure(100);
    EXPECT_NE(std::string::npos, text().find("publication failed: 100\n"));
}

TEST_F(LogFile, AStopInsideTheWindowStillTellsHowManyLinesWereSuppressed)
{
    sf_log::set_rate_limit(2, std::chrono::hours(1));
    for (int i = 0; i < 9; ++i) {
        log_failure(i);
    }
    EXPECT_EQ(std::string::npos, text().find("similar lines suppressed")) << text();
    sf_log::summarize_suppressed();
    const std::string out = text();
    EXPECT_EQ(1u, count_of(out, "WARN report.cpp:77 report: 7 similar lines suppressed\n")) << out;
    sf_log::summarize_suppressed(); /* told once */
    EXPECT_EQ(1u, count_of(text(), "similar lines suppressed")) << text();
}

TEST_F(LogFile, ProgressLinesAreNeverRateLimited)
{
    sf_log::set_rate_limit(1, std::chrono::hours(1));
    for (int i = 0; i < 20; ++i) {
        PrintLog(0, LOG_LEVEL_PROGRESS, "f.cpp", 1, "fn", "routine %d", i);
    }
    EXPECT_EQ(20u, count_of(text(), "fn: routine"));
    EXPECT_EQ(0u, sf_log::suppressed_lines());
}

TEST_F(LogFile, ReopenAfterRotationWritesToTheNewFile)
{
    PrintLog(0, LOG_LEVEL_ERROR, "f.cpp", 1, "fn", "before rotation");
    ASSERT_NE(std::string::npos, text().find("before rotation"));
    ASSERT_EQ(0, std::rename(path_.c_str(), (path_ + ".1").c_str()));
    sf_log::reopen();
    EXPECT_TRUE(posix_test::eventually([this] { return access(path_.c_str(), F_OK) == 0; }));
    PrintLog(0, LOG_LEVEL_ERROR, "f.cpp", 2, "fn", "after rotation");
    const std::string now = text();
    EXPECT_NE(std::string::npos, now.find("after rotation")) << now;
    EXPECT_EQ(std::string::npos, now.find("before rotation"));
    EXPECT_EQ(std::string::npos, read_all(path_ + ".1").find("after rotation"));
}

TEST(LogFileOpen, AFileThatCannotBeOpenedIsRefusedWithTheReason)
{
    std::string why;
    EXPECT_FALSE(sf_log::use_file("/nonexistent-dir/x.log", &why));
    EXPECT_EQ("cannot open the log file /nonexistent-dir/x.log: No such file or directory", why);
}

TEST(LogLevelText, NamesAndDigitsAreLevelsAndAnythingElseIsNot)
{
    EXPECT_EQ(LOG_LEVEL_NOTICE, sf_log::parse_level("notice"));
    EXPECT_EQ(LOG_LEVEL_DETAIL, sf_log::parse_level("DETAIL"));
    EXPECT_EQ(LOG_LEVEL_WARN, sf_log::parse_level("1"));
    EXPECT_EQ(-1, sf_log::parse_level("loud"));
    EXPECT_EQ(-1, sf_log::parse_level("9"));
    EXPECT_EQ(-1, sf_log::parse_level(""));
    EXPECT_EQ(-1, sf_log::parse_level("-1"));
}

TEST(LogTime, DatesAfter2038AreRight)
{
    EXPECT_EQ("1970-01-01T00:00:00.000Z", sf_log::utc_text(0, 0));
    EXPECT_EQ("2038-01-19T03:14:07.999Z", sf_log::utc_text(2147483647LL, 999));
    EXPECT_EQ("2038-01-19T03:14:08.000Z", sf_log::utc_text(2147483648LL, 0));
    EXPECT_EQ("2106-02-07T06:28:16.000Z", sf_log::utc_text(4294967296LL, 0));
    EXPECT_EQ("2400-02-29T12:00:00.005Z", sf_log::utc_text(13574606400LL, 5));
}

void clock_in_2040(int64_t *seconds, int *millis)
{
    *seconds = 2208988800LL + 3661; /* 2040-01-01T01:01:01 */
    *millis = 42;
}

TEST(LogTime, LinesCarryTheClocksTimeAfter2038)
{
    sf_log::set_wall_clock(clock_in_2040);
    uni_log_set_level(LOG_LEVEL_DETAIL);
    ::testing::internal::CaptureStderr();
    PrintLog(0, LOG_LEVEL_ERROR, "f.cpp", 1, "fn", "late");
    ASSERT_TRUE(sf_log::flush());
    const std::string out = ::testing::internal::GetCapturedStderr();
    sf_log::set_wall_clock(nullptr);
    EXPECT_EQ("2040-01-01T01:01:01.042Z ERROR f.cpp:1 fn: late\n", out);
}

} // namespace
