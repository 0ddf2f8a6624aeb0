/*
 * The report filter: every object, status and raw report passes here
 * before anything is sent. Each DP of the report text is checked against
 * the schema and the flow control, its value compared with the one held,
 * stored, marked in flight (pv_stat 2), and put into the reduced object
 * that is actually sent.
 *
 * Locking: __sf_dp_verify_flowctl_update takes the registry's dev_mutex for
 * the whole filter; everything else here runs with it held, so a DP's
 * value, publish state and flow-control counters change together.
 */
#include <cstring>

#include "../../services/uni_time.h"
#include "../dp_lookup.h"
#include "../json_type.h"
#include "../sf_lock.h"
#include "../sf_log.h"
#include "../sf_raii.h"
#include "../json_helpers.h"
#include "output_text.h"
#include "packed_sync.h"
#include "report.h"

namespace {

bool pending_or_forced(const DP_CNTL_S *dp, INT_T filter_type, BOOL_T force_send)
{
    return dp->pv_stat == PV_STAT_INVALID || dp->pv_stat == PV_STAT_LOCAL || dp->dp_desc.trig_t == TRIG_ALWAYS ||
           filter_type == SF_FILTER_STAT || force_send == TRUE;
}

/* Whether node (already admitted) differs from the value held. enum_idx: node's index for an enum DP. */
bool value_differs(const DP_CNTL_S *dp, const cJSON *node, INT_T enum_idx)
{
    const DP_PROP_VALUE_U &prop = dp->prop;
    switch (dp->dp_desc.prop_tp) {
    case PROP_BOOL:
        return prop.prop_bool.value != sf::json_type(node);
    case PROP_VALUE:
        return prop.prop_value.value != node->valueint;
    case PROP_STR:
        return prop.prop_str.value == nullptr || std::strcmp(prop.prop_str.value, node->valuestring) != 0;
    case PROP_ENUM:
        return prop.prop_enum.value != enum_idx;
    case PROP_BITMAP:
        return prop.prop_bitmap.value != static_cast<UINT_T>(node->valueint);
    default:
        return false;
    }
}

/* The value as it goes out: enums by the schema's own name, numbers as integers. */
sf::OutputValue output_item(const DP_CNTL_S *dp, const cJSON *node, INT_T enum_idx)
{
    switch (dp->dp_desc.prop_tp) {
    case PROP_BOOL:
        return {sf::OutputValue::BOOL, sf::json_type(node), nullptr};
    case PROP_VALUE:
    case PROP_BITMAP:
        return {sf::OutputValue::INT, node->valueint, nullptr};
    case PROP_STR:
        return {sf::OutputValue::STRING, 0, node->valuestring};
    default: /* PROP_ENUM: the only other type that reaches here */
        return {sf::OutputValue::STRING, 0, dp->prop.prop_enum.pp_enum[enum_idx]};
    }
}

void store_value(DP_CNTL_S *dp, const cJSON *node, INT_T enum_idx)
{
    DP_PROP_VALUE_U &prop = dp->prop;
    switch (dp->dp_desc.prop_tp) {
    case PROP_BOOL:
        prop.prop_bool.value = sf::json_type(node);
        break;
    case PROP_VALUE:
        prop.prop_value.value = node->valueint;
        break;
    case PROP_STR:
        /* the buffer holds max_len characters and a terminator; the admissibility check bounded the length */
        std::strcpy(prop.prop_str.value, node->valuestring);
        break;
    case PROP_ENUM:
        prop.prop_enum.value = enum_idx;
        break;
    case PROP_BITMAP:
        prop.prop_bitmap.value = static_cast<UINT_T>(node->valueint);
        break;
    default:
        break;
    }
    sf::note_value_stored();
}

/* An admitted object DP whose held value differs from node: a newer value than a packed one. */
bool holds_other_value(const DP_CNTL_S *dp, const cJSON *node)
{
    const DP_DESC_IF_S &desc = dp->dp_desc;
    if (desc.type != DP_TYPE_OBJ || desc.prop_tp > PROP_BITMAP ||
        (desc.prop_tp == PROP_STR && dp->prop.prop_str.value == nullptr)) {
        return false;
    }
    const INT_T enum_idx = desc.prop_tp == PROP_ENUM ? sf::enum_index(dp, node->valuestring) : 0;
    return enum_idx >= 0 && value_differs(dp, node, enum_idx);
}

} // namespace

/*
 * Beyond the plain rules: a string DP whose registry gave it no buffer
 * cannot hold a value, so it is refused (logged) rather than written through
 * a null pointer; and when the output member cannot be allocated the DP is
 * left exactly as it was (value, pv_stat), so it is neither lost as
 * "in flight" nor half-sent, and the rest of the report goes on.
 */
extern "C" BOOL_T __append_send_json(cJSON *final_send_json, DP_CNTL_S *dp_cntl, cJSON *p_dp_json,
                                     DEV_CNTL_N_S *dev_cntl, INT_T filter_type, BOOL_T force_send)
{
    const DP_DESC_IF_S &desc = dp_cntl->dp_desc;
    const bool is_dp_passive = dev_cntl->attr.preprocess == TRUE && desc.passive == PSV_HOLD;
    if (is_dp_passive) {
        SF_LOG_PROG("dp passive is true.");
    }

    switch (desc.type) {
    case DP_TYPE_OBJ:
        break;
    case DP_TYPE_RAW:
        /* raw values are always sent, never stored here, and the passive rule does not apply */
        if (!sf::add_output(final_send_json, p_dp_json->string, {sf::OutputValue::STRING, 0, p_dp_json->valuestring})) {
            SF_LOG_ERR("DP ID:%d add json fails", desc.dp_id);
            return FALSE;
        }
        dp_cntl->pv_stat = PV_STAT_SENDING;
        return TRUE;
    case DP_TYPE_FILE:
        SF_LOG_ERR("file not support");
        return FALSE;
    default:
        SF_LOG_ERR("dp_cntl->dp_desc.prop_tp %d", desc.prop_tp);
        return FALSE;
    }

    bool need_update = pending_or_forced(dp_cntl, filter_type, force_send);
    SF_LOG_PROG("dp<%d> check. need_update:%d pv_stat:%d trig_t:%d filter_type:%d force_send:%d", desc.dp_id,
                need_update ? 1 : 0, dp_cntl->pv_stat, desc.trig_t, filter_type, force_send);
    if (desc.prop_tp > PROP_BITMAP) {
        return FALSE; /* nothing to compare, store or send */
    }
    if (desc.prop_tp == PROP_STR && dp_cntl->prop.prop_str.value == nullptr) {
        SF_LOG_ERR("DP ID:%d no string buffer", desc.dp_id);
        return FALSE;
    }
    const INT_T enum_idx = desc.prop_tp == PROP_ENUM ? sf::enum_index(dp_cntl, p_dp_json->valuestring) : 0;
    if (enum_idx < 0) {
        return FALSE; /* not a name of the schema; the admissibility check has said so */
    }
    need_update = need_update || value_differs(dp_cntl, p_dp_json, enum_idx);
    if (!need_update) {
        return FALSE;
    }
    if (!is_dp_passive &&
        !sf::add_output(final_send_json, p_dp_json->string, output_item(dp_cntl, p_dp_json, enum_idx))) {
        SF_LOG_ERR("DP ID:%d add json fails", desc.dp_id);
        return FALSE;
    }
    store_value(dp_cntl, p_dp_json, enum_idx);
    dp_cntl->pv_stat = PV_STAT_SENDING;
    /* a held passive DP keeps its new value in flight locally but is not sent */
    return is_dp_passive ? FALSE : TRUE;
}

/*
 * A text that parses but is not a JSON object (an array, a number) names
 * no DPs; it is refused like an unparsable one.
 *
 * The reduced object is written as text while the members are walked
 * (output_text.h) into one buffer sized for the whole report before the
 * walk: that buffer stands where the output object was created, and its
 * allocation failure is that one's ("Json Fails"). The text is the one
 * cJSON would print for the object, so nothing is left to fail at the end.
 */
extern "C" OPERATE_RET __dp_verify_flowctl_update(DEV_CNTL_N_S *dev_cntl, INT_T filter_type, const CHAR_T *data,
                                                  BOOL_T force_send, CHAR_T **final_send_str)
{
    if (data == nullptr || dev_cntl == nullptr || final_send_str == nullptr) {
        SF_LOG_ERR("Invalid Param");
        return RC_BAD_PARAM;
    }
    sf::JsonPtr report(cJSON_Parse(data));
    const bool is_object = report != nullptr && sf::json_type(report.get()) == sf::JSON_OBJECT;
    sf::TextPtr text(is_object ? static_cast<CHAR_T *>(Malloc(sf::output_bound(report.get()))) : nullptr);
    if (!is_object || text == nullptr) {
        SF_LOG_ERR("Json Fails");
        return RC_JSON_FAIL;
    }
    sf::OutputText output;
    sf::output_begin(&output, text.get());

    const TIME_T curr_time = uni_time_get_posix(); /* one time for the whole report */
    const bool maybe_superseded = sf::packed_values_may_be_stale(data);
    bool final_need_send = false;
    for (cJSON *member = report->child; member != nullptr; member = member->next) {
        const INT_T id = sf::member_dp_id(member);
        DP_CNTL_S *dp_cntl = __locate_dp_ctl_by_dpid(dev_cntl, id);
        if (dp_cntl == nullptr) {
            SF_LOG_ERR("DP ID:%d Not Find", id);
            continue;
        }
        if (!__check_dp_type(dp_cntl, member, dev_cntl, filter_type)) {
            continue;
        }
        if (__check_dp_flow_ctl(dp_cntl, curr_time)) {
            continue; /* force_send does not lift flow control */
        }
        if (maybe_superseded && holds_other_value(dp_cntl, member)) {
            SF_LOG_DETAIL("DP ID:%d newer value held, packed one dropped", id);
            continue;
        }
        if (__append_send_json(&output.anchor, dp_cntl, member, dev_cntl, filter_type, force_send)) {
            final_need_send = true;
        }
    }
    report.reset();

    if (!final_need_send) {
        *final_send_str = nullptr;
        SF_LOG_PROG("Need NOT Send");
        return RC_OK;
    }
    sf::output_end(&output);
    *final_send_str = text.release();
    SF_LOG_DETAIL("Need Send %s", *final_send_str);
    return RC_OK;
}

extern "C" OPERATE_RET __sf_dp_verify_flowctl_update(DEV_CNTL_N_S *dev_cntl, INT_T filter_type, const CHAR_T *data,
                                                     BOOL_T force_send, CHAR_T **final_send_str)
{
    sf::Hold lock(sf::dev_mutex, get_gw_cntl());
    return __dp_verify_flowctl_update(dev_cntl, filter_type, data, force_send, final_send_str);
}
