#define SF_LOG_MODULE SF_LOG_MODULE_SFGW
#include "app_callbacks.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "cloud_defs/gw_intf.h"
#include "port/posix/metrics/metrics.h"
#include "services/log_front.h"

namespace sfgw {

namespace {

std::atomic<Simulator *> g_sim{nullptr};
std::atomic<int> g_trace_fd{-1};

void trace(const std::string &cid, const DpValues &values)
{
    const int fd = g_trace_fd.load();
    if (fd < 0) {
        return;
    }
    std::string line;
    for (const auto &value : values) {
        line += (cid.empty() ? "-" : cid) + " " + std::to_string(value.first) + "=" + value.second + "\n";
    }
    if (::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        SF_LOG_ERR("command trace: write failed: %s", std::strerror(errno));
    }
}
const apps::Description *g_description = nullptr;

/* "" names the gateway itself, as the simulator expects */
std::string cid_of(const CHAR_T *cid)
{
    if (cid == nullptr || g_description == nullptr || g_description->gateway_id == cid) {
        return "";
    }
    return cid;
}

std::string json_of(const apps::DeviceDescription *device, const KL_OBJ_DP_S &dp)
{
    switch (dp.type) {
    case PROP_BOOL: return dp.value.dp_bool ? "true" : "false";
    case PROP_VALUE: return std::to_string(dp.value.dp_value);
    case PROP_BITMAP: return std::to_string(dp.value.dp_bitmap);
    case PROP_STR: return apps::json_quote(dp.value.dp_str != nullptr ? dp.value.dp_str : "");
    case PROP_ENUM: {
        const apps::DpSchema *schema = device != nullptr ? device->schema.find(dp.dpid) : nullptr;
        if (schema != nullptr && dp.value.dp_enum < schema->range.size()) {
            return apps::json_quote(schema->range[dp.value.dp_enum]);
        }
        return "null";
    }
    default: return "null";
    }
}

void on_obj_cmd(const KL_RECV_OBJ_DP_S *cmd)
{
    Simulator *sim = g_sim.load();
    if (sim == nullptr) {
        return;
    }
    const std::string cid = cid_of(cmd->cid);
    const apps::DeviceDescription *device =
        cid.empty() ? &g_description->devices.front() : g_description->find(cid);
    DpValues values;
    for (UINT_T i = 0; i < cmd->dps_cnt; ++i) {
        values.emplace_back(cmd->dps[i].dpid, json_of(device, cmd->dps[i]));
    }
    trace(cid, values);
    sim->command(cid, std::move(values));
}

void on_raw_cmd(const KL_RECV_RAW_DP_S *cmd)
{
    Simulator *sim = g_sim.load();
    if (sim != nullptr) {
        sim->raw_command(cid_of(cmd->cid), cmd->dpid, std::vector<unsigned char>(cmd->data, cmd->data + cmd->len));
    }
}

void on_query(const KL_DP_QUERY_S *query)
{
    Simulator *sim = g_sim.load();
    if (sim != nullptr) {
        sim->query(cid_of(query->cid), std::vector<int>(query->dpid, query->dpid + query->cnt));
    }
}

/*
 * Whether dev_id names a device behind this gateway. A group or scene step
 * for any other id fails with RC_DEV_NOT_FOUND, so the per-device results
 * of the answer tell the cloud which ids took part.
 */
bool known_device(const CHAR_T *dev_id, const char *what)
{
    if (dev_id != nullptr && g_description != nullptr && g_description->find(dev_id) != nullptr) {
        return true;
    }
    SF_LOG_NOTICE("%s: no device %s behind this gateway", what, dev_id != nullptr ? dev_id : "(null)");
    return false;
}

OPERATE_RET on_group(const GRP_ACTION_E action, const CHAR_T *dev_id, const CHAR_T *grp_id)
{
    if (!known_device(dev_id, "group")) {
        return RC_DEV_NOT_FOUND;
    }
    SF_LOG_INFO("%s %s group %s", dev_id, action == GRP_ADD ? "joins" : "leaves", grp_id);
    return RC_OK;
}

OPERATE_RET on_scene(const SCE_ACTION_E action, const CHAR_T *dev_id, const CHAR_T *grp_id, const CHAR_T *sce_id)
{
    if (!known_device(dev_id, "scene")) {
        return RC_DEV_NOT_FOUND;
    }
    SF_LOG_INFO("%s: scene %s of group %s, action %d", dev_id, sce_id, grp_id, action);
    return RC_OK;
}

} // namespace

bool open_command_trace(const std::string &path, std::string *why)
{
    if (path.empty()) {
        return true;
    }
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        *why = "--command-trace: cannot open " + path + ": " + std::strerror(errno);
        return false;
    }
    g_trace_fd = fd;
    return true;
}

void close_command_trace()
{
    const int fd = g_trace_fd.exchange(-1);
    if (fd >= 0) {
        ::close(fd);
    }
}

void install_app_callbacks(Simulator *sim, const apps::Description *description)
{
    g_description = description;
    g_sim.store(sim);
    GW_CNTL_S *gw = get_gw_cntl();
    gw->cbs.dev_obj_dp_cb = on_obj_cmd;
    gw->cbs.dev_raw_dp_cb = on_raw_cmd;
    gw->cbs.dev_dp_query_cb = on_query;
    gw->gw_cbs.gw_dev_grp_cb = on_group;
    gw->gw_cbs.gw_dev_scene_cb = on_scene;
}

void probe_callback(const char *dev_id)
{
    /* runs with the presence lock held: only queue the probe */
    sf_metrics::count(sf_metrics::HeartbeatProbes);
    Simulator *sim = g_sim.load();
    if (sim != nullptr && dev_id != nullptr) {
        sim->probe(dev_id);
    }
}

} // namespace sfgw
