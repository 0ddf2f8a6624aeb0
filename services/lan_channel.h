/*
 * The local-network channel as the smart frame uses it.
 */
#ifndef LAN_CHANNEL_H
#define LAN_CHANNEL_H

#include "../cloud_defs/kelo_cloud_types.h"
#include "uni_rfc.h"

#ifdef __cplusplus
extern "C" {
#endif

#define LAN_FRAME_DP_REPORT  4   /* kind passed with DP report blocks */
#define LAN_FRAME_GRP_ANSWER 208 /* frame type of group and scene answers */

/*
 * Offer a DP report block (data is a MSG_DATA_S) to the LAN clients.
 * RC_OK: the channel took one of the caller's references and releases it
 * itself once written. RC_LAN_NOT_SENT (-940): no client; nothing taken.
 * Any other result: nothing taken. Never blocks on a slow client.
 */
OPERATE_RET lan_dp_sata_report(RFC_DATA_S *rfc_data, UINT_T frame_kind);

/* Send one frame of type fr_type with result flag ret_flag (0 success) and len bytes of data. */
OPERATE_RET lan_data_report_cb(UINT_T fr_type, UINT_T ret_flag, const CHAR_T *data, UINT_T len);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* LAN_CHANNEL_H */
