/*
 * One device node as the registry allocates it: a single block holding a
 * small header, the node with its inline DP table, and the buffers of its
 * string DPs. What many devices share is kept once: the table of DP names
 * and the enum name tables are interned (one copy per distinct table,
 * counted by the nodes that use it), and a device without group or scene
 * memberships points at one shared empty record until its first one.
 *
 * Why: a sub-device is a few hundred bytes of state, and a gateway with
 * 100,000 of them must not pay a kilobyte of bookkeeping for each
 * (docs/benchmarks.md, registry heap per sub-device).
 */
#ifndef GATEWAY_REGISTRY_REGISTRY_NODE_H
#define GATEWAY_REGISTRY_REGISTRY_NODE_H

#include <string>
#include <vector>

#include "cloud_defs/kelo_cloud_com_defs.h"

namespace gw_desc {
struct DeviceLayout;
}

namespace gw_registry {
namespace detail {

/* A node built from layout, complete and unlinked; nullptr on exhaustion (nothing is kept then). */
DEV_CNTL_N_S *build_node(const gw_desc::DeviceLayout &layout);

/* Release a node and its share of the interned tables; nothing may use it any more. NULL is ignored. */
void free_node(DEV_CNTL_N_S *node);

/* The node's DP names in DP table order (interned; valid while the node lives). */
const std::vector<std::string> &dp_names_of(const DEV_CNTL_N_S *node);

/*
 * The node's own group (scene) record, made on first use from the shared
 * empty one; nullptr on exhaustion. Caller holds the registry's index lock
 * (the writers of memberships all do).
 */
GRP_MAG_S *own_groups(DEV_CNTL_N_S *node);
SCENE_MAG_S *own_scenes(DEV_CNTL_N_S *node);

} // namespace detail
} // namespace gw_registry

#endif /* GATEWAY_REGISTRY_REGISTRY_NODE_H */
