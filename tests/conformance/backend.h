/*
 * What the conformance suite needs from a backend beyond the service
 * contracts themselves: a fresh gateway to test against, a way to let the
 * dispatch thread's work happen, and the cloud connection the MQTT client
 * reports to the registry. Everything else the suite does through
 * the services/ and cloud_defs/gw_intf.h functions, unchanged for every
 * backend. backend_fakes.cpp and backend_posix.cpp implement it; each is
 * linked into its own executable with the same test sources.
 *
 * The fakes start as the real backend starts and answer as it answers: the
 * gateway's own node online, reported and never timing out; the network at
 * GW_NW_LAN until the MQTT client connects; membership updates refused for
 * a device the registry does not hold or a full table. A module test that
 * needs another state sets it in its own setup, through the fakes' knobs,
 * so every case here holds for both backends alike.
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

/*
 * Tell the registry that the MQTT client's connection to the cloud came
 * up (true) or went down (false), as the client itself does: the real
 * backend through the call its MQTT client makes on connect and
 * disconnect, the fakes through their network-state knob.
 */
void set_cloud_connected(bool connected);

/* Forget the gateway and stop what the test started (the dispatch thread, a cloud connection). */
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
