/*
 * Log lines of the MQTT client and the LAN channel, through the OS layer's
 * PrintLog (module number 1: the channels; the smart frame logs as 0).
 */
#ifndef SF_POSIX_CHANNEL_LOG_H
#define SF_POSIX_CHANNEL_LOG_H

#include "../../services/uni_log.h"

#define SF_CHANNEL_LOG_MODULE 1

#define CH_LOG_ERR(...) \
    PrintLog(SF_CHANNEL_LOG_MODULE, LOG_LEVEL_ERROR, __FILE__, __LINE__, __func__, __VA_ARGS__)
#define CH_LOG_WARN(...) \
    PrintLog(SF_CHANNEL_LOG_MODULE, LOG_LEVEL_WARN, __FILE__, __LINE__, __func__, __VA_ARGS__)
#define CH_LOG_INFO(...) \
    PrintLog(SF_CHANNEL_LOG_MODULE, LOG_LEVEL_PROGRESS, __FILE__, __LINE__, __func__, __VA_ARGS__)
#define CH_LOG_DEBUG(...) \
    PrintLog(SF_CHANNEL_LOG_MODULE, LOG_LEVEL_DETAIL, __FILE__, __LINE__, __func__, __VA_ARGS__)

#endif /* SF_POSIX_CHANNEL_LOG_H */
