#include "dp_lookup.h"

#include <cstring>

#include "json_type.h"

extern "C" DP_CNTL_S *__locate_dp_ctl_by_dpid(DEV_CNTL_N_S *dev_cntl, INT_T dp_id)
{
    for (INT_T i = 0; i < dev_cntl->dp_num; ++i) {
        if (dev_cntl->dp[i].dp_desc.dp_id == dp_id) {
            return &dev_cntl->dp[i];
        }
    }
    return nullptr;
}

namespace sf {

INT_T enum_index(const DP_CNTL_S *dp, const char *text)
{
    const DP_PROP_ENUM_S &names = dp->prop.prop_enum;
    for (INT_T i = 0; i < names.cnt; ++i) {
        if (names.pp_enum[i] != nullptr && std::strcmp(names.pp_enum[i], text) == 0) {
            return i;
        }
    }
    return -1;
}

bool dp_value_equal(const DP_CNTL_S *dp, const cJSON *item)
{
    if (dp->pv_stat == PV_STAT_INVALID) {
        return false;
    }
    const INT_T type = json_type(item);
    switch (dp->dp_desc.prop_tp) {
    case PROP_BOOL:
        /* the stored 0/1 doubles as the type number of false/true */
        return (type == JSON_FALSE || type == JSON_TRUE) && dp->prop.prop_bool.value == type;
    case PROP_VALUE:
        return type == JSON_NUMBER && dp->prop.prop_value.value == item->valueint;
    case PROP_STR: {
        const char *stored = dp->prop.prop_str.value;
        return type == JSON_STRING && stored != nullptr && std::strcmp(stored, item->valuestring) == 0;
    }
    case PROP_ENUM:
        return type == JSON_STRING && enum_index(dp, item->valuestring) == dp->prop.prop_enum.value &&
               dp->prop.prop_enum.value >= 0;
    case PROP_BITMAP:
        return type == JSON_NUMBER && dp->prop.prop_bitmap.value == static_cast<UINT_T>(item->valueint);
    default:
        return false;
    }
}

} // namespace sf
