/*
 * Non-recursive mutexes of the OS layer.
 */
#ifndef UNI_MUTEX_H
#define UNI_MUTEX_H

#include "../cloud_defs/kelo_cloud_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Create a mutex into *handle. RC_OK, RC_BAD_PARAM or RC_NO_MEMORY. */
OPERATE_RET CreateMutexAndInit(MUTEX_HANDLE *handle);

/* Lock; blocks. Locking a mutex the thread already holds is a programming error. */
void MutexLock(MUTEX_HANDLE handle);

/* Unlock a mutex held by this thread. */
void MutexUnLock(MUTEX_HANDLE handle);

/* Destroy an unlocked mutex. */
void ReleaseMutex(MUTEX_HANDLE handle);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* UNI_MUTEX_H */
