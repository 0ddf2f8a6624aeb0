/*
 * What the conformance suite needs from a backend beyond the service
 * contracts themselves: a fresh gateway to test against, and a way to let
 * the dispatch thread's work happen. Everything else the suite does through
 * the services/ and cloud_defs/gw_intf.h functions, unchanged for every
 * backend. backend_fakes.cpp and backend_posix.cpp implement it; each is
 * linked into its own executable with the same test sources.
 *
 * Known differences left on purpose, because the module's unit tests are
 * written against the fakes' behaviour and must keep their expectations:
 *   - the gateway's own node: the real registry makes it online, reported
 *     and never timing out, so presence batches and heartbeat passes leave
 *     it alone; the fakes' set_gateway makes it like any sub-device
 *     (offline, pending, no time-out), and the module's presence tests
 *     expect it in the first batch as offline. The suite pins both (see
 *     gateway_node_is_a_plain_device), so neither can change unnoticed.
 *   - the network state: the fakes answer GW_NW_CLOUD until a test sets
 *     another, the real registry starts at GW_NW_LAN until the MQTT client
 *     reports a connection. The contract names no initial state.
 *   - membership updates (dev_update_grp_info, dev_update_scene_info):
 *     the fakes record the call and answer RC_OK (or a result the test
 *     queued) for any id; the real registry answers RC_DEV_NOT_FOUND for a
 *     device it does not have and RC_MEMBERSHIP_FULL for a full table. The
 *     module's group and scene tests address devices the fake registry
 *     does not hold. The suite checks only what both answer alike.
 */
#ifndef SF_CONFORMANCE_BACKEND_H
#define SF_CONFORMANCE_BACKEND_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace conformance {

/* The backend under test, for failure messages: "fakes" or "posix". */
const char *backend_name();

/*
 * A gateway gw_id whose own node carries a bool DP 1, and bound
 * sub-devices with the given ids, each with a bool DP 1 and a bool DP 2,
 * in this order. The registry is empty before.
 */
void load_gateway(const std::string &gw_id, const std::vector<std::string> &sub_ids);

/* True for a backend whose gateway node starts like a sub-device (the fakes; see above). */
bool gateway_node_is_a_plain_device();

/* Forget the gateway and stop what the test started (the dispatch thread). */
void tear_down();

/*
 * Let the backend run its dispatch thread's work until cond holds: the
 * fakes run queued messages and move their virtual clock forward, the real
 * backend waits. False when cond does not hold within limit_ms (virtual
 * milliseconds for the fakes, real ones otherwise).
 */
bool run_until(const std::function<bool()> &cond, uint64_t limit_ms = 10000);

} // namespace conformance

#endif /* SF_CONFORMANCE_BACKEND_H */
