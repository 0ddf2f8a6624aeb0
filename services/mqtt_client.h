/*
 * The MQTT client as the smart frame uses it.
 *
 * Every result list below is complete for what the smart frame defines
 * (RC_*). A client also refuses with codes of its own, which its port
 * documents; the POSIX client (port/posix/mqtt/mqtt_config.h) has exactly:
 *   MQC_RC_NOT_CONNECTED (-1101)  refused: no broker connection, or the
 *                                 client is not started or is stopping
 *   MQC_RC_PUBLISH_FAIL  (-1102)  refused: the MQTT library refused it
 * and completes a publication with RC_OK (acknowledged) or exactly:
 *   MQC_RC_TIMEOUT       (-1103)  no acknowledgement within the time limit
 *   MQC_RC_CONN_LOST     (-1104)  the connection dropped first
 *   MQC_RC_STOPPED       (-1105)  the client was stopped first
 * (The fakes of tests/fakes return and complete with any code a test sets.)
 */
#ifndef MQTT_CLIENT_H
#define MQTT_CLIENT_H

#include "../cloud_defs/kelo_cloud_types.h"
#include "uni_rfc.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Completion of an asynchronous publication: RC_OK acknowledged, otherwise the client's failure (above). */
typedef void (*MQ_PUB_ASYNC_IFM_CB)(OPERATE_RET op_ret, const void *prv_data);

/*
 * Publish a DP report block (data is a MSG_DATA_S) at QoS 1.
 * Returns RC_OK when queued: cb(op_ret, prv_data) MUST then run exactly
 * once, later, on the client's thread (never inside this call's caller's
 * locks). On a non-zero result cb is never called. The client takes its own
 * reference on the block for as long as it keeps it; the caller's
 * references stay the caller's. Any thread.
 *   RC_OK                 queued; cb runs as above
 *   RC_BAD_PARAM          rfc_data is NULL or holds no MSG_DATA_S
 *   RC_REPORT_SUPERSEDED  the client knows the block was already delivered
 *                         by other means; nothing is queued (the DP sync
 *                         counts it as done; the POSIX client never answers it)
 *   the client's own refusals (POSIX: MQC_RC_NOT_CONNECTED, MQC_RC_PUBLISH_FAIL)
 */
OPERATE_RET mqc_dp_report_async(RFC_DATA_S *rfc_data, UINT_T to_lmt_s, MQ_PUB_ASYNC_IFM_CB cb,
                                void *prv_data);

/*
 * Publish a block as the answer to a DP query; takes its own reference if
 * it keeps the data (the POSIX client copies it and keeps none). No
 * completion. Any thread.
 *   RC_OK         accepted
 *   RC_BAD_PARAM  rfc_data is NULL or holds no MSG_DATA_S
 *   the client's own refusals (POSIX: MQC_RC_NOT_CONNECTED, MQC_RC_PUBLISH_FAIL)
 */
OPERATE_RET mqc_obj_dp_query(RFC_DATA_S *rfc_data);

/*
 * Publish data under protocol number pro, copying it (the caller frees it
 * right after the call). A given cb runs exactly once on the client's
 * thread when the call returned RC_OK (acknowledged, failure or time-out:
 * the completion codes above), never otherwise. Any thread.
 *   RC_OK         accepted
 *   RC_BAD_PARAM  data is NULL, or qos is above 2
 *   the client's own refusals (POSIX: MQC_RC_NOT_CONNECTED, MQC_RC_PUBLISH_FAIL)
 */
OPERATE_RET mqc_prot_data_rept_seq(UINT_T pro, const CHAR_T *data, BYTE_T qos, UINT_T to_lmt_s,
                                   MQ_PUB_ASYNC_IFM_CB cb, void *prv_data);

/* 1 when the connection to the broker is up, else 0 (no result code). Any thread. */
BOOL_T get_mqc_conn_stat(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* MQTT_CLIENT_H */
