/*
 * Packing of one device's unconfirmed DP values (pv_stat 1 or 2) into one
 * DP object, in DP-array order, bounded by an approximate length: each
 * value counts an allowance (10, or its text length + 10), and the walk
 * stops once the allowances reach max_len. The DP that reaches the budget
 * stays in the object, so one long string is still packed alone.
 *
 * Used by the DP sync to re-publish what did not get through. Packing
 * never changes pv_stat: the publication that follows settles it.
 */
#include <cstdio>
#include <cstring>

#include "../sf_lock.h"
#include "../sf_log.h"
#include "../sf_raii.h"
#include "../json_helpers.h"
#include "packed_sync.h"
#include "report.h"
#include "../sf_tunables.h"

namespace {

constexpr UINT_T BASE_ALLOWANCE = SF_PACK_BASE_ALLOWANCE;
constexpr size_t DP_KEY_LEN = SF_DP_KEY_BYTES;

/* Not waiting for a confirmation, or never re-published from here. */
bool skipped(const DEV_CNTL_N_S *dev_cntl, const DP_CNTL_S *dp)
{
    const DP_DESC_IF_S &desc = dp->dp_desc;
    return (dev_cntl->attr.preprocess == TRUE && desc.passive == PSV_HOLD) || desc.mode == DP_MODE_WR ||
           desc.type != DP_TYPE_OBJ || desc.stat != 0 || dp->pv_stat == PV_STAT_INVALID ||
           dp->pv_stat == PV_STAT_CLOUD;
}

/* The stored text of a string or enum DP; a string DP without a buffer, or an enum index outside the names, has none. */
const char *stored_text(const DP_CNTL_S *dp)
{
    const DP_PROP_VALUE_U &prop = dp->prop;
    if (dp->dp_desc.prop_tp == PROP_STR) {
        return prop.prop_str.value;
    }
    if (prop.prop_enum.value < 0 || prop.prop_enum.value >= prop.prop_enum.cnt) {
        return nullptr;
    }
    return prop.prop_enum.pp_enum[prop.prop_enum.value];
}

} // namespace

/*
 * Beyond the plain rules: a pending string DP without a text, or an enum
 * DP whose index lies outside its names, has nothing to publish; it is
 * skipped with an error instead of being read through a bad pointer. When a
 * member cannot be allocated the whole packing fails (NULL, "cr json err"),
 * as when the object itself cannot be made: the values stay pending for the
 * next run.
 */
extern "C" CHAR_T *__sf_pack_local_obj_data(DEV_CNTL_N_S *dev_cntl, const UINT_T max_len, const BOOL_T addDevId,
                                            BOOL_T *p_all_data_packed, BOOL_T reset_flow_ctl)
{
    if (dev_cntl == nullptr) {
        SF_LOG_ERR("Invalid Param");
        return nullptr;
    }
    sf::JsonPtr packed(cJSON_CreateObject());
    if (packed == nullptr) {
        SF_LOG_ERR("cr json err");
        return nullptr;
    }
    UINT_T sum = 0;
    SF_LOG_PROG("Pack local dp values reset_flow_ctl:%d", reset_flow_ctl);

    INT_T i = 0;
    for (; i < dev_cntl->dp_num; ++i) {
        DP_CNTL_S *dp = &dev_cntl->dp[i];
        if (skipped(dev_cntl, dp)) {
            SF_LOG_DETAIL("Skip DP ID %d", dp->dp_desc.dp_id);
            continue;
        }
        if (reset_flow_ctl == TRUE) {
            dp->rept_cntl.cir_rept_items = 0;
        }
        char key[DP_KEY_LEN];
        std::snprintf(key, sizeof key, "%d", dp->dp_desc.dp_id);
        cJSON *item = nullptr;
        UINT_T allowance = BASE_ALLOWANCE;
        switch (dp->dp_desc.prop_tp) {
        case PROP_BOOL:
            item = cJSON_CreateBool(dp->prop.prop_bool.value != 0);
            break;
        case PROP_VALUE:
            item = cJSON_CreateNumber(dp->prop.prop_value.value);
            break;
        case PROP_BITMAP:
            item = cJSON_CreateNumber(dp->prop.prop_bitmap.value);
            break;
        case PROP_STR:
        case PROP_ENUM: {
            const char *text = stored_text(dp);
            if (text == nullptr) {
                SF_LOG_ERR("DP ID %d no value to pack", dp->dp_desc.dp_id);
                allowance = 0;
                break;
            }
            allowance += static_cast<UINT_T>(std::strlen(text));
            item = cJSON_CreateString(text);
            break;
        }
        default:
            SF_LOG_ERR("unsupported dp type");
            allowance = 0;
            break;
        }
        if (allowance != 0 && !sf::add_member(packed.get(), key, item)) {
            SF_LOG_ERR("cr json err");
            return nullptr;
        }
        sum += allowance;
        if (sum >= max_len) {
            SF_LOG_PROG("reach MaxLen %d %d", sum, max_len);
            break; /* i not advanced: a budget reached on the last DP still reports "not all packed" */
        }
    }

    if (sum == 0) {
        SF_LOG_PROG("Nothing To Pack");
        return nullptr;
    }
    if (p_all_data_packed != nullptr) {
        *p_all_data_packed = i == dev_cntl->dp_num ? TRUE : FALSE;
    }
    CHAR_T *text = cJSON_PrintUnformatted(packed.get());
    packed.reset();
    if (text == nullptr) {
        SF_LOG_ERR("Json Print fail");
        return nullptr;
    }
    SF_LOG_DETAIL("addDevId:%d", addDevId);

    CHAR_T *result = text;
    if (addDevId == TRUE) {
        result = nullptr;
        /* its failure is logged there; the result is then NULL */
        (void)__sf_add_devid_time_to_dpstr(dev_cntl, text, nullptr, &result);
        Free(text);
    }
    SF_LOG_PROG("final pack:%s", sf::log_text(result));
    return result;
}

extern "C" CHAR_T *sf_pack_local_obj_dp_data(DEV_CNTL_N_S *dev_cntl, const UINT_T max_len, const BOOL_T addDevId,
                                             BOOL_T *p_all_data_packed, BOOL_T reset_flow_ctl)
{
    sf::Hold lock(sf::dev_mutex, get_gw_cntl());
    return __sf_pack_local_obj_data(dev_cntl, max_len, addDevId, p_all_data_packed, reset_flow_ctl);
}

namespace sf {

CHAR_T *pack_for_sync(DEV_CNTL_N_S *dev_cntl, UINT_T max_len, BOOL_T addDevId, BOOL_T *p_all_data_packed,
                      BOOL_T reset_flow_ctl, UINT_T *stored)
{
    Hold lock(dev_mutex, get_gw_cntl());
    *stored = stored_values();
    return __sf_pack_local_obj_data(dev_cntl, max_len, addDevId, p_all_data_packed, reset_flow_ctl);
}

} // namespace sf
