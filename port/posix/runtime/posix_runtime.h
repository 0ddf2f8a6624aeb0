/*
 * Start and stop of the POSIX runtime, for applications and tests.
 *
 * The services themselves (services/ *.h and cloud_defs/gw_intf.h) are the
 * contract the smart frame sees; this header adds what a process built on
 * the POSIX backend needs around them:
 *
 *   start:  system_timer_init(); cmmod_init();   (smart_frame_init does both)
 *   run:    the dispatch thread runs handlers and timed messages
 *   stop:   cmmod_stop();   before the process tears down what handlers use
 *
 * Logging goes to standard error (or a file or syslog: log_output.h)
 * through a bounded buffer and a writer thread, so it never waits for the
 * output. Its level filter starts from the environment variable
 * SF_LOG_LEVEL (a number 0..5 or one of the names error, warn, notice,
 * info, progress, detail) and defaults to notice (2); uni_log_set_level
 * overrides it at any time.
 */
#ifndef POSIX_RUNTIME_H
#define POSIX_RUNTIME_H

#include "../../../cloud_defs/kelo_cloud_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Stop the dispatch thread cleanly: new posts are refused from now on,
 * every message already queued still runs (so the data it owns is
 * released by its handler), timed messages no longer fire, then the thread
 * is joined. Never cancels a running handler. Blocks until the thread has
 * ended. MUST NOT be called on the dispatch thread itself (a handler or a
 * timed-message callback): that call is refused with an error log.
 * Harmless when the module is not running. cmmod_init starts it again; the
 * registered handlers and timed messages survive a stop.
 */
void cmmod_stop(void);

/* The dispatch queue's fill, for metrics and tests. */
typedef struct {
    UINT_T depth;   /* messages waiting now */
    UINT_T peak;    /* most messages that ever waited at once */
    UINT_T limit;   /* the bound (SF_DISPATCH_QUEUE_LIMIT); only the dispatch thread's own posts pass it */
    UINT_T waiting; /* posting threads held until there is room */
} CMMOD_QUEUE_STAT_S;

/* Fill *stat (ignored when NULL). Any thread; takes the queue's lock briefly. */
void cmmod_get_queue_stat(CMMOD_QUEUE_STAT_S *stat);

/* 1 when called on the dispatch thread, else 0. Any thread. */
BOOL_T cmmod_on_dispatch_thread(void);

/*
 * Show log lines of this level and below (LOG_LEVEL_ERROR 0 .. LOG_LEVEL_DETAIL 5);
 * values outside 0..5 are clamped. Any thread.
 */
void uni_log_set_level(int level);

/* The current level filter. Any thread. */
int uni_log_get_level(void);

/*
 * Install Malloc/Free as cJSON's allocator. Done automatically before
 * main (static initializer of the memory unit, linked with Malloc);
 * exported for applications that reset cJSON's hooks themselves. Like
 * cJSON_InitHooks, call it only while no other thread uses cJSON.
 */
void uni_memory_install_json_hooks(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* POSIX_RUNTIME_H */
