/*
 * Log lines, formatted here and written by the log's writer thread
 * (log_buffer.cpp, log_output.h):
 *
 *   2026-11-21T04:45:09.123Z ERROR frame_init.cpp:42 smart_frame_init: cmmod_init fails -1
 *
 * UTC time with milliseconds, level name, source file and line, function,
 * then the message. A line is formatted in full before it is queued, so
 * lines of different threads never interleave.
 */
/* 64-bit time_t on 32-bit glibc targets, so that time stamps stay right after 2038. */
#ifndef _TIME_BITS
#define _FILE_OFFSET_BITS 64
#define _TIME_BITS 64
#endif

#include <strings.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "services/uni_log.h"
#include "log_internal.h"
#include "log_output.h"
#include "port/posix/runtime/posix_runtime.h"

namespace {

constexpr int kLevelUnset = -1;
/* Errors, warnings and notices (connection and security changes): a few hundred bytes a day when idle. */
constexpr int kDefaultLevel = LOG_LEVEL_NOTICE;

const char *const kLevelNames[] = {"error", "warn", "notice", "info", "progress", "detail"};
const char *const kLevelTags[] = {"ERROR", "WARN", "NOTICE", "INFO", "PROG", "DETAIL"};
constexpr int kLevelCount = 6;

std::atomic<int> g_level{kLevelUnset};
std::atomic<sf_log::WallClock> g_clock{nullptr};

/* PrintLogRaw continues the calling thread's last line, so it is shown
 * exactly when that line was, at its level. */
thread_local bool t_last_line_shown = false;
thread_local int t_last_level = LOG_LEVEL_DETAIL;

int clamp_level(int level)
{
    return level < LOG_LEVEL_ERROR ? LOG_LEVEL_ERROR : (level > LOG_LEVEL_DETAIL ? LOG_LEVEL_DETAIL : level);
}

/* SF_LOG_LEVEL as parse_level reads it; unset or unreadable keeps the default (an application checks it first). */
int level_from_environment()
{
    const char *text = std::getenv("SF_LOG_LEVEL");
    const int level = text != nullptr ? sf_log::parse_level(text) : -1;
    return level >= 0 ? level : kDefaultLevel;
}

/* The first call reads the environment; kept out of line so the usual call is a load. */
__attribute__((noinline, cold)) int first_level()
{
    int expected = kLevelUnset;
    const int level = level_from_environment();
    if (!g_level.compare_exchange_strong(expected, level)) {
        return expected; /* set meanwhile by uni_log_set_level */
    }
    return level;
}

int current_level()
{
    const int level = g_level.load(std::memory_order_relaxed);
    return level != kLevelUnset ? level : first_level();
}

std::string vformat(const char *fmt, va_list args)
{
    va_list copy;
    va_copy(copy, args);
    const int len = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (len <= 0) {
        return std::string();
    }
    std::string text(static_cast<size_t>(len) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), fmt, args);
    text.resize(static_cast<size_t>(len));
    return text;
}

/* Days since 1970-01-01 to a civil date (proleptic Gregorian), for any 64-bit day count. */
void civil_from_days(int64_t days, int64_t *year, int *month, int *day)
{
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const int64_t doe = days - era * 146097;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const int64_t mp = (5 * doy + 2) / 153;
    *day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
    *month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
    *year = yoe + era * 400 + (*month <= 2 ? 1 : 0);
}

void real_clock(int64_t *seconds, int *millis)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    *seconds = static_cast<int64_t>(now.tv_sec);
    *millis = static_cast<int>(now.tv_nsec / 1000000) % 1000;
}

} // namespace

namespace sf_log {

int parse_level(const std::string &text)
{
    for (int level = 0; level < kLevelCount; ++level) {
        if (strcasecmp(text.c_str(), kLevelNames[level]) == 0) {
            return level;
        }
    }
    if (text.size() == 1 && text[0] >= '0' && text[0] <= '5') {
        return text[0] - '0';
    }
    return -1;
}

void set_wall_clock(WallClock clock) { g_clock.store(clock); }

std::string utc_text(int64_t seconds, int millis)
{
    const int64_t day_seconds = 86400;
    int64_t days = seconds / day_seconds;
    int64_t rest = seconds % day_seconds;
    if (rest < 0) {
        rest += day_seconds;
        --days;
    }
    int64_t year = 0;
    int month = 0;
    int day = 0;
    civil_from_days(days, &year, &month, &day);
    char buf[64];
    std::snprintf(buf, sizeof(buf), "%04lld-%02d-%02dT%02d:%02d:%02d.%03dZ", static_cast<long long>(year), month, day,
                  static_cast<int>(rest / 3600), static_cast<int>(rest / 60 % 60), static_cast<int>(rest % 60),
                  millis);
    return buf;
}

namespace detail {

std::string time_prefix()
{
    int64_t seconds = 0;
    int millis = 0;
    const WallClock clock = g_clock.load();
    (clock != nullptr ? clock : real_clock)(&seconds, &millis);
    return utc_text(seconds, millis) + ' ';
}

} // namespace detail
} // namespace sf_log

extern "C" void uni_log_set_level(int level)
{
    g_level.store(clamp_level(level));
}

extern "C" int uni_log_get_level(void)
{
    return current_level();
}

namespace {

/*
 * A line that is shown: formatted and handed to the writer. Out of line,
 * so that PrintLog for a level that is not shown (most calls: the module
 * logs every step of a report at progress and detail level) is a level
 * test without the frame this needs.
 */
__attribute__((noinline)) void print_line(INT_T level, const CHAR_T *file, INT_T line, const CHAR_T *func,
                                          const CHAR_T *fmt, va_list args)
{
    const std::string message = vformat(fmt, args);
    const char *tag = (level >= 0 && level < kLevelCount) ? kLevelTags[level] : "?";
    std::string out = sf_log::detail::time_prefix();
    out += tag;
    out += ' ';
    out += file != nullptr ? file : "?";
    out += ':';
    out += std::to_string(line);
    out += ' ';
    out += func != nullptr ? func : "?";
    out += ": ";
    out += message;
    out += '\n';
    t_last_line_shown = sf_log::detail::submit_line(level, {file, line, func}, out);
}

} // namespace

extern "C" void PrintLog(INT_T, INT_T level, const CHAR_T *file, INT_T line, const CHAR_T *func, const CHAR_T *fmt,
                         ...)
{
    const bool shown = level <= current_level();
    t_last_line_shown = shown;
    t_last_level = level;
    if (!shown || fmt == nullptr) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    print_line(level, file, line, func, fmt, args);
    va_end(args);
}

extern "C" void PrintLogRaw(const CHAR_T *fmt, ...)
{
    if (!t_last_line_shown || fmt == nullptr) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    const std::string text = vformat(fmt, args);
    va_end(args);
    sf_log::detail::submit_raw(t_last_level, text);
}
