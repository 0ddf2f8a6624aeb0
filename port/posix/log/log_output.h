/*
 * Where the POSIX log goes, and how it keeps up.
 *
 * PrintLog never waits for its output: it formats the line, and copies it
 * into a bounded buffer (SF_LOG_BUFFER_BYTES) that one writer thread drains
 * to standard error, a file or syslog. A slow or stalled output therefore
 * costs a reporter a copy, never a wait; when the buffer is full, lines are
 * dropped and counted, and the next line that fits is preceded by
 *
 *   ... WARN os_log: 12 log lines dropped: the log output is too slow
 *
 * Errors and warnings repeated from one call site are rate-limited
 * (SF_LOG_BURST lines per SF_LOG_WINDOW_S seconds); the first occurrences
 * are printed verbatim and the rest counted, then summed up in one line
 * "N similar lines suppressed (file:line)" when the window ends.
 *
 * For applications (the gateway daemon) and tests. Any thread unless said.
 */
#ifndef SF_POSIX_LOG_OUTPUT_H
#define SF_POSIX_LOG_OUTPUT_H

#include <chrono>
#include <cstdint>
#include <string>

namespace sf_log {

/*
 * The level named by text: a number 0..5 or one of error, warn, notice,
 * info, progress, detail (any case); -1 when it names none.
 */
int parse_level(const std::string &text);

/*
 * Append lines to the file at path from now on (created 0640 when missing).
 * false with *why when it cannot be opened; the output is then unchanged.
 */
bool use_file(const std::string &path, std::string *why);

/* Send lines to syslog(3) (facility daemon) under ident, from now on. */
void use_syslog(const char *ident);

/*
 * Re-open the log file by its path (after logrotate moved it away). Safe
 * from a signal-watching thread; done by the writer thread, so it never
 * blocks the caller. No effect without use_file.
 */
void reopen();

/*
 * Wait until every line accepted before the call has been handed to the
 * output, at most limit. true when it has. Tests and a clean exit use it.
 */
bool flush(std::chrono::milliseconds limit = std::chrono::milliseconds(5000));

/*
 * End every rate-limit window that held lines back now, so that their
 * "N similar lines suppressed" summaries are written. A process that stops
 * inside a window would otherwise lose the counts: the exit flush calls it.
 */
void summarize_suppressed();

/*
 * The rate limit: burst lines per call site and window; tests shorten the
 * window. Defaults SF_LOG_BURST and SF_LOG_WINDOW_S.
 */
void set_rate_limit(unsigned burst, std::chrono::milliseconds window);

/* Lines dropped because the buffer was full, since the start. */
uint64_t dropped_lines();

/* Lines held back by the rate limit, since the start. */
uint64_t suppressed_lines();

/* Bytes handed to the output so far (what a day of logging costs). */
uint64_t written_bytes();

/*
 * Test hook: the wall clock of the time stamps, as seconds and
 * milliseconds since 1970 (64-bit: correct after 2038). nullptr restores
 * the real clock.
 */
using WallClock = void (*)(int64_t *seconds, int *millis);
void set_wall_clock(WallClock clock);

/* "YYYY-MM-DDThh:mm:ss.mmmZ" of a time since 1970, for any 64-bit second. */
std::string utc_text(int64_t seconds, int millis);

} // namespace sf_log

#endif /* SF_POSIX_LOG_OUTPUT_H */
