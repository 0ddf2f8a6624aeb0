/*
 * Log lines of the DP state store, through the OS layer's PrintLog
 * (module number 2). Every line starts with "state: " so an operator can
 * find the store's story in a gateway log.
 */
#ifndef SF_POSIX_STATE_LOG_H
#define SF_POSIX_STATE_LOG_H

#include "../../services/uni_log.h"

#define SF_STATE_LOG_MODULE 2

#define ST_LOG_ERR(...) PrintLog(SF_STATE_LOG_MODULE, LOG_LEVEL_ERROR, __FILE__, __LINE__, __func__, __VA_ARGS__)
#define ST_LOG_WARN(...) PrintLog(SF_STATE_LOG_MODULE, LOG_LEVEL_WARN, __FILE__, __LINE__, __func__, __VA_ARGS__)
#define ST_LOG_NOTICE(...) PrintLog(SF_STATE_LOG_MODULE, LOG_LEVEL_NOTICE, __FILE__, __LINE__, __func__, __VA_ARGS__)

#endif /* SF_POSIX_STATE_LOG_H */
