/*
 * The registry's id index: device id to node in constant time.
 *
 * Every report looks its device up at least twice (get_dev_cntl, then
 * get_dev_cntl_unlock in the publish state), so the lookup is kept to a
 * hash of the id text and one compare: open addressing with linear
 * probing, each slot holding the node and the hash of its id, the key
 * being the node's own dev_if.id. Nothing is copied or allocated to look
 * an id up (a map keyed by std::string built a string per lookup, and for
 * small tables compared every key in turn).
 *
 * Not synchronized: the store writes it with both dev_mutex and the index
 * lock held and reads it with either one (registry_internal.h).
 */
#ifndef GATEWAY_REGISTRY_REGISTRY_INDEX_H
#define GATEWAY_REGISTRY_REGISTRY_INDEX_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "cloud_defs/kelo_cloud_com_defs.h"

namespace gw_registry {
namespace detail {

class DeviceIndex {
public:
    /* The node whose dev_if.id equals id exactly, or nullptr (also for a NULL id). */
    DEV_CNTL_N_S *find(const char *id) const;

    /* Index node under its dev_if.id; a node already indexed under that id is replaced. */
    void insert(DEV_CNTL_N_S *node);

    /* Forget node, when it is the one indexed under its id. */
    void erase(const DEV_CNTL_N_S *node);

    void clear();
    size_t size() const { return used_; }

private:
    struct Slot {
        DEV_CNTL_N_S *node; /* nullptr: empty */
        uint32_t hash;
    };

    /* The slot holding id (len characters, len <= DEV_ID_LEN), or the empty slot that ends its probe.
     * slots_ is not empty. */
    size_t probe(const char *id, size_t len, uint32_t hash) const;
    void grow();

    std::vector<Slot> slots_; /* a power of two, at most half full */
    size_t used_ = 0;
};

} // namespace detail
} // namespace gw_registry

#endif /* GATEWAY_REGISTRY_REGISTRY_INDEX_H */
