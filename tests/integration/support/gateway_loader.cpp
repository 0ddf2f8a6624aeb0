/*
 * INTERIM: a minimal in-memory registry until the registry of port/posix
 * is merged; then this file loads a generated gateway description instead.
 */
#include "gateway_loader.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "cloud_defs/gw_intf.h"
#include "services/uni_memory.h"
#include "services/uni_mutex.h"

namespace {
GW_CNTL_S g_gw;
std::atomic<int> g_nw{0};
} // namespace

extern "C" {
GW_CNTL_S *get_gw_cntl(void) { return &g_gw; }
DEV_CNTL_N_S *get_dev_cntl_unlock(const CHAR_T *id)
{
    for (DEV_CNTL_N_S *dev = g_gw.dev; dev != nullptr && id != nullptr; dev = dev->next) {
        if (std::strcmp(dev->dev_if.id, id) == 0) {
            return dev;
        }
    }
    return nullptr;
}
DEV_CNTL_N_S *get_dev_cntl(const CHAR_T *id)
{
    MutexLock(g_gw.dev_mutex);
    DEV_CNTL_N_S *dev = get_dev_cntl_unlock(id);
    MutexUnLock(g_gw.dev_mutex);
    return dev;
}
DEV_CNTL_N_S *get_gw_dev_cntl(void) { return get_dev_cntl(g_gw.gw_if.id); }
DP_CNTL_S *get_dev_dp_cntl(const CHAR_T *id, BYTE_T dpid)
{
    DEV_CNTL_N_S *dev = get_dev_cntl(id);
    for (int i = 0; dev != nullptr && i < dev->dp_num; ++i) {
        if (dev->dp[i].dp_desc.dp_id == dpid) {
            return &dev->dp[i];
        }
    }
    return nullptr;
}
GW_BASE_NW_STAT_T get_gw_nw_status(void) { return static_cast<GW_BASE_NW_STAT_T>(g_nw.load()); }
void gw_registry_set_nw_status(GW_BASE_NW_STAT_T status) { g_nw = status; }
OPERATE_RET dev_update_grp_info(GRP_ACTION_E, const CHAR_T *, const CHAR_T *) { return RC_OK; }
OPERATE_RET dev_update_scene_info(SCE_ACTION_E, const CHAR_T *, const CHAR_T *, const CHAR_T *) { return RC_OK; }
}

namespace it {

bool load_gateway(const GatewayDescription &gw, std::string *why)
{
    std::strncpy(g_gw.gw_if.id, gw.gw_id.c_str(), DEV_ID_LEN);
    if (CreateMutexAndInit(&g_gw.dev_mutex) != RC_OK) {
        *why = "mutex";
        return false;
    }
    DEV_CNTL_N_S **tail = &g_gw.dev;
    for (const DeviceShape &shape : gw.devices) {
        const int n = shape.bool_dps + shape.value_dps;
        auto *dev = static_cast<DEV_CNTL_N_S *>(std::calloc(1, sizeof(DEV_CNTL_N_S) + n * sizeof(DP_CNTL_S)));
        std::strncpy(dev->dev_if.id, shape.id.c_str(), DEV_ID_LEN);
        dev->dev_if.bind = TRUE;
        dev->dp_num = static_cast<BYTE_T>(n);
        for (int i = 0; i < n; ++i) {
            DP_CNTL_S &dp = dev->dp[i];
            dp.dp_desc.dp_id = static_cast<BYTE_T>(i + 1);
            dp.dp_desc.prop_tp = i < shape.bool_dps ? PROP_BOOL : PROP_VALUE;
            if (dp.dp_desc.prop_tp == PROP_VALUE) {
                dp.prop.prop_value.min = 0;
                dp.prop.prop_value.max = 100000;
                dp.prop.prop_value.step = 1;
            }
        }
        *tail = dev;
        tail = &dev->next;
        ++g_gw.dev_num;
    }
    return true;
}

} // namespace it
