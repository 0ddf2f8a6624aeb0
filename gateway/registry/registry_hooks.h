/*
 * The calls the registry makes into its platform. A port supplies each of
 * them as a plain function; the registry itself makes no platform call
 * beyond the services/ headers, so another platform reuses it unchanged.
 */
#ifndef GATEWAY_REGISTRY_REGISTRY_HOOKS_H
#define GATEWAY_REGISTRY_REGISTRY_HOOKS_H

#include "../../cloud_defs/kelo_cloud_com_defs.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * A device was looked up, so the module may be about to change its DP
 * table: the DP state store marks it for its next write. MUST cost a flag
 * test when no store runs, and an insertion into a small set under a leaf
 * lock of its own when one does; never disk I/O. Any thread, with or
 * without dev_mutex held.
 */
void sf_state_touch(const DEV_CNTL_N_S *node);

/*
 * Whether the dispatch thread is stopped, or was never started: then no
 * dispatch job can hold a node, and a removed node need only wait for its
 * grace period. MUST NOT block on the dispatch thread's work; any thread.
 */
BOOL_T sf_dispatch_stopped(void);

#ifdef __cplusplus
}
#endif

#endif /* GATEWAY_REGISTRY_REGISTRY_HOOKS_H */
