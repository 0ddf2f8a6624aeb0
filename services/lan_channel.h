/*
 * The local-network channel as the smart frame uses it.
 *
 * Every result list below is complete: a backend MUST return no other code.
 * (The fakes of tests/fakes also return any code a test sets.)
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
 * Any thread; never blocks on a slow client.
 *   RC_OK            the channel took one of the caller's references and
 *                    releases it itself once written
 *   RC_LAN_NOT_SENT  no client took it (none signed in, or each one was too
 *                    slow and is dropped); nothing taken. Expected: not an error
 *   RC_BAD_PARAM     rfc_data is NULL or holds no MSG_DATA_S; nothing taken
 */
OPERATE_RET lan_dp_sata_report(RFC_DATA_S *rfc_data, UINT_T frame_kind);

/*
 * Send one frame of type fr_type with result flag ret_flag (0 success) and
 * len bytes of data, copied. Any thread; never blocks on a slow client.
 *   RC_OK            queued to every signed-in client that had room
 *   RC_LAN_NOT_SENT  no client took it
 *   RC_BAD_PARAM     data is NULL with a non-zero len
 */
OPERATE_RET lan_data_report_cb(UINT_T fr_type, UINT_T ret_flag, const CHAR_T *data, UINT_T len);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* LAN_CHANNEL_H */
