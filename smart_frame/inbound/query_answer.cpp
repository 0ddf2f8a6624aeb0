/*
 * The module's own answer to "what are the values of these DPs": the held
 * values of a device, wrapped as a report envelope and sent to the LAN
 * clients and to the cloud as a DP-query answer. Used as the echo of a
 * command that changes nothing.
 *
 * Runs on the dispatch thread with no lock held on entry; reads the DP
 * table under dev_mutex, the lock its writers (reporting threads) hold,
 * only while building the answer object: a string value is copied whole,
 * never while a report rewrites it. Nothing is sent with the lock held.
 */
#include <cstdio>
#include <cstring>

#include "../../services/mqtt_client.h"
#include "../dp_lookup.h"
#include "../json_helpers.h"
#include "../report/block_send.h"
#include "../report/report.h"
#include "../sf_log.h"
#include "../sf_lock.h"
#include "../sf_raii.h"
#include "inbound.h"
#include "../sf_tunables.h"

namespace {

/*
 * Whether the DP may be answered from its held value: an object DP the
 * device reports (not write-only), with a known value, not held back as a
 * passive DP of a preprocessing device.
 */
bool answerable(const DEV_CNTL_N_S *dev, const DP_CNTL_S *dp)
{
    if (dp->dp_desc.mode == DP_MODE_WR || dp->dp_desc.type != DP_TYPE_OBJ || dp->pv_stat == PV_STAT_INVALID) {
        return false;
    }
    return !(dev->attr.preprocess == TRUE && dp->dp_desc.passive == PSV_HOLD);
}

/*
 * The JSON value of the DP's held value, or NULL when it cannot be read
 * (an enum index outside its names, a string DP without text, a property
 * type the module does not know) or cannot be allocated; *unreadable tells
 * the two apart.
 */
cJSON *held_value(const DP_CNTL_S *dp, bool *unreadable)
{
    *unreadable = false;
    const DP_PROP_VALUE_U &prop = dp->prop;
    switch (dp->dp_desc.prop_tp) {
    case PROP_BOOL:
        return cJSON_CreateBool(prop.prop_bool.value != 0);
    case PROP_VALUE:
        return cJSON_CreateNumber(prop.prop_value.value);
    case PROP_STR:
        if (prop.prop_str.value == nullptr) {
            break;
        }
        return cJSON_CreateString(prop.prop_str.value);
    case PROP_ENUM:
        if (prop.prop_enum.value < 0 || prop.prop_enum.value >= prop.prop_enum.cnt ||
            prop.prop_enum.pp_enum[prop.prop_enum.value] == nullptr) {
            break;
        }
        return cJSON_CreateString(prop.prop_enum.pp_enum[prop.prop_enum.value]);
    case PROP_BITMAP:
        return cJSON_CreateNumber(prop.prop_bitmap.value);
    default:
        break;
    }
    *unreadable = true;
    return nullptr;
}

} // namespace

extern "C" OPERATE_RET __sf_response_query_obj_dp(DEV_CNTL_N_S *dev_cntl, const BYTE_T *dpid, const BYTE_T num)
{
    if (dev_cntl == nullptr || num == 0) {
        SF_LOG_ERR("Invalid Param");
        return RC_BAD_PARAM;
    }
    sf::JsonPtr answer(cJSON_CreateObject());
    if (!answer) {
        SF_LOG_ERR("create json fails");
        return RC_JSON_FAIL;
    }
    sf::Hold table_lock(sf::dev_mutex, get_gw_cntl());
    for (BYTE_T i = 0; i < num; ++i) {
        const INT_T id = dpid[i];
        const DP_CNTL_S *dp = __locate_dp_ctl_by_dpid(dev_cntl, id);
        if (dp == nullptr) {
            SF_LOG_ERR("dp id Invalid %d", id);
            continue;
        }
        if (!answerable(dev_cntl, dp)) {
            SF_LOG_ERR("dp id %d Skip", id);
            continue;
        }
        bool unreadable = false;
        cJSON *value = held_value(dp, &unreadable);
        if (unreadable) {
            /* a held value that cannot be read is treated like one not known */
            SF_LOG_ERR("dp id %d Skip", id);
            continue;
        }
        char key[SF_DP_KEY_BYTES];
        std::snprintf(key, sizeof key, "%d", id);
        if (!sf::add_member(answer.get(), key, value)) {
            SF_LOG_ERR("add dp %d to answer fails", id);
            return RC_NO_MEMORY;
        }
    }

    table_lock.unlock();

    sf::TextPtr dps(cJSON_PrintUnformatted(answer.get()));
    answer.reset();
    if (!dps) {
        SF_LOG_ERR("json print fails");
        return RC_NO_MEMORY;
    }
    CHAR_T *envelope_raw = nullptr;
    OPERATE_RET rc = __sf_add_devid_time_to_dpstr(dev_cntl, dps.get(), nullptr, &envelope_raw);
    dps.reset();
    if (rc != RC_OK) {
        SF_LOG_ERR("__sf_add_devid_time_to_dpstr fails %d", rc);
        return rc;
    }
    sf::TextPtr envelope(envelope_raw);
    RFC_DATA_S *block = nullptr;
    rc = __sf_mk_rfc_msg_data(reinterpret_cast<const BYTE_T *>(envelope.get()),
                              static_cast<UINT_T>(std::strlen(envelope.get())), &block);
    envelope.reset();
    if (rc != RC_OK) {
        SF_LOG_ERR("__sf_mk_rfc_msg_data fails %d", rc);
        return rc;
    }

    /* one reference each for the LAN offer and the MQTT answer */
    const OPERATE_RET lan_rc = sf::offer_block_to_lan(block);
    if (sf::lan_failure_is_error(lan_rc)) {
        SF_LOG_ERR("lan_dp_sata_report error:%d", lan_rc);
    }
    rc = mqc_obj_dp_query(block);
    put_rfc_data(block);
    if (rc != RC_OK) {
        SF_LOG_ERR("mqc_obj_dp_query error:%d", rc);
        return rc;
    }
    return RC_OK;
}
