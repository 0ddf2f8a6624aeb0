#include "log_rate_limit.h"

#include <cstdint>

#include "services/uni_log.h"

namespace sf_log {
namespace detail {

void RateLimit::end_window(Entry &entry, Clock::time_point now, std::vector<std::string> *summaries)
{
    if (entry.suppressed != 0) {
        summaries->push_back(time_prefix() + "WARN " + entry.file + ':' + std::to_string(entry.line) + ' ' +
                             entry.func + ": " + std::to_string(entry.suppressed) + " similar lines suppressed\n");
    }
    entry.window_start = now;
    entry.printed = 0;
    entry.suppressed = 0;
}

/* The call site's entry (taken when free), or nullptr when the table is full. */
RateLimit::Entry *RateLimit::entry_of(const Site &where)
{
    const size_t start =
        (reinterpret_cast<uintptr_t>(where.file) >> 3 ^ static_cast<size_t>(where.line) * 2654435761u) %
        SF_LOG_RATE_SITES;
    for (size_t i = 0; i < SF_LOG_RATE_SITES; ++i) {
        Entry &entry = entries_[(start + i) % SF_LOG_RATE_SITES];
        if (entry.file == where.file && entry.line == where.line) {
            return &entry;
        }
        if (entry.file == nullptr) {
            entry.file = where.file;
            entry.line = where.line;
            entry.func = where.func != nullptr ? where.func : "?";
            entry.window_start = Clock::now();
            return &entry;
        }
    }
    return nullptr;
}

bool RateLimit::allows(int level, const Site &where, std::vector<std::string> *summaries)
{
    if (level > LOG_LEVEL_WARN || where.file == nullptr) {
        return true;
    }
    Entry *entry = entry_of(where);
    if (entry == nullptr) {
        return true;
    }
    const Clock::time_point now = Clock::now();
    if (now - entry->window_start >= window_) {
        end_window(*entry, now, summaries);
    }
    if (entry->printed < burst_) {
        ++entry->printed;
        return true;
    }
    ++entry->suppressed;
    suppressed_.fetch_add(1, std::memory_order_relaxed);
    return false;
}

void RateLimit::sweep(std::vector<std::string> *summaries, bool now_all)
{
    const Clock::time_point now = Clock::now();
    for (Entry &entry : entries_) {
        if (entry.file != nullptr && entry.suppressed != 0 && (now_all || now - entry.window_start >= window_)) {
            end_window(entry, now, summaries);
        }
    }
}

void RateLimit::configure(unsigned burst, Clock::duration window)
{
    burst_ = burst;
    window_ = window;
}

} // namespace detail
} // namespace sf_log
