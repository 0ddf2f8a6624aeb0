/*
 * Whether one reported JSON value may go into a report of the given kind:
 * the DP must be reportable, of the kind the filter admits, and the value
 * of the DP's property type and within its schema limits. Every refusal is
 * logged with its reason, from this function. dev_mutex held by the caller
 * (the schema is read, nothing is written). Yields 1 or 0 only.
 */
#include <cstring>

#include "../dp_lookup.h"
#include "../json_type.h"
#include "../sf_log.h"
#include "report.h"
#include "../json_helpers.h"

extern "C" OPERATE_RET __check_dp_type(DP_CNTL_S *dp_cntl, cJSON *p_dp_json, DEV_CNTL_N_S *dev_cntl,
                                       INT_T filter_type)
{
    (void)dev_cntl; /* admissibility depends on the DP alone */
    const DP_DESC_IF_S &desc = dp_cntl->dp_desc;
    if (desc.mode == DP_MODE_WR || (desc.type != DP_TYPE_OBJ && filter_type == SF_FILTER_OBJ) ||
        (desc.type != DP_TYPE_RAW && filter_type == SF_FILTER_RAW)) {
        SF_LOG_ERR("DP ID:%d Verify Fails %d %d %d %d", desc.dp_id, desc.mode, desc.stat, filter_type, desc.type);
        return 0;
    }
    if (desc.type == DP_TYPE_RAW) {
        if (filter_type == SF_FILTER_RAW) {
            return 1;
        }
        SF_LOG_ERR("raw filter invalid %d", filter_type);
        return 0;
    }
    if (desc.type == DP_TYPE_FILE) {
        SF_LOG_ERR("file not support");
        return 0;
    }
    if (desc.type != DP_TYPE_OBJ) {
        SF_LOG_ERR("dp_cntl->dp_desc.type %d", desc.type);
        return 0;
    }
    if (filter_type != SF_FILTER_OBJ && filter_type != SF_FILTER_STAT) {
        SF_LOG_ERR("obj filter type invalid %d", filter_type);
        return 0;
    }

    const INT_T type = sf::json_type(p_dp_json);
    const DP_PROP_VALUE_U &prop = dp_cntl->prop;
    switch (desc.prop_tp) {
    case PROP_BOOL:
        if (type == sf::JSON_FALSE || type == sf::JSON_TRUE) {
            return 1;
        }
        SF_LOG_ERR("bool check fail %d", type);
        return 0;
    case PROP_VALUE:
        /* both ends inclusive; step and scale are not checked */
        if (type == sf::JSON_NUMBER && p_dp_json->valueint >= prop.prop_value.min &&
            p_dp_json->valueint <= prop.prop_value.max) {
            return 1;
        }
        SF_LOG_ERR("value check fail %d %d %d %d", type, p_dp_json->valueint, prop.prop_value.min,
                   prop.prop_value.max);
        return 0;
    case PROP_STR: {
        const size_t len = type == sf::JSON_STRING ? std::strlen(p_dp_json->valuestring) : 0;
        if (type == sf::JSON_STRING && len <= static_cast<UINT_T>(prop.prop_str.max_len)) {
            return 1;
        }
        /* the text does not print the maximum, so it is not passed (the format check would refuse it) */
        SF_LOG_ERR("str check fail %d %s %d", type, sf::log_text(p_dp_json->valuestring), static_cast<INT_T>(len));
        return 0;
    }
    case PROP_ENUM:
        if (type != sf::JSON_STRING) {
            SF_LOG_ERR("enum check fail %d", type);
            return 0;
        }
        if (sf::enum_index(dp_cntl, p_dp_json->valuestring) >= 0) {
            return 1;
        }
        SF_LOG_ERR("enum check fail %s", p_dp_json->valuestring);
        return 0;
    case PROP_BITMAP:
        /* the bitmap's max_len is deliberately not compared with the value */
        if (type == sf::JSON_NUMBER) {
            return 1;
        }
        SF_LOG_ERR("bitmap check fail %d %d %d", type, p_dp_json->valueint, prop.prop_bitmap.max_len);
        return 0;
    default:
        SF_LOG_ERR("dp_cntl->dp_desc.prop_tp %d", desc.prop_tp);
        return 0;
    }
}
