/*
 * Between the log's front (os_log.cpp: levels, formatting) and its buffer
 * (log_buffer.cpp: rate limit, buffer, writer thread). Internal.
 */
#ifndef SF_POSIX_LOG_INTERNAL_H
#define SF_POSIX_LOG_INTERNAL_H

#include <string>

namespace sf_log {
namespace detail {

/* Where a line comes from, for the rate limit; file and func outlive the process (literals). */
struct Site {
    const char *file;
    int line;
    const char *func;
};

/*
 * Queue a formatted line (text ends with '\n') of level from site. false
 * when the rate limit held it back (its raw continuations are then
 * dropped too). Never waits for the output.
 */
bool submit_line(int level, const Site &site, const std::string &text);

/* Queue raw text continuing the calling thread's last line, of that line's level. */
void submit_raw(int level, const std::string &text);

/* The time stamp that starts a line, with its trailing space. */
std::string time_prefix();

} // namespace detail
} // namespace sf_log

#endif /* SF_POSIX_LOG_INTERNAL_H */
