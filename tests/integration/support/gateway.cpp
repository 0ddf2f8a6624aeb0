#include "gateway.h"

#include <condition_variable>
#include <mutex>
#include <thread>

#include "gateway_loader.h"
#include "port/posix/runtime/posix_runtime.h"
#include "services/uni_mutex.h"
#include "smart_frame/smart_frame.h"

namespace it {

namespace {

std::mutex g_mutex;
std::condition_variable g_changed;
std::vector<ObjCmd> g_obj_cmds;

std::vector<std::string> g_app_calls;
std::function<void(const std::string &)> g_query_hook;
std::function<void(const ObjCmd &)> g_obj_cmd_hook;

void record_app_call(const std::string &call)
{
    std::lock_guard<std::mutex> hold(g_mutex);
    g_app_calls.push_back(call);
    g_changed.notify_all();
}

OPERATE_RET record_group(const GRP_ACTION_E action, const CHAR_T *dev_id, const CHAR_T *grp_id)
{
    record_app_call("group " + std::to_string(action) + " " + dev_id + " " + grp_id);
    return RC_OK;
}

OPERATE_RET record_scene(const SCE_ACTION_E action, const CHAR_T *dev_id, const CHAR_T *grp_id, const CHAR_T *sce_id)
{
    record_app_call("scene " + std::to_string(action) + " " + dev_id + " " + grp_id + " " + sce_id);
    return RC_OK;
}

void record_query(const KL_DP_QUERY_S *query)
{
    std::string call = std::string("query ") + (query->cid != nullptr ? query->cid : "(null)");
    for (UINT_T i = 0; i < query->cnt; ++i) {
        call += " " + std::to_string(query->dpid[i]);
    }
    std::function<void(const std::string &)> hook;
    {
        std::lock_guard<std::mutex> hold(g_mutex);
        hook = g_query_hook;
    }
    if (hook) {
        hook(query->cid != nullptr ? query->cid : "");
    }
    record_app_call(call);
}

void record_raw_cmd(const KL_RECV_RAW_DP_S *cmd)
{
    record_app_call(std::string("raw ") + (cmd->cid != nullptr ? cmd->cid : "(null)") + " " +
                    std::to_string(cmd->dpid) + " " + std::to_string(cmd->len));
}

void record_obj_cmd(const KL_RECV_OBJ_DP_S *cmd)
{
    ObjCmd copy;
    copy.cmd_tp = cmd->cmd_tp;
    copy.dtt_tp = cmd->dtt_tp;
    copy.cid = cmd->cid != nullptr ? cmd->cid : "";
    for (UINT_T i = 0; i < cmd->dps_cnt; ++i) {
        const KL_OBJ_DP_S &dp = cmd->dps[i];
        ObjCmd::Dp one{dp.dpid, dp.type, 0, ""};
        switch (dp.type) {
        case PROP_BOOL: one.number = dp.value.dp_bool; break;
        case PROP_VALUE: one.number = dp.value.dp_value; break;
        case PROP_ENUM: one.number = dp.value.dp_enum; break;
        case PROP_BITMAP: one.number = dp.value.dp_bitmap; break;
        case PROP_STR: one.text = dp.value.dp_str != nullptr ? dp.value.dp_str : ""; break;
        default: break;
        }
        copy.dps.push_back(one);
    }
    std::function<void(const ObjCmd &)> hook;
    {
        std::lock_guard<std::mutex> hold(g_mutex);
        hook = g_obj_cmd_hook;
    }
    if (hook) {
        hook(copy);
    }
    std::lock_guard<std::mutex> hold(g_mutex);
    g_obj_cmds.push_back(copy);
    g_changed.notify_all();
}

it::GatewayDescription description(const std::vector<DeviceShape> &subs)
{
    GatewayDescription gw;
    gw.gw_id = GW_ID;
    gw.local_key = LOCAL_KEY;
    gw.devices.push_back(DeviceShape{GW_ID, 1, 1});
    for (const DeviceShape &sub : subs) {
        gw.devices.push_back(sub);
    }
    return gw;
}

} // namespace

bool start_gateway(const std::vector<DeviceShape> &subs, std::string *why)
{
    if (!load_gateway(description(subs), why)) {
        return false;
    }
    get_gw_cntl()->cbs.dev_obj_dp_cb = record_obj_cmd;
    get_gw_cntl()->cbs.dev_dp_query_cb = record_query;
    get_gw_cntl()->cbs.dev_raw_dp_cb = record_raw_cmd;
    get_gw_cntl()->gw_cbs.gw_dev_grp_cb = record_group;
    get_gw_cntl()->gw_cbs.gw_dev_scene_cb = record_scene;
    const OPERATE_RET rc = smart_frame_init();
    if (rc != RC_OK) {
        *why = "smart_frame_init failed " + std::to_string(rc);
        return false;
    }
    return true;
}

void stop_gateway() { cmmod_stop(); }

int pv_stat(const char *dev_id, int dpid)
{
    GW_CNTL_S *gw = get_gw_cntl();
    DP_CNTL_S *dp = get_dev_dp_cntl(dev_id, static_cast<BYTE_T>(dpid));
    if (dp == nullptr) {
        return -1;
    }
    MutexLock(gw->dev_mutex);
    const int stat = dp->pv_stat;
    MutexUnLock(gw->dev_mutex);
    return stat;
}

bool wait_obj_cmds(const std::function<bool(const std::vector<ObjCmd> &)> &pred, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> hold(g_mutex);
    return g_changed.wait_for(hold, timeout, [&] { return pred(g_obj_cmds); });
}

std::vector<ObjCmd> obj_cmds()
{
    std::lock_guard<std::mutex> hold(g_mutex);
    return g_obj_cmds;
}

std::vector<std::string> app_calls()
{
    std::lock_guard<std::mutex> hold(g_mutex);
    return g_app_calls;
}

bool wait_app_calls(size_t count, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> hold(g_mutex);
    return g_changed.wait_for(hold, timeout, [&] { return g_app_calls.size() >= count; });
}

void set_query_hook(std::function<void(const std::string &cid)> hook)
{
    std::lock_guard<std::mutex> hold(g_mutex);
    g_query_hook = std::move(hook);
}

void set_obj_cmd_hook(std::function<void(const ObjCmd &cmd)> hook)
{
    std::lock_guard<std::mutex> hold(g_mutex);
    g_obj_cmd_hook = std::move(hook);
}

bool eventually(const std::function<bool()> &cond, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (cond()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

} // namespace it
