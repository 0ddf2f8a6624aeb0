/*
 * Threads of the OS layer, for backends and applications (the smart frame
 * itself starts none: it runs on its callers' threads and the dispatch thread).
 *
 * Every result list below is complete: a backend MUST return no other code.
 */
#ifndef UNI_THREAD_H
#define UNI_THREAD_H

#include "../cloud_defs/kelo_cloud_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef void *THREAD_HANDLE;
typedef void (*THREAD_FUNC)(void *arg);

/*
 * Start func(arg) on a new thread named name (NULL: unnamed; at most 15
 * characters shown). Any thread.
 *   RC_OK         started; *handle is to be joined with ThreadJoin
 *   RC_BAD_PARAM  handle or func is NULL
 *   RC_NO_MEMORY  no memory for the thread's record
 *   RC_FAIL       the platform refused to start a thread
 */
OPERATE_RET ThreadCreate(THREAD_HANDLE *handle, THREAD_FUNC func, void *arg, const CHAR_T *name);

/*
 * Wait for the thread to return and release its handle. Never cancels. Any
 * thread but the one joined.
 *   RC_OK         joined and released
 *   RC_BAD_PARAM  handle is NULL, or the calling thread's own (not released)
 *   RC_FAIL       the platform's join failed; the handle is released all the same
 */
OPERATE_RET ThreadJoin(THREAD_HANDLE handle);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* UNI_THREAD_H */
