/*
 * The module's own state: one control block, shared by the start-up, the
 * serial numbers, the command handlers and the timed messages.
 */
#ifndef SF_FRAME_CNTL_H
#define SF_FRAME_CNTL_H

#include "../services/uni_msg_queue.h"
#include "sf_lock.h"
#include "smart_frame.h"

typedef struct {
    MSG_ID                mid_gw_dev_cmd;         /* handler __sf_gw_dev_cmd_cb */
    MSG_ID                mid_gw_scene_oper_cmd;  /* handler __sf_gw_scene_oper_cmd_cb */
    MSG_ID                mid_gw_group_oper_cmd;  /* handler __sf_gw_group_oper_cmd_cb */
    TM_MSG_S             *tmm_dp_sync;            /* __tmm_dp_sync_cb */
    TM_MSG_S             *tmm_dev_ol_sync;        /* __tmm_dev_ol_sync_cb */
    UINT_T                serial_no               /* next report serial number */
        SF_GUARDED_BY(sf::serial_mutex_cap);
    MUTEX_HANDLE          mutex;                  /* guards serial_no only */
    MUTEX_HANDLE          dos_mutex;              /* stat, dosm, heartbeat fields, dos_update */
    BOOL_T                dos_update              /* an online/offline batch chain is running */
        SF_GUARDED_BY(sf::dos_mutex_cap);
    BOOL_T                hb_start;               /* heartbeat supervision started */
    TIME_S                hb_refresh_intv;        /* kept for layout; the period is fixed at 8 s */
    TM_MSG_S             *tmm_dev_hst;            /* __tmm_hb_fresh_ol_stat_cb */
    DEV_HEARTBEAT_SEND_CB hb_send_cb;             /* application probe, may be NULL */
} SMT_FRM_CNTL_S;

namespace sf {

/* The single control block; zero-filled by smart_frame_init. */
extern SMT_FRM_CNTL_S sf_cntl;

/* The accessors of the module's own locks (see sf_lock.h): each name bound to its handle here only. */
inline Hold::Hold(DosMutex) : Hold(sf_cntl.dos_mutex) {}
inline Hold::Hold(SerialMutex) : Hold(sf_cntl.mutex) {}

/* Whether smart_frame_init has succeeded. */
bool frame_inited();

/* Record that smart_frame_init has succeeded; start-up only. */
void set_frame_inited();

} // namespace sf

#endif /* SF_FRAME_CNTL_H */
