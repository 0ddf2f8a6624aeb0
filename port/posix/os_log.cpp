/*
 * Log lines to standard error:
 *
 *   2026-11-21T04:45:09.123Z ERROR frame_init.cpp:42 smart_frame_init: cmmod_init fails -1
 *
 * UTC time with milliseconds, level name, source file and line, function,
 * then the message. A line is formatted first and written with one call
 * under a lock, so lines of different threads never interleave.
 */
#include <strings.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>

#include "../../services/uni_log.h"
#include "posix_runtime.h"

namespace {

constexpr int kLevelUnset = -1;
constexpr int kDefaultLevel = LOG_LEVEL_PROGRESS;

const char *const kLevelNames[] = {"error", "warn", "notice", "info", "progress", "detail"};
const char *const kLevelTags[] = {"ERROR", "WARN", "NOTICE", "INFO", "PROG", "DETAIL"};
constexpr int kLevelCount = 6;

std::atomic<int> g_level{kLevelUnset};

/* PrintLogRaw continues the calling thread's last line, so it is shown
 * exactly when that line was. */
thread_local bool t_last_line_shown = false;

std::mutex &output_lock()
{
    static std::mutex lock;
    return lock;
}

int clamp_level(int level)
{
    return level < LOG_LEVEL_ERROR ? LOG_LEVEL_ERROR : (level > LOG_LEVEL_DETAIL ? LOG_LEVEL_DETAIL : level);
}

/* SF_LOG_LEVEL: a number 0..5 or a level name; anything else keeps the default. */
int level_from_environment()
{
    const char *text = std::getenv("SF_LOG_LEVEL");
    if (text == nullptr || *text == '\0') {
        return kDefaultLevel;
    }
    for (int level = 0; level < kLevelCount; ++level) {
        if (strcasecmp(text, kLevelNames[level]) == 0) {
            return level;
        }
    }
    char *end = nullptr;
    const long number = std::strtol(text, &end, 10);
    if (end != text && *end == '\0') {
        return clamp_level(static_cast<int>(number));
    }
    return kDefaultLevel;
}

int current_level()
{
    int level = g_level.load(std::memory_order_relaxed);
    if (level == kLevelUnset) {
        int expected = kLevelUnset;
        level = level_from_environment();
        if (!g_level.compare_exchange_strong(expected, level)) {
            level = expected; /* set meanwhile by uni_log_set_level */
        }
    }
    return level;
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

std::string time_prefix()
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm parts;
    gmtime_r(&now.tv_sec, &parts);
    char buf[96];
    std::snprintf(buf, sizeof(buf), "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, static_cast<long>(now.tv_nsec / 1000000) % 1000);
    return buf;
}

void write_out(const std::string &text)
{
    std::lock_guard<std::mutex> guard(output_lock());
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

} // namespace

extern "C" void uni_log_set_level(int level)
{
    g_level.store(clamp_level(level));
}

extern "C" int uni_log_get_level(void)
{
    return current_level();
}

extern "C" void PrintLog(INT_T, INT_T level, const CHAR_T *file, INT_T line, const CHAR_T *func, const CHAR_T *fmt,
                         ...)
{
    t_last_line_shown = level <= current_level();
    if (!t_last_line_shown || fmt == nullptr) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    const std::string message = vformat(fmt, args);
    va_end(args);
    const char *tag = (level >= 0 && level < kLevelCount) ? kLevelTags[level] : "?";
    std::string out = time_prefix();
    out += ' ';
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
    write_out(out);
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
    write_out(text);
}
