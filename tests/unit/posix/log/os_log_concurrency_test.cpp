#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "port/posix/log/log_output.h"
#include "port/posix/runtime/posix_runtime.h"
#include "services/uni_log.h"

namespace {

TEST(LogConcurrency, LinesOfManyThreadsNeverInterleave)
{
    uni_log_set_level(LOG_LEVEL_DETAIL);
    ::testing::internal::CaptureStderr();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 80; ++i) {
                PrintLog(0, LOG_LEVEL_PROGRESS, "worker.cpp", t, "work", "thread %d line %d %s", t, i,
                         "with some text to make the line long enough to be written in pieces otherwise");
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    /* 320 lines fit the log's buffer (SF_LOG_BUFFER_BYTES) even if the writer never ran meanwhile */
    ASSERT_TRUE(sf_log::flush());
    const std::string out = ::testing::internal::GetCapturedStderr();
    const std::regex line(R"(^\S+ PROG worker\.cpp:(\d) work: thread (\d) line \d+ with some text .* otherwise$)");
    std::istringstream lines(out);
    std::string text;
    int count = 0;
    while (std::getline(lines, text)) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(text, match, line)) << text;
        EXPECT_EQ(match[1], match[2]);
        ++count;
    }
    EXPECT_EQ(320, count);
}

} // namespace
