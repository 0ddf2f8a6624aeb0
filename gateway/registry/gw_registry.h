/*
 * The gateway registry of the POSIX backend: loading the gateway
 * description, adding and removing devices while running, and the network
 * state. The smart frame sees the registry only through cloud_defs/gw_intf.h;
 * this header is for the applications and the channels around it.
 *
 * Lifetime of device nodes (what lets the smart frame keep using a node
 * after get_dev_cntl released dev_mutex):
 *   - remove_device flags the node dev_delete (a release store), takes it
 *     out of the id index (lookups no longer find it) and unlinks it from
 *     the list; the node's own next pointer is left as it was, so a walk
 *     standing on it goes on.
 *   - the node is freed only by reclaim(), and only once (a) the dispatch
 *     thread has been between jobs since the removal, so no handler, timed
 *     message or application callback running there can still hold it,
 *     however long it takes, and (b) the grace period (default 60 s) has
 *     passed since the removal, which bounds the users on other threads.
 *     add_device and remove_device call reclaim() themselves; a long-running
 *     application that rarely changes devices may call it from a periodic job.
 *   So a caller on the dispatch thread may use a node it looked up until its
 *   job returns; a caller on another thread for one operation of up to the
 *   grace period (a report, a completion), never keep it longer.
 *   The list's next pointers are written with atomic stores, so the walks
 *   that the smart frame makes without dev_mutex see either the old or the
 *   new successor, both alive.
 *
 * Locks: dev_mutex (GW_CNTL_S) guards the list and the DP tables, as the
 * smart frame expects; an internal leaf lock guards the group and scene
 * tables and the DP names. The id index changes only with both held, so
 * the lookups under dev_mutex (get_dev_cntl, get_dev_cntl_unlock) read it
 * without the leaf lock. Loading, adding and removing take dev_mutex, so
 * they MUST NOT be called with dev_mutex held.
 */
#ifndef GATEWAY_REGISTRY_GW_REGISTRY_H
#define GATEWAY_REGISTRY_GW_REGISTRY_H

#include "../../cloud_defs/gw_intf.h"

#ifdef __cplusplus
#include <chrono>
#include <string>

#include "../description/desc_model.h"
#include <utility>
#include <vector>

namespace gw_registry {

/* Why a gateway or device description was refused: file, key path and reason ("file: path: why"). */
using LoadError = gw_desc::LoadError;

/*
 * Load the gateway description (format: docs/gateway-description.md).
 * Replaces nothing: the registry must be empty (never loaded, or unload()ed).
 * false with *error filled (when error is not NULL) on any problem, and
 * then the registry is left as it was.
 */
bool load_file(const std::string &file, LoadError *error);
bool load_text(const std::string &json, const std::string &file_label, LoadError *error);

/*
 * The same from a document parsed by someone else (the apps parse the
 * file once and read their own sections from the same tree): the keys in
 * `others` are left to their reader. Nothing is parsed again.
 */
bool load_document(const cJSON *root, const std::string &file_label, const gw_desc::OtherSections &others,
                   LoadError *error);

/* The same from the model already read (gw_desc::parse_gateway): nothing is read again. */
bool load_layout(const gw_desc::GatewayLayout &layout, const std::string &file_label, LoadError *error);

/* True once a description was loaded (and not unloaded). */
bool loaded();

/*
 * Add one sub-device, described as one element of the "devices" array, at
 * the end of the list. RC_OK; RC_FAIL when nothing is loaded; RC_BAD_PARAM
 * for a description that does not parse or validate, or whose id is taken
 * (*error tells which). Any thread; not with dev_mutex held.
 */
OPERATE_RET add_device(const std::string &device_json, LoadError *error);

/*
 * Remove a sub-device (see the lifetime rule above). RC_OK; RC_DEV_NOT_FOUND;
 * RC_BAD_PARAM for the gateway's own node, which cannot be removed.
 * Any thread; not with dev_mutex held.
 */
OPERATE_RET remove_device(const std::string &id);

/* Free the removed nodes whose grace period is over; returns how many. Any thread. */
size_t reclaim();

/* Grace period before a removed node may be freed (tests shorten it). */
void set_grace_period(std::chrono::milliseconds grace);

/* Removed nodes not freed yet (takes the registry's internal lock: a test that
 * calls it from a walker orders that walker against the frees). */
size_t retired_count();

/* Devices in the list, the gateway's own node included. */
size_t device_count();

/* The local key of the LAN channel, as loaded ("" when none). */
std::string local_key();

/* The name given to DP dpid of device id in the description, "" when unknown. */
std::string dp_name(const std::string &id, BYTE_T dpid);

/* The group ids, and the (scene id, group id) pairs, of a device, in table order. */
std::vector<std::string> groups_of(const std::string &id);
std::vector<std::pair<std::string, std::string>> scenes_of(const std::string &id);

/*
 * Free every node at once and forget the description, for a clean shutdown
 * or between tests. The caller guarantees that nothing uses a node any more
 * (the dispatch thread stopped, no report in progress).
 */
void unload();

} // namespace gw_registry

extern "C" {
#endif /* __cplusplus */

/*
 * Set the gateway's network state: GW_NW_NONE (0) no network, GW_NW_LAN (1)
 * network without cloud, GW_NW_CLOUD (2) cloud connected. The MQTT client
 * calls it as its connection comes and goes; values above 2 are ignored.
 * It starts at GW_NW_LAN: the host is assumed to have a network until told
 * otherwise. Any thread.
 */
void gw_registry_set_nw_status(GW_BASE_NW_STAT_T status);

/* The local key of the LAN channel, NUL-terminated, "" when none; valid until unload. */
const CHAR_T *gw_registry_local_key(void);

/*
 * The loader for C programs: load the gateway description in `file` (see
 * load_file). RC_OK, or RC_BAD_PARAM with `why` (when not NULL and
 * why_len > 0) holding "file: path: reason", cut to why_len - 1 characters.
 * Call it before smart_frame_init; not thread-safe.
 */
OPERATE_RET gw_registry_load_file(const CHAR_T *file, CHAR_T *why, UINT_T why_len);

/* Free the loaded description (see unload): after cmmod_stop, last of all. */
void gw_registry_unload(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* GATEWAY_REGISTRY_GW_REGISTRY_H */
