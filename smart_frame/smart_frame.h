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
 *
 * Every function lists every result code it can return (RC_* of
 * cloud_defs/kelo_cloud_types.h). Codes a collaborator passes through are
 * listed by name from its contract in services/; besides RC_*, the MQTT
 * client refuses and completes publications with codes of its own, which
 * services/mqtt_client.h lists for the POSIX client:
 *   MQTT refusals     MQC_RC_NOT_CONNECTED (-1101), MQC_RC_PUBLISH_FAIL (-1102)
 *   MQTT completions  MQC_RC_TIMEOUT (-1103), MQC_RC_CONN_LOST (-1104),
 *                     MQC_RC_STOPPED (-1105)
 * Where a collaborator's code can only come from arguments the module never
 * passes, the list says "never with a conforming backend".
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

/* Application probe: ask a sub-device for a heartbeat. Dispatch thread, with the presence lock held. */
typedef void (*DEV_HEARTBEAT_SEND_CB)(const CHAR_T *dev_id);

/* ---------------- start-up and serial numbers ---------------- */

/*
 * Start the module: timer service, message module, locks, handlers and
 * timed messages, all or nothing. Each failure is logged, and start-up can
 * then be tried again. Not thread-safe: call once, before any traffic.
 *   RC_OK         started; also a second call after success, which only logs
 *   RC_FAIL       the timer service or the message module cannot start, or
 *                 no message id is left
 *   RC_NO_MEMORY  a lock or a timed message could not be created
 *   RC_BAD_PARAM  the message module refused the module's own arguments
 *                 (never with a conforming backend)
 */
OPERATE_RET smart_frame_init(void);

/* The current serial number, then advance it by one. No result code. Any thread, after smart_frame_init. */
UINT_T sf_get_serial_no(void);

/* Advance the serial number by one. Any thread, after smart_frame_init. */
void sf_inc_serial_no(void);

/* ---------------- commands in ---------------- */

/*
 * Queue a device DP command ("devId"/"cid", "ctype", "mbid", "dps") for
 * the dispatch thread. Any thread; while the message queue is full a
 * backend may hold the caller (backpressure, see cmmod_post_msg_malloc).
 *   RC_OK         queued: the tree now belongs to the smart frame
 *   RC_BAD_PARAM  gd_cmd is NULL (logged), or no handler is bound (called
 *                 before smart_frame_init)
 *   RC_NO_MEMORY  the message module could not copy the record
 *   RC_FAIL       the dispatch thread is not running, or stopped meanwhile
 * On every code but RC_OK the tree stays the caller's.
 */
OPERATE_RET sf_send_gw_dev_cmd(SF_GW_DEV_CMD_S *gd_cmd);

/* Queue a group command ("action", "cids", "gid"); results, thread and ownership as sf_send_gw_dev_cmd. */
OPERATE_RET sf_send_grp_oper_cmd(SF_GW_DEV_CMD_S *grp_cmd);

/* Queue a scene command ("action", "cids", "sid", "gid"); results, thread and ownership as sf_send_gw_dev_cmd. */
OPERATE_RET sf_send_scene_oper_cmd(SF_GW_SCE_CMD_S *sce_cmd);

/*
 * Whether the first DP of {"cid":..,"dps":{..}} equals the value the cloud
 * already has: 1 equal, 0 otherwise (including every error); no result
 * code. Only reads dp_cmd. Any thread; reads the DP table without a lock,
 * so a value a concurrent report changes may or may not be seen.
 */
BOOL_T sf_dp_data_is_equl(cJSON *dp_cmd);

/*
 * Hand a DP query to the application's dev_dp_query_cb once per device id
 * of pCidArr (NULL or a JSON null: the gateway itself) with the DP numbers
 * of pDpIdArr. Any thread; calls the callback on the caller's thread, with
 * no lock held.
 *   RC_OK         asked (ids that are not texts are logged and skipped)
 *   RC_BAD_PARAM  pDpIdArr is NULL or not an array, or pCidArr is not an
 *                 array (each logged)
 *   RC_FAIL       the query record could not be allocated, or there is no
 *                 gateway node for a gateway query (each logged)
 */
OPERATE_RET sf_respone_obj_dp_query(const cJSON *pCidArr, const cJSON *pDpIdArr);

/* ---------------- reports out ---------------- */

/*
 * Report DP values of device id (NULL: the gateway) asynchronously, e.g.
 * {"1":true,"2":25}. Values are checked against the schema; unchanged ones
 * are dropped unless force_send. Values that could not be sent stay stored
 * and are re-sent by the DP sync. Any thread; takes the registry's
 * dev_mutex for its own steps, never across the LAN or MQTT calls, so it
 * MUST NOT be called with dev_mutex held. Every failure is logged.
 *   RC_OK                 handed to MQTT (the completion settles the
 *                         publish state), or nothing was left to send
 *   RC_BAD_PARAM          data is NULL (the MQTT client's RC_BAD_PARAM
 *                         never comes: the module's blocks are well-formed)
 *   RC_DEV_NOT_FOUND      no device id (or no gateway node)
 *   RC_DEV_NOT_BOUND      the device is not bound
 *   RC_JSON_FAIL          data is not a JSON object, or the checked text
 *                         could not be allocated
 *   RC_NET_DOWN           the gateway has no network
 *   RC_NO_MEMORY          the envelope or the message block could not be made
 *   RC_REPORT_SUPERSEDED  the MQTT client had it delivered by other means
 *   MQTT refusals         (see above)
 */
OPERATE_RET sf_obj_dp_report_async(const CHAR_T *id, const CHAR_T *data, BOOL_T force_send);

/*
 * Report every given value (changed or not) and wait for the cloud's answer,
 * at most timeout seconds as the MQTT client counts them. time_str, when not
 * NULL, is placed as "t". Blocks the caller: MUST NOT be called from the
 * MQTT client's thread, nor with dev_mutex held; any other thread.
 *   RC_OK                 the cloud acknowledged, or nothing was left to send
 *   RC_BAD_PARAM, RC_DEV_NOT_FOUND, RC_DEV_NOT_BOUND, RC_JSON_FAIL,
 *   RC_NET_DOWN, RC_REPORT_SUPERSEDED, MQTT refusals
 *                         as sf_obj_dp_report_async
 *   RC_NO_MEMORY          as sf_obj_dp_report_async, or the rendezvous or
 *                         its semaphore could not be made
 *   RC_FAIL               the platform refused the semaphore
 *   RC_WAIT_SEM_FAIL      the wait failed other than by an interruption
 *   MQTT completions      the publication failed or timed out (see above)
 */
OPERATE_RET sf_stat_dp_report_sync(const CHAR_T *dev_id, const CHAR_T *dp_str, const CHAR_T *time_str,
                                   UINT_T timeout, BOOL_T enable_auto_retrans);

/*
 * Report len bytes of raw DP dpid, base64-encoded, and wait for the answer.
 * Thread rules and results as sf_stat_dp_report_sync, and:
 *   RC_BAD_PARAM  also: data is NULL with a non-zero len, or len is too
 *                 large for its text to be sized in 32 bits
 *   RC_NO_MEMORY  also: the text could not be allocated
 */
OPERATE_RET sf_raw_dp_report_sync(const CHAR_T *id, BYTE_T dpid, const BYTE_T *data, UINT_T len,
                                  UINT_T timeout, BOOL_T enable_auto_retrans);

/* The same with a time value for "t" (NULL: none); results and thread as sf_raw_dp_report_sync. */
OPERATE_RET sf_raw_dp_report_sync_with_time(const CHAR_T *id, BYTE_T dpid, const BYTE_T *data, UINT_T len,
                                            UINT_T timeout, BOOL_T enable_auto_retrans,
                                            const CHAR_T *time_str);

/*
 * Publish a text composed by the caller as it stands (no checks, no
 * envelope, no publish state); len bytes of data are copied, also offered
 * to the LAN clients. Pass prv_data NULL. Any thread; the completion runs
 * on the MQTT client's thread and only logs.
 *   RC_OK                 handed to MQTT
 *   RC_BAD_PARAM          data is NULL or len is negative (the MQTT
 *                         client's RC_BAD_PARAM never comes)
 *   RC_NO_MEMORY          the message block could not be made
 *   RC_REPORT_SUPERSEDED  the MQTT client had it delivered by other means
 *   MQTT refusals         (see above)
 */
OPERATE_RET sf_multi_dp_report_async(const CHAR_T *data, INT_T len, UINT_T to_lmt, void *prv_data);

/*
 * Compose report texts from typed records: *data gets the DP object, and
 * *time (when time is not NULL and some record has a time stamp) the time
 * object; both from Malloc, released by the caller with Free after RC_OK.
 * Any thread; reads the schema without a lock.
 *   RC_OK                the texts are made
 *   RC_BAD_PARAM         dp_data or data is NULL, cnt is 0, or a text
 *                        record's value is NULL
 *   RC_DP_NOT_FOUND      the device (dev_id) has no such DP, or is unknown
 *   RC_DP_TYPE_MISMATCH  a record's type is not its DP's type
 *   RC_FAIL              a record's type is no known property type
 *   RC_DP_VALUE_INVALID  an enum value is outside its DP's names
 *   RC_NO_MEMORY         a text could not be allocated
 */
OPERATE_RET sf_dp_data_composition(const CHAR_T *dev_id, const KL_OBJ_DP_S *dp_data, const UINT_T cnt,
                                   CHAR_T **data, CHAR_T **time);

/*
 * The DP object of every unconfirmed value of dev_cntl, bounded by the
 * allowance max_len, wrapped as a report envelope when addDevId is 1.
 * From Malloc (release with Free), or NULL (no result code) when nothing
 * is pending or the text could not be made.
 * *p_all_data_packed: 1 when every pending value fitted; untouched when NULL returned.
 * Any thread; takes dev_mutex for the whole packing, so it MUST NOT be
 * called with dev_mutex held.
 */
CHAR_T *sf_pack_local_obj_dp_data(DEV_CNTL_N_S *dev_cntl, const UINT_T max_len, const BOOL_T addDevId,
                                  BOOL_T *p_all_data_packed, BOOL_T reset_flow_ctl);

/* Arm the DP sync (2 s) when MQTT is connected; otherwise nothing. No result code. Any thread. */
void sf_start_sync_obj_dp(void);

/* ---------------- presence and heartbeats ---------------- */

/*
 * Mark sub-device dev_id online (1) or offline; reported in the next batch.
 * Silent on every path. Any thread; looks the device up in the registry
 * and takes the presence lock (dos_mutex), so it MUST NOT be called with
 * dev_mutex held.
 *   RC_OK    marked
 *   RC_FAIL  called before smart_frame_init, dev_id is NULL, the gateway's
 *            own id, or no known device
 */
OPERATE_RET sf_dev_online_stat_update(const CHAR_T *dev_id, const BOOL_T online);

/*
 * Start heartbeat supervision (every 8 s); a second call restarts it and
 * replaces the callback. hb_send_cb (may be NULL) is called on the
 * dispatch thread with the presence lock held: it MUST only hand the probe
 * off and MUST NOT call back into the presence or heartbeat functions.
 * Any thread.
 *   RC_OK         started
 *   RC_FAIL       called before smart_frame_init (logged)
 *   RC_BAD_PARAM  the message module refused to start the module's timed
 *                 message (logged; never with a conforming backend)
 */
OPERATE_RET sf_sys_mag_hb_init(const DEV_HEARTBEAT_SEND_CB hb_send_cb);

/*
 * Set a sub-device's heartbeat time-out (at least 60 s) and probe limit (0
 * stands for 2). Any thread; looks the device up and takes the presence
 * lock, so it MUST NOT be called with dev_mutex held.
 *   RC_OK         set
 *   RC_BAD_PARAM  dev_id is NULL or the time-out is below 60 s (logged)
 *   RC_FAIL       supervision not started by sf_sys_mag_hb_init (logged), or
 *                 dev_id is the gateway's own id or no known device (silent)
 */
OPERATE_RET sf_set_dev_hb_timeout(const CHAR_T *dev_id, const TIME_S hb_timeout_time,
                                  const UINT_T max_resend_times);

/*
 * A heartbeat (or any sign of life) of a sub-device: online, and its probes
 * start over. Any thread; looks the device up and takes the presence
 * lock, so it MUST NOT be called with dev_mutex held.
 *   RC_OK             recorded
 *   RC_FAIL           supervision not started by sf_sys_mag_hb_init (logged),
 *                     or dev_id is the gateway's own id (silent)
 *   RC_BAD_PARAM      dev_id is NULL (logged)
 *   RC_DEV_NOT_FOUND  no known device (silent)
 *   RC_DEV_NOT_BOUND  the device is not bound (logged)
 */
OPERATE_RET sf_refresh_dev_hb(const CHAR_T *dev_id);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* SMART_FRAME_H */
