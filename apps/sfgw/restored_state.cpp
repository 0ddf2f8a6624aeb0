#include "restored_state.h"

#include "cloud_defs/gw_intf.h"
#include "port/posix/state/state_store.h"
#include "services/uni_mutex.h"
#include "smart_frame/dp_lookup.h"

namespace sfgw {

namespace {

/* The JSON value the registry holds for a DP; dev_mutex held. */
std::string json_value(const DP_CNTL_S &dp)
{
    switch (dp.dp_desc.prop_tp) {
    case PROP_BOOL:
        return dp.prop.prop_bool.value ? "true" : "false";
    case PROP_VALUE:
        return std::to_string(dp.prop.prop_value.value);
    case PROP_BITMAP:
        return std::to_string(dp.prop.prop_bitmap.value);
    case PROP_STR:
        return apps::json_quote(dp.prop.prop_str.value != nullptr ? dp.prop.prop_str.value : "");
    case PROP_ENUM: {
        const DP_PROP_ENUM_S &e = dp.prop.prop_enum;
        return apps::json_quote(e.value >= 0 && e.value < e.cnt ? e.pp_enum[e.value] : "");
    }
    default:
        return "null";
    }
}

} // namespace

DpValues restored_values(const apps::DeviceSchema &schema)
{
    std::vector<int> dpids;
    for (const apps::DpSchema &dp : schema.dps) {
        if (dp.type == "obj" && sf_state::restored(schema.id, dp.id)) {
            dpids.push_back(dp.id);
        }
    }
    DpValues values;
    if (dpids.empty()) {
        return values;
    }
    GW_CNTL_S *gw = get_gw_cntl();
    MutexLock(gw->dev_mutex);
    DEV_CNTL_N_S *dev = get_dev_cntl_unlock(schema.id.c_str());
    for (int dpid : dpids) {
        const DP_CNTL_S *dp = dev != nullptr ? __locate_dp_ctl_by_dpid(dev, dpid) : nullptr;
        if (dp != nullptr) {
            values.emplace_back(dpid, json_value(*dp));
        }
    }
    MutexUnLock(gw->dev_mutex);
    return values;
}

} // namespace sfgw
