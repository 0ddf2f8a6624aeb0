/*
 * Helpers for tests of the real runtime: waiting with generous bounds, so
 * that a loaded two-core machine slows a test down but never fails it.
 */
#ifndef POSIX_TEST_UTIL_H
#define POSIX_TEST_UTIL_H

#include <chrono>
#include <functional>
#include <thread>

namespace posix_test {

/* Polls cond every millisecond; true as soon as it holds, false after limit. */
inline bool eventually(const std::function<bool()> &cond,
                       std::chrono::milliseconds limit = std::chrono::milliseconds(10000))
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/* Milliseconds since a start point on the monotonic clock. */
inline long long ms_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

} // namespace posix_test

#endif /* POSIX_TEST_UTIL_H */
