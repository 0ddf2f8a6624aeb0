/*
 * Counting semaphores of the OS layer.
 *
 * Every result list below is complete: a backend MUST return no other code.
 * (The fakes of tests/fakes also return any code a test injects, to prove
 * that the module passes it on.)
 */
#ifndef UNI_SEMAPHORE_H
#define UNI_SEMAPHORE_H

#include "../cloud_defs/kelo_cloud_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Create a semaphore with init_count and a ceiling of max_count. Any thread.
 *   RC_OK         created
 *   RC_BAD_PARAM  handle is NULL, max_count is 0, init_count is above
 *                 max_count, or max_count is beyond the platform's limit
 *   RC_NO_MEMORY  no memory for the semaphore
 *   RC_FAIL       the platform refused to create it
 */
OPERATE_RET CreateAndInitSemaphore(SEM_HANDLE *handle, UINT_T init_count, UINT_T max_count);

/*
 * Wait without time-out; blocks. Any thread.
 *   RC_OK             a count was taken
 *   RC_WAIT_SEM_FAIL  with errno EINTR: interrupted, and the caller retries;
 *                     with another errno: failed (EINVAL for a NULL handle)
 */
OPERATE_RET WaitSemaphore(SEM_HANDLE handle);

/* Add a count (a post at the ceiling is dropped); NULL is ignored. Any thread; never blocks for long. */
void PostSemaphore(SEM_HANDLE handle);

/* Destroy a semaphore nobody waits on; NULL is ignored. Any thread. */
void ReleaseSemaphore(SEM_HANDLE handle);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* UNI_SEMAPHORE_H */
