/*
 * Whether a single-DP command for a sub-device repeats the value the cloud
 * already has, for command paths outside the module that skip such
 * commands. Any thread; reads the DP table without a lock, so a value
 * changed by a concurrent report may or may not be seen.
 */
#include <cstdlib>

#include "../dp_lookup.h"
#include "../json_helpers.h"
#include "../json_type.h"
#include "../sf_log.h"
#include "../smart_frame.h"

extern "C" BOOL_T sf_dp_data_is_equl(cJSON *dp_cmd)
{
    if (dp_cmd == nullptr) {
        SF_LOG_ERR("Param is null.");
        return FALSE;
    }
    const cJSON *cid = cJSON_GetObjectItem(dp_cmd, "cid");
    if (sf::json_type(cid) != sf::JSON_STRING) {
        SF_LOG_ERR("Parse cid error.");
        return FALSE;
    }
    DEV_CNTL_N_S *dev = get_dev_cntl(cid->valuestring);
    if (dev == nullptr) {
        SF_LOG_ERR("can't find device:%s", cid->valuestring);
        return FALSE;
    }
    const cJSON *dps = cJSON_GetObjectItem(dp_cmd, "dps");
    /* only a named member can name a DP (an array's first element has no key) */
    const cJSON *member = dps != nullptr ? dps->child : nullptr;
    if (member == nullptr || member->string == nullptr) {
        SF_LOG_ERR("can't find dps or child");
        return FALSE;
    }
    const DP_CNTL_S *dp = __locate_dp_ctl_by_dpid(dev, sf::member_dp_id(member));
    if (dp == nullptr) {
        SF_LOG_PROG("don't find dp:%s.", member->string);
        return FALSE;
    }
    /* an unknown enum name is reported even before the value is known to be set */
    if (dp->dp_desc.prop_tp == PROP_ENUM && sf::json_type(member) == sf::JSON_STRING &&
        sf::enum_index(dp, member->valuestring) < 0) {
        SF_LOG_ERR("dp enum value[%s] invalid", member->valuestring);
        return FALSE;
    }
    return sf::dp_value_equal(dp, member) ? TRUE : FALSE;
}
