/* Log sink: every line kept with level, source, function and formatted text. */
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "fake_internal.h"

namespace {

struct LogState {
    std::vector<fake::log::Entry> entries;
    std::string raw;
};

LogState &state()
{
    static LogState &s = *new LogState(); // never destroyed: what it points at stays reachable at exit
    return s;
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

bool echo()
{
    static const bool on = std::getenv("SF_FAKE_LOG_ECHO") != nullptr;
    return on;
}

} // namespace

extern "C" void PrintLog(INT_T, INT_T level, const CHAR_T *file, INT_T line, const CHAR_T *func, const CHAR_T *fmt,
                         ...)
{
    va_list args;
    va_start(args, fmt);
    std::string text = vformat(fmt, args);
    va_end(args);
    if (echo()) {
        std::fprintf(stderr, "[%d] %s:%d %s: %s\n", level, file, line, func, text.c_str());
    }
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    state().entries.push_back({level, file != nullptr ? file : "", line, func != nullptr ? func : "", text});
}

extern "C" void PrintLogRaw(const CHAR_T *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    std::string text = vformat(fmt, args);
    va_end(args);
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    state().raw += text;
}

namespace fake {
namespace log {

const std::vector<Entry> &entries()
{
    return state().entries;
}

std::vector<Entry> find(const std::string &text)
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    std::vector<Entry> found;
    for (const Entry &entry : state().entries) {
        if (entry.text == text) {
            found.push_back(entry);
        }
    }
    return found;
}

bool has(int level, const std::string &func, const std::string &text)
{
    for (const Entry &entry : find(text)) {
        if (entry.level == level && entry.func == func) {
            return true;
        }
    }
    return false;
}

bool has(int level, const std::string &text)
{
    for (const Entry &entry : find(text)) {
        if (entry.level == level) {
            return true;
        }
    }
    return false;
}

size_t count(const std::string &text)
{
    return find(text).size();
}

const std::string &raw()
{
    return state().raw;
}

void clear()
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    state().entries.clear();
    state().raw.clear();
}

std::string dump()
{
    std::lock_guard<std::recursive_mutex> guard(detail::records_lock());
    std::string out;
    for (const Entry &entry : state().entries) {
        out += "[" + std::to_string(entry.level) + "] " + entry.func + ": " + entry.text + "\n";
    }
    return out;
}

} // namespace log

namespace detail {
void reset_log()
{
    log::clear();
}
} // namespace detail
} // namespace fake
