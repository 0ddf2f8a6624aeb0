/*
 * The log's rate limit of repeated errors and warnings, per call site
 * (source file and line): the first `burst` lines of a window go out
 * verbatim, the rest are counted and summed up in one line when the
 * window ends. Not thread-safe: the log's buffer lock guards it. The count
 * of lines held back is its owner's atomic, read on any thread without
 * that lock.
 */
#ifndef SF_POSIX_LOG_RATE_LIMIT_H
#define SF_POSIX_LOG_RATE_LIMIT_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "log_internal.h"
#include "port/posix/posix_tunables.h"

namespace sf_log {
namespace detail {

class RateLimit {
public:
    using Clock = std::chrono::steady_clock;

    /* suppressed counts every line held back from now on (relaxed); it outlives the rate limit. */
    explicit RateLimit(std::atomic<uint64_t> &suppressed) : suppressed_(suppressed) {}

    /*
     * true when a line of level from where may go out. When where's window
     * ended with lines held back, their summary line is appended to
     * *summaries first.
     */
    bool allows(int level, const Site &where, std::vector<std::string> *summaries);

    /*
     * The summaries of every window that ended with lines held back; with
     * now_all, of every window that held lines back, ended or not (a
     * stopping process sums up what it would otherwise never tell).
     */
    void sweep(std::vector<std::string> *summaries, bool now_all = false);

    void configure(unsigned burst, Clock::duration window);

private:
    struct Entry {
        const char *file = nullptr; /* nullptr: free */
        int line = 0;
        const char *func = nullptr;
        Clock::time_point window_start;
        unsigned printed = 0;
        uint64_t suppressed = 0;
    };

    Entry *entry_of(const Site &where);
    void end_window(Entry &entry, Clock::time_point now, std::vector<std::string> *summaries);

    Entry entries_[SF_LOG_RATE_SITES];
    unsigned burst_ = SF_LOG_BURST;
    Clock::duration window_ = std::chrono::seconds(SF_LOG_WINDOW_S);
    std::atomic<uint64_t> &suppressed_;
};

} // namespace detail
} // namespace sf_log

#endif /* SF_POSIX_LOG_RATE_LIMIT_H */
