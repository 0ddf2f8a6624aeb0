/*
 * Timer service underneath the message module's timed messages.
 */
#ifndef UNI_TIME_QUEUE_H
#define UNI_TIME_QUEUE_H

#include "../cloud_defs/kelo_cloud_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef BYTE_T TIMER_TYPE;
#define TIMER_ONCE  0 /* fires once per start */
#define TIMER_CYCLE 1 /* fires every period until released */

/*
 * Start the timer service. Called first at start-up, before cmmod_init, on
 * the start-up thread. A second call is harmless and returns RC_OK.
 *   RC_OK    started (or already running)
 *   RC_FAIL  the platform's timer service cannot start (the POSIX backend
 *            never fails: its timers live on the dispatch thread)
 * A backend returns no other code (the fakes: also any code a test injects).
 */
OPERATE_RET system_timer_init(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* UNI_TIME_QUEUE_H */
