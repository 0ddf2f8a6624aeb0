/*
 * The application callbacks the smart frame calls (KL_IOT_CBS_S and
 * KL_IOT_GW_CBS_S), turned into work for the simulator. They run on the
 * dispatch thread, the MQTT or LAN thread, and the heartbeat probe with
 * the presence lock held: each copies what it needs and queues it.
 */
#ifndef SFGW_APP_CALLBACKS_H
#define SFGW_APP_CALLBACKS_H

#include "common/description.h"
#include "apps/sfgw/sim/simulator.h"

namespace sfgw {

/* Route the callbacks of the loaded registry to sim (which must outlive the gateway's threads). */
void install_app_callbacks(Simulator *sim, const apps::Description *description);

/*
 * Append every DP command the smart frame hands to the application to
 * path, one line "<device> <dp>=<json value>" written with one write(2)
 * before the callback returns, so it survives a kill -9 (tests observe
 * delivery by it). Empty path: none. false (with *why) when path cannot
 * be opened. Before install_app_callbacks.
 */
bool open_command_trace(const std::string &path, std::string *why);
void close_command_trace();

/* The probe callback for sf_sys_mag_hb_init. */
void probe_callback(const char *dev_id);

} // namespace sfgw

#endif /* SFGW_APP_CALLBACKS_H */
