/*
 * The two clocks of the OS layer.
 */
#ifndef UNI_TIME_H
#define UNI_TIME_H

#include "../cloud_defs/kelo_cloud_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* POSIX time in seconds: DP time stamps and report flow control. No result code; any thread. */
TIME_T uni_time_get_posix(void);

/*
 * System time in seconds into *p_secs (heartbeats and presence). p_ms, when
 * not NULL, receives the milliseconds within that second. No result code;
 * any thread.
 */
void uni_get_system_time(TIME_S *p_secs, TIME_MS *p_ms);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* UNI_TIME_H */
