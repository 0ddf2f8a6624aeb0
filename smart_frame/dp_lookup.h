/*
 * The shared DP model operations: finding a DP of a device, and comparing
 * a commanded JSON value with the value the module holds.
 */
#ifndef SF_DP_LOOKUP_H
#define SF_DP_LOOKUP_H

#include <cjson/cJSON.h>

#include "../cloud_defs/kelo_cloud_com_defs.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * First DP of dev_cntl (in table order) whose dp_id equals dp_id, or NULL.
 * Takes no lock: the caller holds whatever the registry requires.
 */
DP_CNTL_S *__locate_dp_ctl_by_dpid(DEV_CNTL_N_S *dev_cntl, INT_T dp_id);

#ifdef __cplusplus
} /* extern "C" */

namespace sf {

/*
 * Index of text among the enum names of dp (first exact match), or -1.
 * dp must be a PROP_ENUM DP.
 */
INT_T enum_index(const DP_CNTL_S *dp, const char *text);

/*
 * Whether item equals the value held for dp: the DP must have a known value
 * (pv_stat not PV_STAT_INVALID) and item the JSON type of the DP's property
 * (bool: false/true matching the stored 0/1; value and bitmap: a number;
 * string: the same text; enum: a string naming the stored index). No log.
 */
bool dp_value_equal(const DP_CNTL_S *dp, const cJSON *item);

} // namespace sf
#endif

#endif /* SF_DP_LOOKUP_H */
