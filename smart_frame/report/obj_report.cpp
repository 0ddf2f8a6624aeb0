/*
 * The send path of every DP report of one device: find the device, filter
 * the report, wrap it, offer it to the LAN clients, publish it over MQTT,
 * and record in pv_stat what could not be sent so the DP sync re-sends it.
 *
 * Threads: application threads and the dispatch thread (DP sync) call the
 * worker; completions run on the MQTT client's thread. The worker holds no
 * lock of its own: dev_mutex is taken only inside the filter and the
 * publish-state setters, never across the LAN or MQTT calls.
 *
 * References of the message block (created with 2):
 *   after the LAN step   1 held here (+1 by the LAN channel when it took it)
 *   object report        +1 for the completion (prv_data is the block)
 *   after MQTT call      the creator's reference dropped; an object report
 *                        leaves 1 to its completion, a synchronous one 0
 *   MQTT refused         the completion's reference dropped too: 0 here
 */
#include <cstring>

#include "../sf_log.h"
#include "../sf_raii.h"
#include "block_send.h"
#include "report.h"
#include "../json_helpers.h"
#include "../sf_tunables.h"

namespace {

constexpr UINT_T OBJ_REPORT_TIMEOUT_S = SF_OBJ_REPORT_TIMEOUT_S;

} // namespace

extern "C" OPERATE_RET __sf_dp_report_aysnc(const CHAR_T *id, BOOL_T is_lan_send, INT_T filter_type,
                                            const CHAR_T *data, const CHAR_T *time, BOOL_T force_send,
                                            UINT_T time_out_s, MQ_PUB_ASYNC_IFM_CB cb, void *prv_data,
                                            BOOL_T *p_need_send)
{
    if (data == nullptr) {
        SF_LOG_ERR("Invalid Param");
        return RC_BAD_PARAM;
    }
    DEV_CNTL_N_S *dev = id != nullptr ? get_dev_cntl(id) : get_gw_dev_cntl();
    if (dev == nullptr) {
        SF_LOG_ERR("devID:%s Not Find", sf::log_text(id));
        return RC_DEV_NOT_FOUND;
    }
    if (dev->dev_if.bind == FALSE) {
        SF_LOG_ERR("devID:%s Not Bind", sf::log_text(id));
        return RC_DEV_NOT_BOUND;
    }
    if (p_need_send != nullptr) {
        *p_need_send = FALSE;
    }
    SF_LOG_DETAIL("befor Verify: %d %d %s", filter_type, force_send, data);

    CHAR_T *filtered = nullptr;
    OPERATE_RET op_ret = __sf_dp_verify_flowctl_update(dev, filter_type, data, force_send, &filtered);
    if (op_ret != RC_OK) {
        SF_LOG_ERR("dp verify fails %d", op_ret);
        return op_ret;
    }
    if (filtered == nullptr) {
        SF_LOG_DETAIL("nothing to send");
        return RC_OK;
    }
    sf::TextPtr filter_data(filtered); /* the worker's on every path */
    if (p_need_send != nullptr) {
        *p_need_send = TRUE;
    }

    /* one pass that ends either in the hand-over to MQTT or in the local status below */
    do {
        const GW_BASE_NW_STAT_T nw_stat = get_gw_nw_status();
        if (nw_stat == GW_NW_NONE) {
            SF_LOG_ERR("Net Invalid  %d", nw_stat);
            op_ret = RC_NET_DOWN;
            break;
        }
        /*
         * The envelope and the message block stay two steps, each with its
         * own allocation, failure and log: an integrator's fault injection
         * can aim at either one.
         */
        CHAR_T *final_data = nullptr;
        op_ret = __sf_add_devid_time_to_dpstr(dev, filter_data.get(), time, &final_data);
        if (op_ret != RC_OK) {
            SF_LOG_ERR("add time && devid fails %d", op_ret);
            break;
        }
        RFC_DATA_S *rfc_da = nullptr;
        op_ret = __sf_mk_rfc_msg_data(reinterpret_cast<const BYTE_T *>(final_data),
                                      static_cast<UINT_T>(std::strlen(final_data)), &rfc_da);
        Free(final_data);
        if (op_ret != RC_OK) {
            SF_LOG_ERR("md rfc fail %d", op_ret);
            break;
        }

        if (is_lan_send == TRUE) {
            SF_LOG_DETAIL("Enable Lan Send");
            const OPERATE_RET lan_ret = sf::offer_block_to_lan(rfc_da);
            if (sf::lan_failure_is_error(lan_ret)) {
                SF_LOG_ERR("lan_dp_sata_report error:%d", lan_ret);
            }
        } else {
            put_rfc_data(rfc_da); /* the reference meant for the LAN channel */
        }

        op_ret = sf::publish_block_async(rfc_da, time_out_s, cb, prv_data);
        if (op_ret == RC_OK) {
            return RC_OK; /* the completion settles the publish state */
        }
        SF_LOG_ERR("mqtt async send fail %d", op_ret);
    } while (false);

    SF_LOG_PROG("Update Local DP Status");
    if (filter_type == SF_FILTER_OBJ) {
        __sf_set_obj_dp_pv_stat_by_dc(id, filter_data.get(), PV_STAT_LOCAL, FALSE);
        sf_start_sync_obj_dp();
    } else if (filter_type == SF_FILTER_RAW || filter_type == SF_FILTER_STAT) {
        /* raw and status reports are not retried: given up as sent */
        __sf_set_obj_dp_pv_stat_by_dc(id, filter_data.get(), PV_STAT_CLOUD, FALSE);
    }
    return op_ret;
}

extern "C" void __sf_obj_dp_report_async_cb(OPERATE_RET op_ret, const void *prv_data)
{
    SF_LOG_DETAIL("mqtt async dp cb %d", op_ret);
    RFC_DATA_S *block = static_cast<RFC_DATA_S *>(const_cast<void *>(prv_data));
    const DP_PV_STAT_E pv_stat = op_ret == RC_OK ? PV_STAT_CLOUD : PV_STAT_LOCAL;
    const OPERATE_RET set_ret =
        __sf_set_obj_dp_pv_stat(sf::block_text(block), pv_stat, op_ret == RC_OK ? TRUE : FALSE);
    put_rfc_data(block);
    if (pv_stat == PV_STAT_LOCAL && set_ret == RC_OK) {
        sf_start_sync_obj_dp();
    }
}

extern "C" OPERATE_RET sf_obj_dp_report_async(const CHAR_T *id, const CHAR_T *data, BOOL_T force_send)
{
    return __sf_dp_report_aysnc(id, TRUE, SF_FILTER_OBJ, data, nullptr, force_send, OBJ_REPORT_TIMEOUT_S,
                                __sf_obj_dp_report_async_cb, nullptr, nullptr);
}
