/*
 * Publish state of DP values (pv_stat) as publications end: confirmed (3),
 * failed and to be re-sent (1), given up (0). The texts name the DPs; their
 * values are not looked at.
 *
 * Threads: whichever ends a publication (the MQTT client's thread, a
 * synchronous reporter after its wait, the dispatch thread of the DP sync).
 * Parsing happens before dev_mutex is taken; every read and write of
 * pv_stat, passive and the flow-control counters happens under it.
 *
 * The texts are read by the allocation-free scan of dp_scan.h when they are
 * in its subset of JSON (the module's own envelopes always are), and by
 * cJSON otherwise; both give the same members.
 */
#include <cstdint>

#include "../../services/uni_time.h"
#include "../dp_lookup.h"
#include "../json_type.h"
#include "../sf_lock.h"
#include "../sf_log.h"
#include "../sf_raii.h"
#include "../json_helpers.h"
#include "dp_scan.h"
#include "report.h"

/*
 * The "Set To" line carries the device argument as a number, as it always
 * has (log readers key on the line as it stands): 0 for the gateway's own
 * device, an opaque non-zero token for a sub-device.
 */
extern "C" void __dev_obj_dp_set_pv_stat(const CHAR_T *id, const cJSON *json, DP_PV_STAT_E pv_stat,
                                         BOOL_T set_flow_ctl)
{
    GW_CNTL_S *gw = get_gw_cntl();
    const TIME_T curr_time = uni_time_get_posix(); /* one time for every DP of the report */

    sf::Hold lock(sf::dev_mutex, gw);
    DEV_CNTL_N_S *dev_cntl = get_dev_cntl_unlock(id != nullptr ? id : gw->gw_if.id);
    if (dev_cntl == nullptr) {
        return; /* a device gone meanwhile: nothing to record */
    }
    for (const cJSON *member = json; member != nullptr; member = member->next) {
        const INT_T dp_id = sf::member_dp_id(member);
        DP_CNTL_S *dp_cntl = __locate_dp_ctl_by_dpid(dev_cntl, dp_id);
        if (dp_cntl == nullptr) {
            SF_LOG_ERR("dp_cntl is null");
            return; /* the members after it keep their state */
        }
        if (dp_cntl->dp_desc.mode == DP_MODE_WR) {
            SF_LOG_ERR("DP ID %d Skip", dp_id);
            continue;
        }
        dp_cntl->pv_stat = pv_stat;
        SF_LOG_DETAIL("DP ID %d Set To %d", static_cast<INT_T>(reinterpret_cast<intptr_t>(id)), pv_stat);
        /* a woken passive DP gets one confirmed publication per command */
        if (pv_stat == PV_STAT_CLOUD && dev_cntl->attr.preprocess == TRUE &&
            dp_cntl->dp_desc.passive == PSV_RELEASED) {
            dp_cntl->dp_desc.passive = PSV_HOLD;
        }
        if (set_flow_ctl == TRUE) {
            __set_dp_flow_ctl(dp_cntl, curr_time);
        }
    }
}

extern "C" OPERATE_RET __sf_set_obj_dp_pv_stat(const CHAR_T *data, DP_PV_STAT_E pv_stat, BOOL_T set_flow_ctl)
{
    if (data == nullptr) {
        SF_LOG_ERR("Invalid Param");
        return RC_BAD_PARAM;
    }
    sf::ScannedDps scanned;
    if (sf::scan_envelope(data, &scanned)) {
        __dev_obj_dp_set_pv_stat(scanned.has_cid ? scanned.cid : nullptr, scanned.first(), pv_stat, set_flow_ctl);
        return RC_OK;
    }
    sf::JsonPtr envelope(cJSON_Parse(data));
    if (envelope == nullptr) {
        SF_LOG_ERR("json parse fail %s", data);
        return RC_JSON_PARSE;
    }
    const cJSON *dps = cJSON_GetObjectItemCaseSensitive(envelope.get(), "dps");
    if (dps == nullptr) {
        SF_LOG_ERR("json fail %s", data);
        return RC_FAIL;
    }
    /* no "cid": the gateway's own DPs */
    const cJSON *cid = cJSON_GetObjectItemCaseSensitive(envelope.get(), "cid");
    const CHAR_T *id = cid != nullptr && sf::json_type(cid) == sf::JSON_STRING ? cid->valuestring : nullptr;
    __dev_obj_dp_set_pv_stat(id, dps->child, pv_stat, set_flow_ctl);
    return RC_OK;
}

extern "C" OPERATE_RET __sf_set_obj_dp_pv_stat_by_dc(const CHAR_T *id, const CHAR_T *data, DP_PV_STAT_E pv_stat,
                                                     BOOL_T set_flow_ctl)
{
    sf::ScannedDps scanned;
    if (data != nullptr && sf::scan_dp_object(data, &scanned)) {
        __dev_obj_dp_set_pv_stat(id, scanned.first(), pv_stat, set_flow_ctl);
        return RC_OK;
    }
    sf::JsonPtr dps(data != nullptr ? cJSON_Parse(data) : nullptr);
    if (dps == nullptr) {
        SF_LOG_ERR("json parse fail %s", sf::log_text(data));
        return RC_JSON_PARSE;
    }
    __dev_obj_dp_set_pv_stat(id, dps->child, pv_stat, set_flow_ctl);
    return RC_OK;
}
