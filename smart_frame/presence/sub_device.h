/*
 * Finding the sub-device a presence or heartbeat setter is called for.
 * These setters serve sub-devices only and refuse the gateway's own id.
 */
#ifndef SF_PRESENCE_SUB_DEVICE_H
#define SF_PRESENCE_SUB_DEVICE_H

#include "../../cloud_defs/kelo_cloud_com_defs.h"
#include "../sf_lock.h"

namespace sf {

/*
 * Store the node of sub-device dev_id in *dev_cntl. Returns RC_OK;
 * RC_FAIL for NULL or the gateway's own id (get_gw_cntl()->gw_if.id in any
 * letter case, same length), without asking the registry;
 * RC_DEV_NOT_FOUND when the registry does not know the id. No log: each
 * setter answers these in its own way. Calls get_dev_cntl, so MUST NOT be
 * called with dev_mutex held.
 */
OPERATE_RET find_sub_device(const CHAR_T *dev_id, DEV_CNTL_N_S **dev_cntl) SF_EXCLUDES(sf::dev_mutex_cap);

} // namespace sf

#endif /* SF_PRESENCE_SUB_DEVICE_H */
