/*
 * Basic types, result codes and the one-byte enumerations shared by the
 * smart frame, its collaborators and the application.
 *
 * Every enumeration that lives inside a record is stored in one byte, so
 * the types below are byte typedefs with named constants rather than C
 * enums (whose size the compiler chooses).
 */
#ifndef KELO_CLOUD_TYPES_H
#define KELO_CLOUD_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- basic types ---- */
typedef int32_t  OPERATE_RET; /* 0 success, negative failure */
typedef int32_t  BOOL_T;      /* 1 true, 0 false */
typedef uint8_t  BYTE_T;
typedef char     CHAR_T;
typedef int32_t  INT_T;
typedef uint32_t UINT_T;
typedef int16_t  SHORT_T;
typedef uint16_t USHORT_T;
typedef uint16_t WORD_T;
typedef uint32_t TIME_S;      /* seconds */
typedef uint32_t TIME_T;      /* POSIX seconds */
typedef uint32_t TIME_MS;     /* milliseconds */
typedef uint16_t MSG_ID;
typedef uint16_t TIMER_ID;
typedef void    *MUTEX_HANDLE;
typedef void    *SEM_HANDLE;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

/* ---- result codes ---- */
#define RC_OK                 0
#define RC_FAIL               (-1)
#define RC_BAD_PARAM          (-2)
#define RC_NO_MEMORY          (-3)
#define RC_WAIT_SEM_FAIL      (-202)  /* semaphore wait failed; with errno EINTR it was interrupted */
#define RC_JSON_FAIL          (-801)  /* report text not parsed, or JSON object not created */
#define RC_JSON_PARSE         (-802)  /* publish-state text not parsed */
#define RC_DEV_NOT_FOUND      (-901)
#define RC_DP_VALUE_INVALID   (-903)  /* enumeration value outside the schema */
#define RC_NET_DOWN           (-906)  /* gateway has no network */
#define RC_DEV_NOT_BOUND      (-910)
#define RC_REPORT_SUPERSEDED  (-916)  /* report path: already delivered by other means; the DP sync counts it as done */
#define RC_LAN_NOT_SENT       (-940)  /* LAN channel did not take a block; expected, never logged */
#define RC_DP_NOT_FOUND       (-944)
#define RC_DP_TYPE_MISMATCH   (-945)
#define RC_MEMBERSHIP_FULL    (-1007) /* registry: group/scene table of the device is full */

/* ---- DP_TYPE_E: dp_desc.type ---- */
typedef BYTE_T DP_TYPE_E;
#define DP_TYPE_OBJ  0 /* typed object DP */
#define DP_TYPE_RAW  1 /* byte string, base64 text in JSON */
#define DP_TYPE_FILE 2 /* file DP; never reported */

/* ---- DP_MODE_E: dp_desc.mode ---- */
typedef BYTE_T DP_MODE_E;
#define DP_MODE_RW 0
#define DP_MODE_WR 1 /* write-only: commanded, never reported */
#define DP_MODE_RO 2

/* ---- DP_PSV_E: dp_desc.passive ---- */
typedef BYTE_T DP_PSV_E;
#define PSV_NONE     0
#define PSV_HOLD     1 /* reports held back on a device in preprocess mode */
#define PSV_RELEASED 2 /* a command released it; back to HOLD once a report is confirmed */

/* ---- DP_PROP_TP_E: dp_desc.prop_tp, KL_OBJ_DP_S.type ---- */
typedef BYTE_T DP_PROP_TP_E;
#define PROP_BOOL   0
#define PROP_VALUE  1
#define PROP_STR    2
#define PROP_ENUM   3
#define PROP_BITMAP 4 /* 5 and above are invalid */

/* ---- DP_TRIG_T_E: dp_desc.trig_t ---- */
typedef BYTE_T DP_TRIG_T_E;
#define TRIG_ON_CHANGE 0
#define TRIG_ALWAYS    1

/* ---- DP_STAT_TP_T: dp_desc.stat (0 for an ordinary DP) ---- */
typedef BYTE_T DP_STAT_TP_T;

/* ---- DP_PV_STAT_E: publish state of a DP value ---- */
typedef BYTE_T DP_PV_STAT_E;
#define PV_STAT_INVALID 0 /* no known value */
#define PV_STAT_LOCAL   1 /* stored; publication failed or unconfirmed, to be re-sent */
#define PV_STAT_SENDING 2 /* stored and on its way */
#define PV_STAT_CLOUD   3 /* publication confirmed */

/* ---- DP_CMD_TYPE_E: channel a command arrived on ---- */
typedef BYTE_T DP_CMD_TYPE_E;
#define DP_CMD_LAN 0
#define DP_CMD_MQ  1

/* ---- DP_TRANS_TYPE_T: "ctype" of a command ---- */
typedef BYTE_T DP_TRANS_TYPE_T;
#define DTT_CTYPE_0 0
#define DTT_CTYPE_1 1 /* handled exactly like 0 */
#define DTT_MULTI   2 /* carries "mbid"; forwarded as a multi-DP report, no local echo */
#define DTT_CTYPE_3 3 /* application callback before the local echo */

/* ---- DEV_OL_STAT_T: attr.stat ---- */
typedef BYTE_T DEV_OL_STAT_T;
#define DOS_OFFLINE 0
#define DOS_ONLINE  1

/* ---- DEV_OL_STAT_MAG_T: attr.dosm ---- */
typedef BYTE_T DEV_OL_STAT_MAG_T;
#define DOSM_PENDING  0 /* changed, not yet in a batch */
#define DOSM_SENDING  1 /* in a batch, acknowledgement awaited */
#define DOSM_REPORTED 2 /* acknowledged */

/* ---- GRP_ACTION_E / SCE_ACTION_E ---- */
typedef BYTE_T GRP_ACTION_E;
#define GRP_ADD 0
#define GRP_DEL 1

typedef BYTE_T SCE_ACTION_E;
#define SCE_ADD  0
#define SCE_DEL  1
#define SCE_EXEC 2

/* ---- gateway network state (get_gw_nw_status) ---- */
typedef BYTE_T GW_BASE_NW_STAT_T;
#define GW_NW_NONE  0 /* no network */
#define GW_NW_LAN   1 /* network, cloud not reachable */
#define GW_NW_CLOUD 2 /* cloud connected */

/* ---- device and gateway detail types ---- */
typedef UINT_T USER_DEV_DTL_DEF_T;
typedef BYTE_T DEV_TYPE_T;
typedef BYTE_T GW_PERMIT_DEV_TP_T;

typedef BYTE_T GW_STATUS_E;
#define GW_STAT_RESET    0
#define GW_STAT_ACTIVED  1
#define GW_STAT_NORMAL   2

typedef BYTE_T GW_RESET_TYPE_E;
#define GW_RESET_LOCAL  0
#define GW_RESET_REMOTE 1

typedef BYTE_T DEV_RESET_TYPE_E;
#define DEV_RESET_LOCAL  0
#define DEV_RESET_REMOTE 1

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* KELO_CLOUD_TYPES_H */
