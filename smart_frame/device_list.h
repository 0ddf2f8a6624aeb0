/*
 * Walking the registry's device list without dev_mutex.
 *
 * The DP sync run and the online/offline batches walk the list holding
 * only their own locks, while the registry may append or unlink devices.
 * The registry publishes every change of a next pointer (and of the list
 * head) with a release store after the node is complete, and keeps removed
 * nodes alive for a grace period. Reading those pointers with an acquire
 * load is the other half of that contract: the walker then sees the node's
 * contents as they were when it was linked, also on weakly ordered
 * processors, and the read is not a data race with the store.
 *
 * A walk under dev_mutex (the heartbeat pass) may read the pointers and
 * dev_delete plainly.
 */
#ifndef SF_DEVICE_LIST_H
#define SF_DEVICE_LIST_H

#include "../cloud_defs/gw_intf.h"

namespace sf {

/* The first device of the gateway's list, or NULL. */
inline DEV_CNTL_N_S *first_device(GW_CNTL_S *gw)
{
    return __atomic_load_n(&gw->dev, __ATOMIC_ACQUIRE);
}

/* The device after dev, or NULL at the end. */
inline DEV_CNTL_N_S *next_device(const DEV_CNTL_N_S *dev)
{
    return __atomic_load_n(&dev->next, __ATOMIC_ACQUIRE);
}

/*
 * Whether the registry has removed dev (it is then out of the list, but a
 * walk standing on it may still see it). The registry sets the flag under
 * dev_mutex; a walker without dev_mutex reads it with this acquire load.
 */
inline bool device_removed(const DEV_CNTL_N_S *dev)
{
    return __atomic_load_n(&dev->dev_delete, __ATOMIC_ACQUIRE) != 0;
}

} // namespace sf

#endif /* SF_DEVICE_LIST_H */
