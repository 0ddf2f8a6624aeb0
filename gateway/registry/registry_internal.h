/*
 * Inside the gateway registry: the store's shared state. The checked
 * description of devices and DPs it builds its nodes from is the model of
 * gateway/description.
 */
#ifndef GATEWAY_REGISTRY_REGISTRY_INTERNAL_H
#define GATEWAY_REGISTRY_REGISTRY_INTERNAL_H

#include <cjson/cJSON.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "gateway/description/desc_model.h"
#include "gateway/sync/annotated_lock.h"
#include "gw_registry.h"
#include "gateway/gateway_tunables.h"
#include "registry_index.h"

namespace gw_registry {
namespace detail {

using gw_desc::DeviceLayout;
using gw_desc::DpLayout;
using gw_desc::GatewayLayout;
using gw_desc::fail;

/* The store: everything behind get_gw_cntl and the lookups. */
struct Retired {
    DEV_CNTL_N_S *node;
    std::chrono::steady_clock::time_point since;
    uint64_t epoch; /* removal number: freed only once the dispatch thread has passed it */
};

struct Store {
    GW_CNTL_S gw{};
    /* gw.dev_mutex as the analysis knows it */
    sf_sync::LockName dev_mutex_name;
    /* a leaf lock: nothing is called while it is held */
    sf_sync::Mutex index_lock;
    /*
     * Written only with dev_mutex and index_lock both held (every mutation
     * takes both), so holding either one is enough to read it: lookups made
     * under dev_mutex (get_dev_cntl, get_dev_cntl_unlock) skip index_lock.
     * The analysis knows one guard per member; find_under_dev_mutex is the
     * read under the other.
     */
    DeviceIndex index SF_GUARDED_BY(index_lock);
    std::deque<Retired> retired SF_GUARDED_BY(index_lock);
    DEV_CNTL_N_S *own_node SF_GUARDED_BY(index_lock) = nullptr;
    DEV_CNTL_N_S *tail SF_GUARDED_BY(dev_mutex_name) = nullptr; /* last node of the list */
    std::string local_key SF_GUARDED_BY(index_lock);
    bool loaded SF_GUARDED_BY(index_lock) = false;
    std::chrono::milliseconds grace SF_GUARDED_BY(index_lock){SF_REGISTRY_RETIRE_GRACE_MS};
    /* removals so far, and the last one the dispatch thread is known to have finished every job since */
    uint64_t retire_epoch SF_GUARDED_BY(index_lock) = 0;
    uint64_t dispatch_passed SF_GUARDED_BY(index_lock) = 0;
};

/* The one store, its dev_mutex created on first use; never destroyed. */
Store &store();

/* Nodes are built and freed by registry_node.h. */

/* Have the dispatch thread report when it is next between jobs (registry_reclaim.cpp). No lock held. */
void watch_dispatch();

/* The node with this id, or nullptr. */
DEV_CNTL_N_S *find_locked(Store &s, const char *id) SF_REQUIRES(s.index_lock);

/* The same lookup for a caller holding dev_mutex instead (see Store::index). */
DEV_CNTL_N_S *find_under_dev_mutex(Store &s, const char *id) SF_REQUIRES(s.dev_mutex_name);

} // namespace detail
} // namespace gw_registry

#endif /* GATEWAY_REGISTRY_REGISTRY_INTERNAL_H */
