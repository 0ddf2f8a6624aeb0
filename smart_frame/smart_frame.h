/*
 * The smart frame: the data-point engine between the cloud and LAN
 * channels and the device application.
 *
 * Call smart_frame_init once before anything else. Command entry points
 * only queue work for the message module's dispatch thread; report entry
 * points run on the caller's thread; the synchronous reports block until
 * the MQTT client completes them and MUST NOT be called from the MQTT
 * client's thread. Application callbacks run without any lock of the
 * smart frame held, except the heartbeat probe (see sf_sys_mag_hb_init).
 */
#ifndef SMART_FRAME_H
#define SMART_FRAME_H

#include <cjson/cJSON.h>

#include "../cloud_defs/gw_intf.h"
#include "../cloud_defs/kelo_cloud_com_defs.h"
#include "../cloud_defs/kelo_cloud_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A parsed device or group command and the channel it arrived on. */
typedef struct {
    DP_CMD_TYPE_E tp;     /* DP_CMD_LAN or DP_CMD_MQ */
    cJSON        *cmd_js; /* the whole command; ownership passes with a successful post */
} SF_GW_DEV_CMD_S;

/* A parsed scene command and the channel it arrived on. */
typedef struct {
    DP_CMD_TYPE_E tp;
    cJSON        *cmd_js;
} SF_GW_SCE_CMD_S;

/* Payload of every report block: serial number, length, text and a terminator. */
typedef struct {
    UINT_T serno; /* from sf_get_serial_no */
    UINT_T len;   /* bytes in data, without the terminator */
    BYTE_T data[];
} MSG_DATA_S;

/* Application probe: ask a sub-device for a heartbeat. Runs with the presence lock held. */
typedef void (*DEV_HEARTBEAT_SEND_CB)(const CHAR_T *dev_id);

/* ---------------- start-up and serial numbers ---------------- */

/*
 * Start the module: timer service, message module, locks, handlers and
 * timed messages. RC_OK, or the failing collaborator's code (start-up can
 * then be tried again). A second call after success only logs and returns RC_OK.
 * Not thread-safe: call once, before any traffic.
 */
OPERATE_RET smart_frame_init(void);

/* The current serial number, then advance it by one. Any thread. */
UINT_T sf_get_serial_no(void);

/* Advance the serial number by one. Any thread. */
void sf_inc_serial_no(void);

/* ---------------- commands in ---------------- */

/*
 * Queue a device DP command ("devId"/"cid", "ctype", "mbid", "dps").
 * Returns the message module's result: RC_OK and the tree now belongs to
 * the smart frame; otherwise the tree stays the caller's. Any thread.
 */
OPERATE_RET sf_send_gw_dev_cmd(SF_GW_DEV_CMD_S *gd_cmd);

/* Queue a group command ("action", "cids", "gid"); ownership as sf_send_gw_dev_cmd. */
OPERATE_RET sf_send_grp_oper_cmd(SF_GW_DEV_CMD_S *grp_cmd);

/* Queue a scene command ("action", "cids", "sid", "gid"); ownership as sf_send_gw_dev_cmd. */
OPERATE_RET sf_send_scene_oper_cmd(SF_GW_SCE_CMD_S *sce_cmd);

/*
 * Whether the first DP of {"cid":..,"dps":{..}} equals the value the cloud
 * already has: 1 equal, 0 otherwise (including every error). Only reads dp_cmd.
 */
BOOL_T sf_dp_data_is_equl(cJSON *dp_cmd);

/*
 * Hand a DP query to the application's dev_dp_query_cb once per device id
 * of pCidArr (NULL: the gateway itself) with the DP numbers of pDpIdArr.
 * RC_OK, RC_BAD_PARAM (no pDpIdArr), RC_FAIL (allocation or no gateway node).
 * Calls the callback on the caller's thread.
 */
OPERATE_RET sf_respone_obj_dp_query(const cJSON *pCidArr, const cJSON *pDpIdArr);

/* ---------------- reports out ---------------- */

/*
 * Report DP values of device id (NULL: the gateway) asynchronously, e.g.
 * {"1":true,"2":25}. Values are checked against the schema; unchanged ones
 * are dropped unless force_send. RC_OK (also when nothing was left to send),
 * RC_BAD_PARAM, RC_DEV_NOT_FOUND, RC_DEV_NOT_BOUND, RC_NET_DOWN, RC_JSON_FAIL,
 * RC_FAIL (the checked report could not be printed), RC_NO_MEMORY or the
 * MQTT client's refusal. Values that could not be sent
 * stay stored and are re-sent by the DP sync.
 */
OPERATE_RET sf_obj_dp_report_async(const CHAR_T *id, const CHAR_T *data, BOOL_T force_send);

/*
 * Report every given value (changed or not) and wait for the cloud's answer,
 * at most timeout seconds as the MQTT client counts them. time_str, when not
 * NULL, is placed as "t". Returns the publication's result.
 */
OPERATE_RET sf_stat_dp_report_sync(const CHAR_T *dev_id, const CHAR_T *dp_str, const CHAR_T *time_str,
                                   UINT_T timeout, BOOL_T enable_auto_retrans);

/* Report len bytes of raw DP dpid, base64-encoded, and wait for the answer. */
OPERATE_RET sf_raw_dp_report_sync(const CHAR_T *id, BYTE_T dpid, const BYTE_T *data, UINT_T len,
                                  UINT_T timeout, BOOL_T enable_auto_retrans);

/* The same with a time value for "t". */
OPERATE_RET sf_raw_dp_report_sync_with_time(const CHAR_T *id, BYTE_T dpid, const BYTE_T *data, UINT_T len,
                                            UINT_T timeout, BOOL_T enable_auto_retrans,
                                            const CHAR_T *time_str);

/*
 * Publish a text composed by the caller as it stands (no checks, no
 * envelope, no publish state); len bytes of data are copied. Pass
 * prv_data NULL. Returns the MQTT client's result.
 */
OPERATE_RET sf_multi_dp_report_async(const CHAR_T *data, INT_T len, UINT_T to_lmt, void *prv_data);

/*
 * Compose report texts from typed records: *data gets the DP object, and
 * *time (when time is not NULL and some record has a time stamp) the time
 * object; both from Malloc, released by the caller with Free after RC_OK.
 * RC_BAD_PARAM, RC_FAIL, RC_NO_MEMORY, RC_DP_VALUE_INVALID, RC_DP_NOT_FOUND,
 * RC_DP_TYPE_MISMATCH otherwise.
 */
OPERATE_RET sf_dp_data_composition(const CHAR_T *dev_id, const KL_OBJ_DP_S *dp_data, const UINT_T cnt,
                                   CHAR_T **data, CHAR_T **time);

/*
 * The DP object of every unconfirmed value of dev_cntl, bounded by the
 * allowance max_len, wrapped as a report envelope when addDevId is 1.
 * From Malloc (release with Free), or NULL when nothing is pending.
 * *p_all_data_packed: 1 when every pending value fitted; untouched when NULL returned.
 */
CHAR_T *sf_pack_local_obj_dp_data(DEV_CNTL_N_S *dev_cntl, const UINT_T max_len, const BOOL_T addDevId,
                                  BOOL_T *p_all_data_packed, BOOL_T reset_flow_ctl);

/* Arm the DP sync (2 s) when MQTT is connected; otherwise nothing. Any thread. */
void sf_start_sync_obj_dp(void);

/* ---------------- presence and heartbeats ---------------- */

/* Mark sub-device dev_id online (1) or offline; reported in the next batch. RC_OK or RC_FAIL. */
OPERATE_RET sf_dev_online_stat_update(const CHAR_T *dev_id, const BOOL_T online);

/*
 * Start heartbeat supervision (every 8 s). hb_send_cb (may be NULL) is
 * called with the presence lock held: it MUST only hand the probe off and
 * MUST NOT call back into the presence or heartbeat functions.
 */
OPERATE_RET sf_sys_mag_hb_init(const DEV_HEARTBEAT_SEND_CB hb_send_cb);

/* Set a sub-device's heartbeat time-out (at least 60 s) and probe limit. */
OPERATE_RET sf_set_dev_hb_timeout(const CHAR_T *dev_id, const TIME_S hb_timeout_time,
                                  const UINT_T max_resend_times);

/* A heartbeat (or any sign of life) of a sub-device. */
OPERATE_RET sf_refresh_dev_hb(const CHAR_T *dev_id);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* SMART_FRAME_H */
