/*
 * The MQTT client as the smart frame uses it.
 */
#ifndef MQTT_CLIENT_H
#define MQTT_CLIENT_H

#include "../cloud_defs/kelo_cloud_types.h"
#include "uni_rfc.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Completion of an asynchronous publication: 0 acknowledged, non-zero failure or time-out. */
typedef void (*MQ_PUB_ASYNC_IFM_CB)(OPERATE_RET op_ret, const void *prv_data);

/*
 * Publish a DP report block (data is a MSG_DATA_S) at QoS 1.
 * Returns RC_OK when queued: cb(op_ret, prv_data) MUST then run exactly
 * once, later, on the client's thread (never inside this call's caller's
 * locks). On a non-zero result cb is never called. The client takes its own
 * reference on the block for as long as it keeps it; the caller's
 * references stay the caller's.
 */
OPERATE_RET mqc_dp_report_async(RFC_DATA_S *rfc_data, UINT_T to_lmt_s, MQ_PUB_ASYNC_IFM_CB cb,
                                void *prv_data);

/* Publish a block as the answer to a DP query; takes its own reference if it keeps the data. */
OPERATE_RET mqc_obj_dp_query(RFC_DATA_S *rfc_data);

/*
 * Publish data under protocol number pro, copying it (the caller frees it
 * right after the call). Returns RC_OK when accepted; a given cb then runs
 * exactly once on the client's thread (success, failure or time-out).
 */
OPERATE_RET mqc_prot_data_rept_seq(UINT_T pro, const CHAR_T *data, BYTE_T qos, UINT_T to_lmt_s,
                                   MQ_PUB_ASYNC_IFM_CB cb, void *prv_data);

/* 1 when the connection to the broker is up, else 0. Any thread. */
BOOL_T get_mqc_conn_stat(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* MQTT_CLIENT_H */
