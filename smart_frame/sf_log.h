/*
 * The module's log lines: level, source file, line, the calling function's
 * own name and a fixed message. The messages are part of the behaviour.
 * Log from the function that owns the message (the name is __func__).
 */
#ifndef SF_LOG_H
#define SF_LOG_H

#include "../services/uni_log.h"

namespace sf {

constexpr const char *source_basename(const char *path)
{
    const char *base = path;
    for (const char *p = path; *p != '\0'; ++p) {
        if (*p == '/') {
            base = p + 1;
        }
    }
    return base;
}

} // namespace sf

#define SF_LOG_AT(level, ...) \
    PrintLog(0, (level), ::sf::source_basename(__FILE__), __LINE__, __func__, __VA_ARGS__)

#define SF_LOG_ERR(...)    SF_LOG_AT(LOG_LEVEL_ERROR, __VA_ARGS__)
#define SF_LOG_PROG(...)   SF_LOG_AT(LOG_LEVEL_PROGRESS, __VA_ARGS__)
#define SF_LOG_DETAIL(...) SF_LOG_AT(LOG_LEVEL_DETAIL, __VA_ARGS__)

#endif /* SF_LOG_H */
