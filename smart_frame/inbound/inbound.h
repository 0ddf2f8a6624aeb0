/*
 * Commands in: the message handlers bound at start-up and the internal
 * steps of the command road. C linkage, names as the system knows them.
 */
#ifndef SF_INBOUND_H
#define SF_INBOUND_H

#include "../../services/uni_msg_queue.h"
#include "../smart_frame.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Device command handler; dispatch thread. msg->pMsgData is a copied SF_GW_DEV_CMD_S. */
void __sf_gw_dev_cmd_cb(MESSAGE *msg);

/* Group command handler; dispatch thread. msg->pMsgData is a copied SF_GW_DEV_CMD_S. */
void __sf_gw_group_oper_cmd_cb(MESSAGE *msg);

/* Scene command handler; dispatch thread. msg->pMsgData is a copied SF_GW_SCE_CMD_S. */
void __sf_gw_scene_oper_cmd_cb(MESSAGE *msg);

/*
 * Decode the "dps" object of one command for device cid (NULL: the gateway)
 * and hand it to the application. RC_OK, RC_FAIL (unknown device),
 * RC_NO_MEMORY. mb_id and cid point into the command tree.
 */
OPERATE_RET __sf_handle_recv_dp(DP_CMD_TYPE_E cmd, DP_TRANS_TYPE_T dt_tp, const CHAR_T *mb_id,
                                const CHAR_T *cid, cJSON *dps_js);

/*
 * Answer with the held values of num DPs of dev_cntl over LAN and MQTT.
 * RC_OK, RC_BAD_PARAM, RC_JSON_FAIL, RC_NO_MEMORY or the MQTT client's code.
 */
OPERATE_RET __sf_response_query_obj_dp(DEV_CNTL_N_S *dev_cntl, const BYTE_T *dpid, const BYTE_T num);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* SF_INBOUND_H */
