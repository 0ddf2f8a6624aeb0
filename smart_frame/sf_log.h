/*
 * The module's log lines: level, source file, line, the calling function's
 * own name and a fixed message, through the project's one log front as
 * module 0. The messages and their levels are part of the behaviour. Log
 * from the function that owns the message (the name is __func__).
 */
#ifndef SF_LOG_H
#define SF_LOG_H

#include "../services/log_front.h"

#endif /* SF_LOG_H */
