/*
 * Between the registry's DP tables and the rows of the state file: the
 * writer's copy of changed devices, and the restore at start.
 *
 * Both take dev_mutex themselves and call nothing else while holding it
 * (no SQLite, no log): the copy is the only work done under the lock.
 */
#ifndef PORT_POSIX_STATE_ROWS_H
#define PORT_POSIX_STATE_ROWS_H

#include <unordered_set>
#include <vector>

#include "cloud_defs/kelo_cloud_com_defs.h"
#include "state_db.h"

namespace sf_state {

using Marks = std::unordered_set<const DEV_CNTL_N_S *>;

/*
 * Rows of every object DP of the listed devices that are still in the
 * registry (every device when which is NULL), stamped time_ms. Takes
 * dev_mutex; not with it held.
 */
void copy_rows(const Marks *which, long long time_ms, std::vector<Row> *out);

/* What a restore did, for its log lines and for the simulator. */
struct Restored {
    std::vector<Key> applied;  /* values taken from the file */
    size_t unconfirmed = 0;    /* of them, values the cloud had not confirmed (publish state 1 now) */
    std::vector<Key> changed;  /* DPs whose type or range changed: they keep the description's default */
    std::vector<Key> dropped;  /* rows of devices or DPs no longer described, and the changed ones */
};

/*
 * Apply stored rows to the registry: value and publish state (confirmed
 * stays confirmed, "no value" stays so, anything else comes back as 1 so
 * the DP sync sends it again). Takes dev_mutex; not with it held.
 */
void apply_rows(const std::vector<Row> &rows, Restored *out);

/* The limits of a DP as stored in Row::range. */
std::string range_of(const DP_CNTL_S &dp);

} // namespace sf_state

#endif /* PORT_POSIX_STATE_ROWS_H */
