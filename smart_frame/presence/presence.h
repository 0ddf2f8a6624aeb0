/*
 * Synchronisation and presence: the timed-message callbacks bound at
 * start-up and the internal presence steps. C linkage, names as the
 * system knows them.
 */
#ifndef SF_PRESENCE_H
#define SF_PRESENCE_H

#include "../../services/uni_msg_queue.h"
#include "../sf_lock.h"
#include "../smart_frame.h"

#ifdef __cplusplus
extern "C" {
#endif

/* DP sync run; dispatch thread. */
void __tmm_dp_sync_cb(TM_MSG_S *tm_msg);

/* Online/offline batch builder; dispatch thread. */
void __tmm_dev_ol_sync_cb(TM_MSG_S *tm_msg);

/* Completion of a presence batch publication; MQTT client's thread. */
void __mq_online_stat_async_ifm_cb(const OPERATE_RET op_ret, const void *prv_data);

/* Mark a device's online state for the next batch. Takes dos_mutex; may be called with dev_mutex held. */
void __sf_dev_ol_stat_update(DEV_CNTL_N_S *dev_cntl, const BOOL_T online) SF_EXCLUDES(sf::dos_mutex_cap);

/* Heartbeat supervision pass; dispatch thread, every 8 s. */
void __tmm_hb_fresh_ol_stat_cb(TM_MSG_S *tm_msg);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* SF_PRESENCE_H */
