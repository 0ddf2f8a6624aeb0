/*
 * The gateway registry: the gateway record and its device list, and the
 * operations the smart frame uses on them.
 *
 * The registry owns every record reached from here. Device nodes returned
 * by the lookups stay valid while the caller uses them: a removed node is
 * first flagged dev_delete and freed only when no caller can still hold it.
 *
 * Walking without dev_mutex. The registry changes the list (the head, every
 * next pointer) and dev_delete only with dev_mutex held, and publishes each
 * such write with a release store (__atomic_store_n(..., __ATOMIC_RELEASE))
 * made after the node is complete. A caller that holds dev_mutex MAY read
 * them plainly. A caller that does not (the DP sync, the online/offline
 * batches, their completions) MUST read next, the head and dev_delete with
 * acquire loads (__atomic_load_n(..., __ATOMIC_ACQUIRE)); any other field
 * the registry set before linking a node is then seen as it was set. A
 * node flagged dev_delete is out of the list but still alive for a walk
 * standing on it. The fields stay plain in the
 * records, so the layout is the same for every backend.
 */
#ifndef GW_INTF_H
#define GW_INTF_H

#include "kelo_cloud_com_defs.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
    CHAR_T id[DEV_ID_LEN + 1]; /* the gateway's own device id */
    CHAR_T sw_ver[SW_VER_LEN + 1];
    CHAR_T product_key[PRODUCT_KEY_LEN + 1];
} GW_DESC_IF_S;

typedef struct {
    GW_DESC_IF_S    gw_if;
    MUTEX_HANDLE    dev_mutex; /* guards the device list and every DP table */
    DEV_CNTL_N_S   *dev;       /* head of the device list */
    UINT_T          dev_num;
    KL_IOT_CBS_S    cbs;
    KL_IOT_GW_CBS_S gw_cbs;
} GW_CNTL_S;

/* The gateway record; never NULL once the registry is up. Any thread. */
GW_CNTL_S *get_gw_cntl(void);

/*
 * Device node whose dev_if.id equals id, or NULL.
 * Takes and releases dev_mutex itself: MUST NOT be called with dev_mutex held.
 */
DEV_CNTL_N_S *get_dev_cntl(const CHAR_T *id);

/* The same lookup for a caller that already holds dev_mutex. */
DEV_CNTL_N_S *get_dev_cntl_unlock(const CHAR_T *id);

/*
 * The gateway's own device node, or NULL. It is no sub-device: it starts
 * online, reported and never timing out (hb_timeout_time 0xFFFFFFFF), so
 * presence batches and heartbeat passes leave it alone.
 */
DEV_CNTL_N_S *get_gw_dev_cntl(void);

/* DP dpid of device id, or NULL. Takes no lock of the caller's. */
DP_CNTL_S *get_dev_dp_cntl(const CHAR_T *id, BYTE_T dpid);

/*
 * GW_NW_NONE (0), GW_NW_LAN (1) or GW_NW_CLOUD (2): starts at GW_NW_LAN,
 * and is GW_NW_CLOUD exactly while the MQTT client is connected. Any thread.
 */
GW_BASE_NW_STAT_T get_gw_nw_status(void);

/*
 * Keep a sub-device's group table: GRP_ADD adds grp_id, GRP_DEL removes it.
 * Returns RC_OK, RC_DEV_NOT_FOUND, RC_BAD_PARAM or RC_MEMBERSHIP_FULL, and
 * RC_NO_MEMORY when a device's first membership finds no room for its table.
 */
OPERATE_RET dev_update_grp_info(GRP_ACTION_E action, const CHAR_T *dev_id, const CHAR_T *grp_id);

/* Keep a sub-device's scene table; results as dev_update_grp_info. */
OPERATE_RET dev_update_scene_info(SCE_ACTION_E action, const CHAR_T *dev_id, const CHAR_T *grp_id,
                                  const CHAR_T *sce_id);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* GW_INTF_H */
