/*
 * Threads of the OS layer, for backends and applications (the smart frame
 * itself starts none: it runs on its callers' threads and the dispatch thread).
 */
#ifndef UNI_THREAD_H
#define UNI_THREAD_H

#include "../cloud_defs/kelo_cloud_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef void *THREAD_HANDLE;
typedef void (*THREAD_FUNC)(void *arg);

/* Start func(arg) on a new thread named name (at most 15 characters shown). */
OPERATE_RET ThreadCreate(THREAD_HANDLE *handle, THREAD_FUNC func, void *arg, const CHAR_T *name);

/* Wait for the thread to return and release its handle. Never cancels. */
OPERATE_RET ThreadJoin(THREAD_HANDLE handle);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* UNI_THREAD_H */
