/*
 * Non-recursive mutexes of the OS layer.
 *
 * Every result list below is complete: a backend MUST return no other code.
 * (The fakes of tests/fakes also return any code a test injects, to prove
 * that the module passes it on.)
 */
#ifndef UNI_MUTEX_H
#define UNI_MUTEX_H

#include "../cloud_defs/kelo_cloud_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Create an unlocked mutex into *handle. Any thread.
 *   RC_OK         created
 *   RC_BAD_PARAM  handle is NULL
 *   RC_NO_MEMORY  no memory, or the platform could not create a mutex
 */
OPERATE_RET CreateMutexAndInit(MUTEX_HANDLE *handle);

/*
 * Lock; blocks. Any thread. Locking a mutex the thread already holds is a
 * programming error (POSIX: a failed lock is logged, then the process aborts).
 */
void MutexLock(MUTEX_HANDLE handle);

/* Unlock a mutex held by this thread (the thread that locked it). */
void MutexUnLock(MUTEX_HANDLE handle);

/* Destroy an unlocked mutex nobody waits on; NULL is ignored. Any thread. */
void ReleaseMutex(MUTEX_HANDLE handle);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* UNI_MUTEX_H */
