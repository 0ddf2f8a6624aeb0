/*
 * The daemon's own log lines go through the runtime's log, so they share
 * its format, its standard error and its level filter (--log-level).
 */
#ifndef SFGW_APP_LOG_H
#define SFGW_APP_LOG_H

#include "services/uni_log.h"

#define APP_LOG(level, ...) PrintLog(0, (level), __FILE__, __LINE__, __func__, __VA_ARGS__)
#define APP_ERR(...) APP_LOG(LOG_LEVEL_ERROR, __VA_ARGS__)
#define APP_NOTICE(...) APP_LOG(LOG_LEVEL_NOTICE, __VA_ARGS__)
#define APP_INFO(...) APP_LOG(LOG_LEVEL_INFO, __VA_ARGS__)

#endif /* SFGW_APP_LOG_H */
