/*
 * The records shared by the gateway registry, the smart frame and the
 * application: DP schema and value, device node, command records handed
 * to the application, and the application's callback tables.
 *
 * Field order and widths are part of the ABI: the registry, the smart frame
 * and the application may be built separately.
 */
#ifndef KELO_CLOUD_COM_DEFS_H
#define KELO_CLOUD_COM_DEFS_H

#include "kelo_cloud_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Longest device id is 25 characters; arrays add the terminator. */
#define DEV_ID_LEN        25
#define SW_VER_LEN        10
#define SCHEMA_ID_LEN     16
#define PRODUCT_KEY_LEN   16
#define FW_KEY_LEN        16
#define GW_ATTACH_ATTR_MAX 4
#define GRP_ID_LEN        5
#define SCENE_ID_LEN      3
#define GRP_SCENE_MAX     56 /* groups and scenes a sub-device can belong to */
#define DEV_DP_MAX        255

/* ---- DP schema: exactly seven bytes ---- */
typedef struct {
    BYTE_T       dp_id;   /* 1..255, unique within a device */
    DP_MODE_E    mode;
    DP_PSV_E     passive; /* the only schema field the smart frame writes */
    DP_TYPE_E    type;
    DP_PROP_TP_E prop_tp;
    DP_TRIG_T_E  trig_t;
    DP_STAT_TP_T stat;
} DP_DESC_IF_S;

/* ---- DP value and limits, chosen by prop_tp ---- */
typedef struct {
    BOOL_T value; /* 0 or 1 */
} DP_BOOL_S;

typedef struct {
    INT_T    min;
    INT_T    max;
    SHORT_T  step;
    USHORT_T scale;
    INT_T    value;
} DP_PROP_VAL_S;

typedef struct {
    INT_T   max_len; /* the value buffer holds max_len characters and a terminator */
    CHAR_T *value;   /* owned by the registry; may be NULL before a first value */
} DP_PROP_STR_S;

typedef struct {
    INT_T    cnt;     /* number of names */
    CHAR_T **pp_enum; /* cnt names, owned by the registry */
    INT_T    value;   /* index of the current name */
} DP_PROP_ENUM_S;

typedef struct {
    UINT_T max_len;
    UINT_T value;
} DP_PROP_BITMAP;

typedef union {
    DP_BOOL_S      prop_bool;
    DP_PROP_VAL_S  prop_value;
    DP_PROP_STR_S  prop_str;
    DP_PROP_ENUM_S prop_enum;
    DP_PROP_BITMAP prop_bitmap;
} DP_PROP_VALUE_U;

/* ---- per-DP report flow control (fixed window opened by a confirmed report) ---- */
typedef struct {
    USHORT_T cir_time;           /* window length in seconds; 0 disables flow control */
    USHORT_T cir_rept_item_lmt;  /* confirmed reports admitted per window */
    USHORT_T cir_rept_items;     /* confirmed reports in the current window */
    TIME_S   fir_rept_timestamp; /* POSIX second the current window opened */
} DP_REPT_CNTL_S;

/* ---- one DP of a device ---- */
typedef struct {
    DP_DESC_IF_S    dp_desc;
    DP_PROP_VALUE_U prop;
    DP_PV_STAT_E    pv_stat;
    DP_REPT_CNTL_S  rept_cntl;
} DP_CNTL_S;

/* ---- device identity ---- */
typedef struct {
    GW_PERMIT_DEV_TP_T tp;
    CHAR_T             ver[SW_VER_LEN + 1];
} GW_ATTACH_ATTR_T;

typedef struct {
    CHAR_T             id[DEV_ID_LEN + 1]; /* also "cid" and "devId" in JSON */
    CHAR_T             vir_id[DEV_ID_LEN + 1];
    CHAR_T             sw_ver[SW_VER_LEN + 1];
    CHAR_T             schema_id[SCHEMA_ID_LEN + 1];
    CHAR_T             product_key[PRODUCT_KEY_LEN + 1];
    CHAR_T             firmware_key[FW_KEY_LEN + 1];
    USER_DEV_DTL_DEF_T uddd;
    DEV_TYPE_T         tp;
    BOOL_T             bind; /* bound to the cloud */
    BOOL_T             sync;
    BYTE_T             attr_num;
    GW_ATTACH_ATTR_T   attr[GW_ATTACH_ATTR_MAX];
    BOOL_T             reset_flag;
} DEV_DESC_IF_S;

/* ---- group and scene memberships of a sub-device ---- */
typedef struct {
    CHAR_T gid[GRP_ID_LEN + 1];
} GRP_REC_S;

typedef struct {
    GRP_REC_S g_rec[GRP_SCENE_MAX];
    BYTE_T    cnt;
} GRP_MAG_S;

typedef struct {
    CHAR_T s_id[SCENE_ID_LEN + 1];
    CHAR_T g_id[GRP_ID_LEN + 1];
} SCENE_REC_S;

typedef struct {
    SCENE_REC_S s_rec[GRP_SCENE_MAX];
    BYTE_T      cnt;
} SCENE_MAG_S;

/* ---- run-time attributes of a device ---- */
typedef struct {
    BOOL_T            attach_dp_if;
    BOOL_T            preprocess; /* 1: passive DPs are held back until a command releases them */
    DEV_OL_STAT_T     stat;       /* online state; under the smart frame's dos_mutex */
    DEV_OL_STAT_MAG_T dosm;       /* reporting state of stat; under dos_mutex */
    TIME_S            last_ol_time;     /* last heartbeat, system seconds; 0 never */
    TIME_S            hb_timeout_time;  /* heartbeat time-out in seconds; 0 not configured */
    TIME_S            hb_send_time;     /* next probe due from this second; 0 none */
    UINT_T            retry_send_times; /* probes since the last heartbeat */
    UINT_T            max_resend_times; /* probe limit; 0 counts as 2 */
    GRP_MAG_S        *grp;
    SCENE_MAG_S      *scene;
} DEV_ACTV_ATTR_S;

/* ---- one device node; its DP table follows it inline ---- */
typedef struct dev_cntl_n_s {
    struct dev_cntl_n_s *next;
    DEV_DESC_IF_S        dev_if;
    DEV_ACTV_ATTR_S      attr;
    BYTE_T               retry_bind_times;
    BYTE_T               retry_sync_times;
    BYTE_T               dev_delete; /* non-zero: being removed, skip it */
    BYTE_T               dp_num;
    DP_CNTL_S            dp[];       /* dp_num entries, in schema order */
} DEV_CNTL_N_S;

/* ---- records handed to the application ----
 * Built by the smart frame, valid only during the callback, freed by the
 * smart frame when the callback returns: copy what you keep. */
typedef union {
    INT_T   dp_value;  /* PROP_VALUE */
    UINT_T  dp_enum;   /* PROP_ENUM: index into the schema's names */
    CHAR_T *dp_str;    /* PROP_STR */
    BOOL_T  dp_bool;   /* PROP_BOOL */
    UINT_T  dp_bitmap; /* PROP_BITMAP */
} KL_OBJ_DP_VALUE_U;

typedef struct {
    BYTE_T            dpid;
    DP_PROP_TP_E      type;
    KL_OBJ_DP_VALUE_U value;
    UINT_T            time_stamp; /* POSIX seconds; 0 none */
} KL_OBJ_DP_S;

typedef struct {
    DP_CMD_TYPE_E   cmd_tp;
    DP_TRANS_TYPE_T dtt_tp;
    CHAR_T         *cid;   /* target sub-device; NULL for the gateway itself */
    CHAR_T         *mb_id; /* message id of a multi-DP command, else NULL */
    UINT_T          dps_cnt;
    KL_OBJ_DP_S     dps[]; /* dps_cnt entries; header and entries are one allocation */
} KL_RECV_OBJ_DP_S;

typedef struct {
    DP_CMD_TYPE_E   cmd_tp;
    DP_TRANS_TYPE_T dtt_tp;
    CHAR_T         *cid;
    BYTE_T          dpid;
    CHAR_T         *mb_id;
    UINT_T          len;    /* bytes in data */
    BYTE_T          data[]; /* one allocation with the header */
} KL_RECV_RAW_DP_S;

typedef struct {
    CHAR_T *cid;    /* device queried; for the gateway, its own device id */
    UINT_T  cnt;    /* 0 means all DPs */
    BYTE_T  dpid[]; /* cnt ids; one allocation with the header */
} KL_DP_QUERY_S;

/* ---- firmware upgrade description (carried, not used by the smart frame) ---- */
typedef struct {
    BYTE_T tp;
    CHAR_T fw_url[256];
    CHAR_T fw_md5[33];
    CHAR_T sw_ver[SW_VER_LEN + 1];
    UINT_T file_size;
} FW_UG_S;

/* ---- device callbacks; each may be NULL ---- */
typedef void (*GW_STATUS_CHANGED_CB)(GW_STATUS_E status);
typedef void (*GW_UG_INFORM_CB)(const FW_UG_S *fw);
typedef void (*GW_RESET_IFM_CB)(GW_RESET_TYPE_E type);
typedef void (*DEV_OBJ_DP_CMD_CB)(const KL_RECV_OBJ_DP_S *dp);
typedef void (*DEV_RAW_DP_CMD_CB)(const KL_RECV_RAW_DP_S *dp);
typedef void (*DEV_DP_QUERY_CB)(const KL_DP_QUERY_S *dp_qry);
typedef void (*DEV_UG_INFORM_CB)(const CHAR_T *dev_id, const FW_UG_S *fw);
typedef void (*DEV_RESET_IFM_CB)(const CHAR_T *dev_id, DEV_RESET_TYPE_E type);

typedef struct {
    GW_STATUS_CHANGED_CB gw_status_cb;
    GW_UG_INFORM_CB      gw_ug_cb;
    GW_RESET_IFM_CB      gw_reset_cb;
    DEV_OBJ_DP_CMD_CB    dev_obj_dp_cb;
    DEV_RAW_DP_CMD_CB    dev_raw_dp_cb;
    DEV_DP_QUERY_CB      dev_dp_query_cb;
    DEV_UG_INFORM_CB     dev_ug_cb;
    DEV_RESET_IFM_CB     dev_reset_cb;
} KL_IOT_CBS_S;

/* ---- gateway callbacks; each may be NULL ---- */
typedef BOOL_T (*GW_PERMIT_ADD_CB)(GW_PERMIT_DEV_TP_T tp, BOOL_T permit, UINT_T timeout_s);
typedef void (*GW_DEV_DEL_CB)(const CHAR_T *dev_id);
typedef OPERATE_RET (*GW_DEV_GRP_INFM_CB)(const GRP_ACTION_E action, const CHAR_T *dev_id,
                                          const CHAR_T *grp_id);
typedef OPERATE_RET (*GW_DEV_SCENE_INFM_CB)(const SCE_ACTION_E action, const CHAR_T *dev_id,
                                            const CHAR_T *grp_id, const CHAR_T *sce_id);
typedef void (*GW_IFM_CB)(const CHAR_T *dev_id, OPERATE_RET op_ret);
typedef void (*GW_IPC_IFM_CB)(const CHAR_T *data, UINT_T len);
typedef void (*GW_CLOUD_STREAM_PRC_CB)(const CHAR_T *dev_id, const BYTE_T *data, UINT_T len);
typedef void (*GW_P2P_MSG_PRC_CB)(const CHAR_T *data, UINT_T len);
typedef void (*GW_SUB_DEV_MSG_PRC_CB)(const CHAR_T *dev_id, const CHAR_T *data, UINT_T len);

typedef struct {
    GW_PERMIT_ADD_CB       gw_add_dev_cb;
    GW_DEV_DEL_CB          gw_del_cb;
    GW_DEV_GRP_INFM_CB     gw_dev_grp_cb;
    GW_DEV_SCENE_INFM_CB   gw_dev_scene_cb;
    GW_IFM_CB              gw_ifm_cb;
    GW_IPC_IFM_CB          gw_ipc_ifm_cb;
    GW_CLOUD_STREAM_PRC_CB gw_cloud_stream_gw_prc_cb;
    GW_P2P_MSG_PRC_CB      gw_p2p_msg_prc_cb;
    GW_SUB_DEV_MSG_PRC_CB  gw_sub_dev_msg_prc_cb;
} KL_IOT_GW_CBS_S;

#ifdef __cplusplus
} /* extern "C" */
#define KELO_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define KELO_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* Sizes the wire and the registry rely on. */
KELO_STATIC_ASSERT(sizeof(DP_DESC_IF_S) == 7, "DP_DESC_IF_S is seven bytes");
KELO_STATIC_ASSERT(sizeof(DP_PV_STAT_E) == 1, "byte enumeration");
KELO_STATIC_ASSERT(sizeof(DEV_OL_STAT_T) == 1 && sizeof(DEV_OL_STAT_MAG_T) == 1, "byte enumeration");
KELO_STATIC_ASSERT(sizeof(GRP_ACTION_E) == 1 && sizeof(SCE_ACTION_E) == 1, "byte enumeration");

#endif /* KELO_CLOUD_COM_DEFS_H */
