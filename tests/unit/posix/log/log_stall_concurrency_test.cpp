/*
 * A log output that nobody reads (a console stuck on flow control, a full
 * pipe) must never hold up the threads that log, even while they hold a
 * lock others wait for, as the smart frame does under dev_mutex.
 */
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "port/posix/log/log_output.h"
#include "port/posix/runtime/posix_runtime.h"
#include "tests/unit/posix/posix_test_util.h"
#include "services/uni_log.h"

namespace {

TEST(LogStallConcurrency, ThreadsLoggingUnderALockFinishWhileStderrIsStalled)
{
    uni_log_set_level(LOG_LEVEL_DETAIL);
    int pipe_fds[2];
    ASSERT_EQ(0, pipe(pipe_fds));
    const int saved_stderr = dup(STDERR_FILENO);
    ASSERT_GE(dup2(pipe_fds[1], STDERR_FILENO), 0); /* nobody reads pipe_fds[0] yet: ~64 KiB and it blocks */

    std::mutex dev_mutex; /* the lock every reporter shares */
    std::atomic<int> finished{0};
    constexpr int kThreads = 4;
    constexpr int kLines = 5000; /* ~2 MB: far more than the pipe and the log's buffer hold */
    std::vector<std::thread> reporters;
    for (int t = 0; t < kThreads; ++t) {
        reporters.emplace_back([t, &dev_mutex, &finished] {
            for (int i = 0; i < kLines; ++i) {
                std::lock_guard<std::mutex> hold(dev_mutex);
                PrintLog(0, LOG_LEVEL_PROGRESS, "verify.cpp", 100 + t, "report", "dp %d of reporter %d stored, %s", i,
                         t, "and a little more text as a real line has");
            }
            finished.fetch_add(1);
        });
    }
    const bool all_finished = posix_test::eventually([&finished] { return finished.load() == kThreads; },
                                                     std::chrono::milliseconds(30000));

    /* now read the pipe: the writer thread gets going again */
    std::string out;
    std::thread reader([&] {
        const int flags = fcntl(pipe_fds[0], F_GETFL);
        fcntl(pipe_fds[0], F_SETFL, flags | O_NONBLOCK);
        char buf[65536];
        for (;;) { /* until every writing end is closed */
            const ssize_t n = read(pipe_fds[0], buf, sizeof buf);
            if (n > 0) {
                out.append(buf, static_cast<size_t>(n));
            } else if (n == 0) {
                return;
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    });
    for (std::thread &r : reporters) {
        r.join();
    }
    ASSERT_TRUE(sf_log::flush(std::chrono::milliseconds(30000)));
    /* the first line after the flood that fits carries the count of the dropped ones */
    PrintLog(0, LOG_LEVEL_ERROR, "f.cpp", 1, "fn", "after the stall");
    EXPECT_TRUE(sf_log::flush(std::chrono::milliseconds(30000)));
    dup2(saved_stderr, STDERR_FILENO);
    close(saved_stderr);
    close(pipe_fds[1]);
    reader.join();
    close(pipe_fds[0]);

    EXPECT_TRUE(all_finished);
    const uint64_t dropped = sf_log::dropped_lines();
    EXPECT_GT(dropped, 0u);
    EXPECT_NE(std::string::npos, out.find("WARN os_log: ")) << out.substr(0, 300);
    EXPECT_NE(std::string::npos, out.find(" log lines dropped: the log output is too slow\n"));
    EXPECT_NE(std::string::npos, out.find("fn: after the stall\n"));
    /* every line either went out whole or was counted */
    size_t lines = 0;
    for (char c : out) {
        lines += c == '\n' ? 1 : 0;
    }
    EXPECT_GE(lines + dropped, static_cast<size_t>(kThreads * kLines) + 1);
}

} // namespace
