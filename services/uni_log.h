/*
 * Logging of the OS layer.
 */
#ifndef UNI_LOG_H
#define UNI_LOG_H

#include "../cloud_defs/kelo_cloud_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define LOG_LEVEL_ERROR    0
#define LOG_LEVEL_WARN     1
#define LOG_LEVEL_NOTICE   2
#define LOG_LEVEL_INFO     3
#define LOG_LEVEL_PROGRESS 4 /* routine progress */
#define LOG_LEVEL_DETAIL   5

#if defined(__GNUC__)
#define UNI_LOG_PRINTF(fmt_idx, arg_idx) __attribute__((format(printf, fmt_idx, arg_idx)))
#else
#define UNI_LOG_PRINTF(fmt_idx, arg_idx)
#endif

/*
 * One formatted log line: module (0 for the smart frame), level, source
 * file name, line, function name, then the message. Any thread; never blocks
 * on the network.
 */
void PrintLog(INT_T module, INT_T level, const CHAR_T *file, INT_T line, const CHAR_T *func,
              const CHAR_T *fmt, ...) UNI_LOG_PRINTF(6, 7);

/* Log text without a prefix (continues a line). No result; any thread; never blocks on the network. */
void PrintLogRaw(const CHAR_T *fmt, ...) UNI_LOG_PRINTF(1, 2);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* UNI_LOG_H */
