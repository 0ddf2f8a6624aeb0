/*
 * In-memory gateway registry with a builder. Nodes and their DP tables
 * are allocated outside Malloc: they are the registry's, not the module's,
 * and must not show up in the module's leak check.
 */
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <strings.h>

#include "fake_internal.h"

namespace {

struct RegistryState {
    GW_CNTL_S gw{};
    bool has_gw = false;
    DEV_CNTL_N_S *gw_node = nullptr;
    std::vector<DEV_CNTL_N_S *> nodes;
    GW_BASE_NW_STAT_T nw = GW_NW_LAN;
    std::deque<GW_BASE_NW_STAT_T> nw_once;
    int nw_calls = 0;
    int dev_calls = 0;
    std::vector<fake::registry::GrpUpdate> grp_updates;
    std::vector<fake::registry::SceneUpdate> scene_updates;
    std::deque<OPERATE_RET> grp_results;
    std::deque<OPERATE_RET> scene_results;
    std::function<void(const CHAR_T *)> lookup_hook;
};

RegistryState &state()
{
    static RegistryState &s = *new RegistryState(); // never destroyed: what it points at stays reachable at exit
    return s;
}

char *copy_text(const std::string &text)
{
    char *copy = static_cast<char *>(std::calloc(text.size() + 1, 1));
    std::memcpy(copy, text.data(), text.size());
    return copy;
}

DEV_CNTL_N_S *make_node(const std::string &id, const std::vector<fake::registry::DpSpec> &dps, bool bind)
{
    DEV_CNTL_N_S *node =
        static_cast<DEV_CNTL_N_S *>(std::calloc(1, sizeof(DEV_CNTL_N_S) + dps.size() * sizeof(DP_CNTL_S)));
    std::strncpy(node->dev_if.id, id.c_str(), DEV_ID_LEN);
    node->dev_if.bind = bind ? TRUE : FALSE;
    node->attr.grp = static_cast<GRP_MAG_S *>(std::calloc(1, sizeof(GRP_MAG_S)));
    node->attr.scene = static_cast<SCENE_MAG_S *>(std::calloc(1, sizeof(SCENE_MAG_S)));
    node->dp_num = static_cast<BYTE_T>(dps.size());
    for (size_t i = 0; i < dps.size(); ++i) {
        const fake::registry::DpSpec &spec = dps[i];
        DP_CNTL_S &dp = node->dp[i];
        dp.dp_desc = spec.desc;
        dp.prop = spec.prop;
        dp.rept_cntl = spec.rept;
        dp.pv_stat = PV_STAT_INVALID;
        if (spec.desc.prop_tp == PROP_STR && spec.desc.type == DP_TYPE_OBJ) {
            dp.prop.prop_str.value =
                spec.str_buffer ? static_cast<CHAR_T *>(std::calloc(spec.prop.prop_str.max_len + 1, 1)) : nullptr;
        }
        if (spec.desc.prop_tp == PROP_ENUM && spec.desc.type == DP_TYPE_OBJ) {
            CHAR_T **names = static_cast<CHAR_T **>(std::calloc(spec.enum_names.size() + 1, sizeof(CHAR_T *)));
            for (size_t n = 0; n < spec.enum_names.size(); ++n) {
                names[n] = copy_text(spec.enum_names[n]);
            }
            dp.prop.prop_enum.pp_enum = names;
            dp.prop.prop_enum.cnt = static_cast<INT_T>(spec.enum_names.size());
        }
    }
    return node;
}

/*
 * The gateway's own node is no sub-device: like the real registry, it
 * starts online and reported and never times out, so presence batches and
 * heartbeat passes leave it alone.
 */
void mark_as_gateway(DEV_CNTL_N_S *node)
{
    node->attr.stat = DOS_ONLINE;
    node->attr.dosm = DOSM_REPORTED;
    node->attr.hb_timeout_time = 0xFFFFFFFFu;
}

void relink()
{
    RegistryState &s = state();
    DEV_CNTL_N_S *head = nullptr;
    for (auto it = s.nodes.rbegin(); it != s.nodes.rend(); ++it) {
        (*it)->next = head;
        head = *it;
    }
    s.gw.dev = head;
    s.gw.dev_num = static_cast<UINT_T>(s.nodes.size());
}

DEV_CNTL_N_S *lookup(const CHAR_T *id)
{
    if (id == nullptr) {
        return nullptr;
    }
    for (DEV_CNTL_N_S *node = state().gw.dev; node != nullptr; node = node->next) {
        if (std::strcmp(node->dev_if.id, id) == 0) {
            return node;
        }
    }
    return nullptr;
}

/* A group or scene id of 1 to max_len characters. */
bool fits(const CHAR_T *id, size_t max_len)
{
    return id != nullptr && id[0] != '\0' && std::strlen(id) <= max_len;
}

/*
 * How a membership update is answered: by the oldest result the test
 * queued, if any, in place of the registry's own work; otherwise as the
 * real registry answers, RC_BAD_PARAM for arguments it refuses (valid
 * false), RC_DEV_NOT_FOUND for a device it does not hold, else what
 * update makes of the device's node.
 */
template <typename Update>
OPERATE_RET answer_update(std::deque<OPERATE_RET> &queued, bool valid, const CHAR_T *dev_id, Update update)
{
    if (!queued.empty()) {
        const OPERATE_RET code = queued.front();
        queued.pop_front();
        return code;
    }
    if (!valid) {
        return RC_BAD_PARAM;
    }
    DEV_CNTL_N_S *node = lookup(dev_id);
    return node != nullptr ? update(node) : RC_DEV_NOT_FOUND;
}

/*
 * One group or scene table as the real registry keeps it: an addition of
 * a member already there and a removal of one that is not both succeed,
 * so a repeated command answers as the first did; a full table refuses an
 * addition with RC_MEMBERSHIP_FULL; a removal closes the gap.
 */
template <typename Record, typename Same>
OPERATE_RET update_members(Record (&records)[GRP_SCENE_MAX], BYTE_T &cnt, bool add, const Record &member, Same same)
{
    Record *const end = records + cnt;
    Record *const at = std::find_if(records, end, [&](const Record &record) { return same(record, member); });
    if (!add) {
        if (at != end) {
            std::copy(at + 1, end, at);
            records[--cnt] = Record{};
        }
        return RC_OK;
    }
    if (at != end) {
        return RC_OK;
    }
    if (cnt >= GRP_SCENE_MAX) {
        return RC_MEMBERSHIP_FULL;
    }
    records[cnt++] = member;
    return RC_OK;
}

fake::registry::DpSpec obj_dp(BYTE_T id, DP_PROP_TP_E prop_tp)
{
    fake::registry::DpSpec spec;
    spec.desc.dp_id = id;
    spec.desc.type = DP_TYPE_OBJ;
    spec.desc.prop_tp = prop_tp;
    return spec;
}

} // namespace

extern "C" GW_CNTL_S *get_gw_cntl(void)
{
    return &state().gw;
}

extern "C" DEV_CNTL_N_S *get_dev_cntl(const CHAR_T *id)
{
    fake::contract::check_dev_mutex_not_held("get_dev_cntl");
    if (state().lookup_hook) {
        std::function<void(const CHAR_T *)> hook = std::move(state().lookup_hook);
        state().lookup_hook = nullptr;
        hook(id);
    }
    MutexLock(state().gw.dev_mutex);
    ++state().dev_calls; /* under the lock: application threads look devices up concurrently */
    DEV_CNTL_N_S *node = lookup(id);
    MutexUnLock(state().gw.dev_mutex);
    return node;
}

extern "C" DEV_CNTL_N_S *get_dev_cntl_unlock(const CHAR_T *id)
{
    return lookup(id);
}

extern "C" DEV_CNTL_N_S *get_gw_dev_cntl(void)
{
    return state().gw_node;
}

extern "C" DP_CNTL_S *get_dev_dp_cntl(const CHAR_T *id, BYTE_T dpid)
{
    DEV_CNTL_N_S *node = lookup(id);
    if (node == nullptr) {
        return nullptr;
    }
    for (BYTE_T i = 0; i < node->dp_num; ++i) {
        if (node->dp[i].dp_desc.dp_id == dpid) {
            return &node->dp[i];
        }
    }
    return nullptr;
}

extern "C" GW_BASE_NW_STAT_T get_gw_nw_status(void)
{
    ++state().nw_calls;
    if (!state().nw_once.empty()) {
        const GW_BASE_NW_STAT_T status = state().nw_once.front();
        state().nw_once.pop_front();
        return status;
    }
    return state().nw;
}

extern "C" OPERATE_RET dev_update_grp_info(GRP_ACTION_E action, const CHAR_T *dev_id, const CHAR_T *grp_id)
{
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    state().grp_updates.push_back({action, dev_id != nullptr ? dev_id : "", grp_id != nullptr ? grp_id : ""});
    const bool valid = (action == GRP_ADD || action == GRP_DEL) && dev_id != nullptr && fits(grp_id, GRP_ID_LEN);
    return answer_update(state().grp_results, valid, dev_id, [action, grp_id](DEV_CNTL_N_S *node) {
        GRP_REC_S member{};
        std::strncpy(member.gid, grp_id, GRP_ID_LEN);
        return update_members(node->attr.grp->g_rec, node->attr.grp->cnt, action == GRP_ADD, member,
                              [](const GRP_REC_S &a, const GRP_REC_S &b) { return std::strcmp(a.gid, b.gid) == 0; });
    });
}

extern "C" OPERATE_RET dev_update_scene_info(SCE_ACTION_E action, const CHAR_T *dev_id, const CHAR_T *grp_id,
                                             const CHAR_T *sce_id)
{
    std::lock_guard<std::recursive_mutex> guard(fake::detail::records_lock());
    state().scene_updates.push_back({action, dev_id != nullptr ? dev_id : "", grp_id != nullptr ? grp_id : "",
                                     sce_id != nullptr ? sce_id : ""});
    const bool valid = (action == SCE_ADD || action == SCE_DEL) && dev_id != nullptr && fits(grp_id, GRP_ID_LEN) &&
                       fits(sce_id, SCENE_ID_LEN);
    return answer_update(state().scene_results, valid, dev_id, [action, grp_id, sce_id](DEV_CNTL_N_S *node) {
        SCENE_REC_S member{};
        std::strncpy(member.s_id, sce_id, SCENE_ID_LEN);
        std::strncpy(member.g_id, grp_id, GRP_ID_LEN);
        return update_members(node->attr.scene->s_rec, node->attr.scene->cnt, action == SCE_ADD, member,
                              [](const SCENE_REC_S &a, const SCENE_REC_S &b) {
                                  return std::strcmp(a.s_id, b.s_id) == 0 && std::strcmp(a.g_id, b.g_id) == 0;
                              });
    });
}

namespace fake {
namespace registry {

DpSpec dp_bool(BYTE_T id)
{
    return obj_dp(id, PROP_BOOL);
}

DpSpec dp_value(BYTE_T id, INT_T min, INT_T max)
{
    DpSpec spec = obj_dp(id, PROP_VALUE);
    spec.prop.prop_value.min = min;
    spec.prop.prop_value.max = max;
    spec.prop.prop_value.step = 1;
    return spec;
}

DpSpec dp_str(BYTE_T id, INT_T max_len)
{
    DpSpec spec = obj_dp(id, PROP_STR);
    spec.prop.prop_str.max_len = max_len;
    return spec;
}

DpSpec dp_enum(BYTE_T id, std::vector<std::string> names)
{
    DpSpec spec = obj_dp(id, PROP_ENUM);
    spec.enum_names = std::move(names);
    return spec;
}

DpSpec dp_bitmap(BYTE_T id, UINT_T max_len)
{
    DpSpec spec = obj_dp(id, PROP_BITMAP);
    spec.prop.prop_bitmap.max_len = max_len;
    return spec;
}

DpSpec dp_raw(BYTE_T id)
{
    DpSpec spec = obj_dp(id, PROP_BOOL);
    spec.desc.type = DP_TYPE_RAW;
    return spec;
}

DpSpec dp_file(BYTE_T id)
{
    DpSpec spec = obj_dp(id, PROP_BOOL);
    spec.desc.type = DP_TYPE_FILE;
    return spec;
}

DEV_CNTL_N_S *set_gateway(const std::string &gw_id, const std::vector<DpSpec> &dps, bool own_node)
{
    RegistryState &s = state();
    std::memset(&s.gw, 0, sizeof(s.gw));
    std::strncpy(s.gw.gw_if.id, gw_id.c_str(), DEV_ID_LEN);
    s.gw.dev_mutex = mutex::make("dev_mutex");
    detail::set_dev_mutex(s.gw.dev_mutex);
    s.has_gw = true;
    for (DEV_CNTL_N_S *node : s.nodes) {
        detail::keep_reachable(node); /* a gateway set again replaces the whole list */
    }
    s.nodes.clear();
    s.gw_node = nullptr;
    if (own_node) {
        s.gw_node = make_node(gw_id, dps, true);
        mark_as_gateway(s.gw_node);
        s.nodes.push_back(s.gw_node);
    }
    relink();
    return s.gw_node;
}

DEV_CNTL_N_S *gateway_node_as_sub_device()
{
    DEV_CNTL_N_S *node = state().gw_node;
    if (node == nullptr) {
        return nullptr; /* a gateway set without its own node */
    }
    node->attr.stat = DOS_OFFLINE;
    node->attr.dosm = DOSM_PENDING;
    node->attr.hb_timeout_time = 0;
    return node;
}

DEV_CNTL_N_S *add_device(const std::string &id, const std::vector<DpSpec> &dps, bool bind)
{
    DEV_CNTL_N_S *node = make_node(id, dps, bind);
    state().nodes.push_back(node);
    relink();
    return node;
}

void add_devices(const std::vector<std::string> &ids)
{
    for (const std::string &id : ids) {
        add_device(id, {});
    }
}

DEV_CNTL_N_S *device(const std::string &id)
{
    return lookup(id.c_str());
}

DP_CNTL_S *dp(const std::string &dev_id, BYTE_T dpid)
{
    return get_dev_dp_cntl(dev_id.c_str(), dpid);
}

GW_CNTL_S *gw()
{
    return &state().gw;
}

void push_nw_status(GW_BASE_NW_STAT_T status)
{
    state().nw_once.push_back(status);
}

void set_nw_status(GW_BASE_NW_STAT_T status)
{
    state().nw = status;
}

int nw_status_calls()
{
    return state().nw_calls;
}

int get_dev_cntl_calls()
{
    return state().dev_calls;
}

void on_next_lookup(std::function<void(const CHAR_T *id)> hook)
{
    state().lookup_hook = std::move(hook);
}

const std::vector<GrpUpdate> &grp_updates()
{
    return state().grp_updates;
}

const std::vector<SceneUpdate> &scene_updates()
{
    return state().scene_updates;
}

void push_grp_result(OPERATE_RET code)
{
    state().grp_results.push_back(code);
}

void push_scene_result(OPERATE_RET code)
{
    state().scene_results.push_back(code);
}

} // namespace registry

namespace detail {
void reset_registry()
{
    /* nodes of an earlier scenario are kept: the module may still point at them */
    for (DEV_CNTL_N_S *node : state().nodes) {
        keep_reachable(node);
    }
    state() = RegistryState();
}

void forget_registry_history()
{
    std::lock_guard<std::recursive_mutex> guard(records_lock());
    state().grp_updates.clear();
    state().scene_updates.clear();
}
} // namespace detail
} // namespace fake
