/*
 * The one call the registry makes into the DP state store: a device was
 * looked up, so the module may be about to change its DP table. Costs a
 * flag test when no store runs, and an insertion into a small set under a
 * leaf lock of its own when one does; never disk I/O, never SQLite.
 * Any thread, with or without dev_mutex held.
 */
#ifndef PORT_POSIX_STATE_HOOK_H
#define PORT_POSIX_STATE_HOOK_H

#include "../../cloud_defs/kelo_cloud_com_defs.h"

#ifdef __cplusplus
extern "C" {
#endif

void sf_state_touch(const DEV_CNTL_N_S *node);

#ifdef __cplusplus
}
#endif

#endif /* PORT_POSIX_STATE_HOOK_H */
