/*
 * Counting semaphores of the OS layer.
 */
#ifndef UNI_SEMAPHORE_H
#define UNI_SEMAPHORE_H

#include "../cloud_defs/kelo_cloud_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Create a semaphore with init_count and a ceiling of max_count. RC_OK or negative. */
OPERATE_RET CreateAndInitSemaphore(SEM_HANDLE *handle, UINT_T init_count, UINT_T max_count);

/*
 * Wait without time-out. RC_OK once a count was taken. An interrupted wait
 * returns RC_WAIT_SEM_FAIL with errno EINTR, and the caller retries; any
 * other failure returns RC_WAIT_SEM_FAIL with another errno.
 */
OPERATE_RET WaitSemaphore(SEM_HANDLE handle);

/* Add a count (not beyond the ceiling). Any thread. */
void PostSemaphore(SEM_HANDLE handle);

/* Destroy a semaphore nobody waits on. */
void ReleaseSemaphore(SEM_HANDLE handle);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* UNI_SEMAPHORE_H */
