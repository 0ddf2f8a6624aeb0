/*
 * The one log front of the project: the module, the gateway layer, the
 * POSIX port and the apps all log through these macros, which call the
 * log service's PrintLog (uni_log.h) with the level, the source file's
 * name (without its folders), the line and the calling function.
 *
 * Module number: a source file that is not part of the smart frame defines
 * SF_LOG_MODULE as its first line, before any include, to one of the
 * SF_LOG_MODULE_* numbers below; a file that does not logs as the smart
 * frame (0). The number lets a log backend route or filter by origin; the
 * POSIX backend prints it nowhere.
 *
 * Compile-time floor: SF_LOG_LEVEL (a LOG_LEVEL_* number, default
 * LOG_LEVEL_DETAIL, i.e. everything) removes every call above it from the
 * build: such a call compiles to nothing and its arguments are not
 * evaluated, so they MUST NOT have side effects. The run-time filter of
 * the backend still applies to what is left.
 *
 * Levels, most severe first: ERR, WARN, NOTICE, INFO, PROG (routine
 * progress) and DETAIL. Compiles as C11 and as C++17.
 */
#ifndef SF_LOG_FRONT_H
#define SF_LOG_FRONT_H

#include "uni_log.h"

/* Who logs: the number passed as PrintLog's first argument. */
#define SF_LOG_MODULE_FRAME   0 /* the smart frame */
#define SF_LOG_MODULE_CHANNEL 1 /* the MQTT client, the LAN channel, the command edge, metrics */
#define SF_LOG_MODULE_STATE   2 /* the DP state store */
#define SF_LOG_MODULE_RUNTIME 3 /* the POSIX runtime: dispatch loop, locks, blocks */
#define SF_LOG_MODULE_SFGW    4 /* the gateway daemon and its device simulator */
#define SF_LOG_MODULE_SFCLOUD 5 /* the cloud console */

#ifndef SF_LOG_MODULE
#define SF_LOG_MODULE SF_LOG_MODULE_FRAME
#endif

#ifndef SF_LOG_LEVEL
#define SF_LOG_LEVEL LOG_LEVEL_DETAIL
#endif

#ifdef __cplusplus
namespace sf_log_front {

/* The file name without its folders, computed by the compiler. */
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

} // namespace sf_log_front
#define SF_LOG_FILE ::sf_log_front::source_basename(__FILE__)
#else
#define SF_LOG_FILE (__builtin_strrchr(__FILE__, '/') ? __builtin_strrchr(__FILE__, '/') + 1 : __FILE__)
#endif

/* A line at a level chosen at run time, in the name of function func. */
#define SF_LOG_AT_FN(level, func, ...) PrintLog(SF_LOG_MODULE, (level), SF_LOG_FILE, __LINE__, (func), __VA_ARGS__)
/* A line at a level chosen at run time (not subject to the floor). */
#define SF_LOG_AT(level, ...) SF_LOG_AT_FN((level), __func__, __VA_ARGS__)

#define SF_LOG_OFF_(...) ((void)0)

#if SF_LOG_LEVEL >= LOG_LEVEL_ERROR
#define SF_LOG_ERR(...) SF_LOG_AT(LOG_LEVEL_ERROR, __VA_ARGS__)
#else
#define SF_LOG_ERR(...) SF_LOG_OFF_(__VA_ARGS__)
#endif
#if SF_LOG_LEVEL >= LOG_LEVEL_WARN
#define SF_LOG_WARN(...) SF_LOG_AT(LOG_LEVEL_WARN, __VA_ARGS__)
#else
#define SF_LOG_WARN(...) SF_LOG_OFF_(__VA_ARGS__)
#endif
#if SF_LOG_LEVEL >= LOG_LEVEL_NOTICE
#define SF_LOG_NOTICE(...) SF_LOG_AT(LOG_LEVEL_NOTICE, __VA_ARGS__)
#else
#define SF_LOG_NOTICE(...) SF_LOG_OFF_(__VA_ARGS__)
#endif
#if SF_LOG_LEVEL >= LOG_LEVEL_INFO
#define SF_LOG_INFO(...) SF_LOG_AT(LOG_LEVEL_INFO, __VA_ARGS__)
#else
#define SF_LOG_INFO(...) SF_LOG_OFF_(__VA_ARGS__)
#endif
#if SF_LOG_LEVEL >= LOG_LEVEL_PROGRESS
#define SF_LOG_PROG(...) SF_LOG_AT(LOG_LEVEL_PROGRESS, __VA_ARGS__)
#else
#define SF_LOG_PROG(...) SF_LOG_OFF_(__VA_ARGS__)
#endif
#if SF_LOG_LEVEL >= LOG_LEVEL_DETAIL
#define SF_LOG_DETAIL(...) SF_LOG_AT(LOG_LEVEL_DETAIL, __VA_ARGS__)
#else
#define SF_LOG_DETAIL(...) SF_LOG_OFF_(__VA_ARGS__)
#endif

#endif /* SF_LOG_FRONT_H */
