/*
 * Reports out: the internal steps of the report road. C linkage, names as
 * the system knows them.
 */
#ifndef SF_REPORT_H
#define SF_REPORT_H

#include "../../services/mqtt_client.h"
#include "../../services/uni_rfc.h"
#include "../smart_frame.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Report filters of the verifier. */
#define SF_FILTER_OBJ  0 /* object reports: object DPs, unchanged values dropped */
#define SF_FILTER_RAW  1 /* raw reports: raw DPs, always sent */
#define SF_FILTER_STAT 2 /* status reports: object DPs, all sent */

/* Rendezvous of a synchronous report, one per call. */
typedef struct {
    OPERATE_RET op_ret;     /* outcome, written by the completion */
    SEM_HANDLE  sem_handle; /* initial 0, maximum 10 */
} DP_SYNC_REPORT_S;

/* ---- verification and flow control (dev_mutex held unless stated) ---- */
BOOL_T __check_dp_flow_ctl(DP_CNTL_S *dp_cntl, TIME_T curr_time);
void __set_dp_flow_ctl(DP_CNTL_S *dp_cntl, TIME_T curr_time);
OPERATE_RET __check_dp_type(DP_CNTL_S *dp_cntl, cJSON *p_dp_json, DEV_CNTL_N_S *dev_cntl, INT_T filter_type);
BOOL_T __append_send_json(cJSON *final_send_json, DP_CNTL_S *dp_cntl, cJSON *p_dp_json, DEV_CNTL_N_S *dev_cntl,
                          INT_T filter_type, BOOL_T force_send);
OPERATE_RET __dp_verify_flowctl_update(DEV_CNTL_N_S *dev_cntl, INT_T filter_type, const CHAR_T *data,
                                       BOOL_T force_send, CHAR_T **final_send_str);
/* Takes dev_mutex itself. */
OPERATE_RET __sf_dp_verify_flowctl_update(DEV_CNTL_N_S *dev_cntl, INT_T filter_type, const CHAR_T *data,
                                          BOOL_T force_send, CHAR_T **final_send_str);

/* ---- envelope and message block (no lock) ---- */
OPERATE_RET __sf_mk_rfc_msg_data(const BYTE_T *src, UINT_T src_len, RFC_DATA_S **rfc_da);
OPERATE_RET __sf_add_devid_time_to_dpstr(const DEV_CNTL_N_S *dev_cntl, const CHAR_T *data, const CHAR_T *time,
                                         CHAR_T **pp_out);

/* ---- the report worker and its completions ---- */
OPERATE_RET __sf_dp_report_aysnc(const CHAR_T *id, BOOL_T is_lan_send, INT_T filter_type, const CHAR_T *data,
                                 const CHAR_T *time, BOOL_T force_send, UINT_T time_out_s, MQ_PUB_ASYNC_IFM_CB cb,
                                 void *prv_data, BOOL_T *p_need_send);
void __sf_obj_dp_report_async_cb(OPERATE_RET op_ret, const void *prv_data);
OPERATE_RET __sf_dp_report_sync(const CHAR_T *id, BOOL_T is_lan_send, INT_T filter_type, const CHAR_T *data,
                                const CHAR_T *time, BOOL_T force_send, UINT_T time_out_s,
                                BOOL_T enable_auto_retrans);
void __sf_dp_report_sync_cb(OPERATE_RET op_ret, const void *prv_data);
void __sf_multi_dp_report_async(OPERATE_RET op_ret, const void *prv_data);

/* ---- publish state (take dev_mutex themselves) ---- */
void __dev_obj_dp_set_pv_stat(const CHAR_T *id, const cJSON *json, DP_PV_STAT_E pv_stat, BOOL_T set_flow_ctl);
OPERATE_RET __sf_set_obj_dp_pv_stat(const CHAR_T *data, DP_PV_STAT_E pv_stat, BOOL_T set_flow_ctl);
OPERATE_RET __sf_set_obj_dp_pv_stat_by_dc(const CHAR_T *id, const CHAR_T *data, DP_PV_STAT_E pv_stat,
                                          BOOL_T set_flow_ctl);

/* ---- local packing (dev_mutex held) ---- */
CHAR_T *__sf_pack_local_obj_data(DEV_CNTL_N_S *dev_cntl, const UINT_T max_len, const BOOL_T addDevId,
                                 BOOL_T *p_all_data_packed, BOOL_T reset_flow_ctl);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* SF_REPORT_H */
