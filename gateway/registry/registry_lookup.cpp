/*
 * The registry as the smart frame calls it (cloud_defs/gw_intf.h): the
 * gateway record, constant-time device lookups through the id index, and
 * the network state.
 */
#include <atomic>

#include "services/uni_mutex.h"
#include "smart_frame/dp_lookup.h" /* the one DP search, shared with the module */
#include "registry_internal.h"
#include "registry_hooks.h"

using gw_registry::detail::Store;

namespace {

std::atomic<GW_BASE_NW_STAT_T> g_nw_status{GW_NW_LAN};

} // namespace

/* Never NULL, loaded or not: before a load it is an empty gateway. */
extern "C" GW_CNTL_S *get_gw_cntl(void)
{
    return &gw_registry::detail::store().gw;
}

namespace {

/* The lookup of both entry points; dev_mutex held. */
DEV_CNTL_N_S *lookup(Store &s, const CHAR_T *id) SF_REQUIRES(s.dev_mutex_name)
{
    DEV_CNTL_N_S *node = gw_registry::detail::find_under_dev_mutex(s, id);
    sf_state_touch(node); /* the module may change its DP table now: the state writer looks at it */
    return node;
}

} // namespace

/*
 * Both lookups hold dev_mutex, which every change of the index holds too,
 * so neither takes the index lock: a report looks its device up twice.
 */
extern "C" DEV_CNTL_N_S *get_dev_cntl(const CHAR_T *id)
{
    Store &s = gw_registry::detail::store();
    sf_sync::HandleHold hold(s.dev_mutex_name, s.gw.dev_mutex);
    return lookup(s, id);
}

/* The caller holds dev_mutex (the contract); the analysis cannot see a lock taken by a C caller. */
extern "C" DEV_CNTL_N_S *get_dev_cntl_unlock(const CHAR_T *id) SF_NO_THREAD_SAFETY_ANALYSIS
{
    return lookup(gw_registry::detail::store(), id);
}

extern "C" DEV_CNTL_N_S *get_gw_dev_cntl(void)
{
    Store &s = gw_registry::detail::store();
    sf_sync::Guard guard(s.index_lock);
    sf_state_touch(s.own_node);
    return s.own_node;
}

/* A NULL id means the gateway's own node, as it does for the report entry points. */
extern "C" DP_CNTL_S *get_dev_dp_cntl(const CHAR_T *id, BYTE_T dpid)
{
    Store &s = gw_registry::detail::store();
    sf_sync::Guard guard(s.index_lock);
    DEV_CNTL_N_S *node = id != nullptr ? gw_registry::detail::find_locked(s, id) : s.own_node;
    return node != nullptr ? __locate_dp_ctl_by_dpid(node, dpid) : nullptr;
}

extern "C" GW_BASE_NW_STAT_T get_gw_nw_status(void)
{
    return g_nw_status.load();
}

extern "C" void gw_registry_set_nw_status(GW_BASE_NW_STAT_T status)
{
    if (status <= GW_NW_CLOUD) {
        g_nw_status.store(status);
    }
}

extern "C" const CHAR_T *gw_registry_local_key(void)
{
    Store &s = gw_registry::detail::store();
    sf_sync::Guard guard(s.index_lock);
    return s.local_key.c_str();
}
