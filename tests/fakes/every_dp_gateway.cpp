#include "every_dp_gateway.h"

#include <cstring>

namespace fake {
namespace every_dp {

const char *const GW_ID = "gw0001";
const char *const SUB_ID = "sub01";
const char *const UNBOUND_ID = "sub02";

namespace {

std::vector<registry::DpSpec> schema()
{
    using namespace registry;
    return {
        dp_bool(DP_BOOL),
        dp_value(DP_VALUE, -100, 100),
        dp_str(DP_STR, 16),
        dp_enum(DP_ENUM, {"low", "mid", "high"}),
        dp_bitmap(DP_BITMAP, 31),
        dp_raw(DP_RAW),
        dp_file(DP_FILE),
        dp_bool(DP_PASSIVE).passive(PSV_HOLD),
        dp_bool(DP_WRITE_ONLY).mode(DP_MODE_WR),
        dp_bool(DP_ALWAYS).trig(TRIG_ALWAYS),
        dp_value(DP_FLOW, 0, 1000).flow(60, 1),
        dp_str(DP_STR_UNSET, 16).no_str_buffer(),
        dp_bool(DP_BAD_PROP).prop_tp(static_cast<DP_PROP_TP_E>(7)),
    };
}

void set_known_values(DEV_CNTL_N_S *dev)
{
    for (BYTE_T i = 0; i < dev->dp_num; ++i) {
        DP_CNTL_S &dp = dev->dp[i];
        DP_PROP_VALUE_U &prop = dp.prop;
        dp.pv_stat = PV_STAT_CLOUD;
        switch (dp.dp_desc.dp_id) {
        case DP_BOOL:
            prop.prop_bool.value = TRUE;
            break;
        case DP_VALUE:
            prop.prop_value.value = 25;
            break;
        case DP_STR:
            std::strcpy(prop.prop_str.value, "abc");
            break;
        case DP_ENUM:
            prop.prop_enum.value = 1;
            break;
        case DP_BITMAP:
            prop.prop_bitmap.value = 5;
            break;
        case DP_FLOW:
            prop.prop_value.value = 7;
            break;
        case DP_RAW:
        case DP_FILE:
        case DP_STR_UNSET:
            dp.pv_stat = PV_STAT_INVALID;
            break;
        default:
            break; /* bools known false */
        }
    }
}

} // namespace

void build()
{
    DEV_CNTL_N_S *gw = registry::set_gateway(GW_ID, schema());
    set_known_values(gw);
    DEV_CNTL_N_S *sub = registry::add_device(SUB_ID, schema());
    sub->attr.preprocess = TRUE;
    set_known_values(sub);
    /* one value whose publication failed, so the DP sync has something to send */
    registry::dp(SUB_ID, DP_VALUE)->pv_stat = PV_STAT_LOCAL;
    set_known_values(registry::add_device(UNBOUND_ID, schema(), false));
}

void Snapshot::take()
{
    devices_.clear();
    for (DEV_CNTL_N_S *node = registry::gw()->dev; node != nullptr; node = node->next) {
        Device device{node, node->attr, std::vector<DP_CNTL_S>(node->dp, node->dp + node->dp_num), {}};
        for (const DP_CNTL_S &dp : device.dps) {
            const bool text = dp.dp_desc.type == DP_TYPE_OBJ && dp.dp_desc.prop_tp == PROP_STR &&
                              dp.prop.prop_str.value != nullptr;
            device.texts.push_back(text ? dp.prop.prop_str.value : "");
        }
        devices_.push_back(device);
    }
}

void Snapshot::restore() const
{
    for (const Device &device : devices_) {
        device.node->attr = device.attr;
        for (size_t i = 0; i < device.dps.size(); ++i) {
            DP_CNTL_S &dp = device.node->dp[i];
            dp = device.dps[i];
            if (dp.dp_desc.type == DP_TYPE_OBJ && dp.dp_desc.prop_tp == PROP_STR && dp.prop.prop_str.value != nullptr) {
                std::strcpy(dp.prop.prop_str.value, device.texts[i].c_str());
            }
        }
    }
}

} // namespace every_dp
} // namespace fake
