/*
 * Inside the gateway registry: the checked description of devices and
 * DPs (made by the loader, turned into nodes by the store) and the store's
 * shared state.
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

#include "gateway/sync/annotated_lock.h"
#include "gw_registry.h"
#include "gateway/gateway_tunables.h"
#include "registry_index.h"

namespace gw_registry {
namespace detail {

/* One DP as described: schema, limits and flow control ready to copy into a DP_CNTL_S. */
struct DpLayout {
    DP_DESC_IF_S desc{};
    DP_PROP_VALUE_U limits{}; /* value fields zero; the store adds string buffers and enum names */
    DP_REPT_CNTL_S flow{};
    std::string name;
    std::vector<std::string> enum_names;
};

struct DeviceLayout {
    std::string id;
    std::string sw_ver;
    std::string schema_id;
    std::string product_key;
    bool bind = true;
    bool preprocess = false;
    std::vector<DpLayout> dps;
};

struct GatewayLayout {
    std::string id;
    std::string local_key;
    DeviceLayout own; /* the gateway's own node: its id, DPs and versions */
    std::vector<DeviceLayout> devices;
};

/* Where a value sits in the document, for error texts. */
struct Where {
    const std::string &file;
    std::string path;
};

/* Parse and check a whole description; false with *error filled. */
bool parse_gateway(const cJSON *root, const std::string &file, GatewayLayout *out, LoadError *error);

/* Parse and check one device object found at `where`. */
bool parse_device(const cJSON *node, const Where &where, DeviceLayout *out, LoadError *error);

/* Whether an id can be written into JSON as it is: no quote, backslash or control character. */
bool id_fits_json(const std::string &id);

/* The id in quotes, as a JSON string, for error texts (it may hold what id_fits_json refuses). */
std::string quoted_id(const std::string &id);

/* Fill *error (when given) and return false, for one-line refusals. */
bool fail(LoadError *error, const std::string &file, const std::string &path, const std::string &why);

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
