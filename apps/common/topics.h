/*
 * MQTT topics of one gateway (docs/wire-protocol.md), and the two topics of
 * the device simulator that the gateway daemon runs beside the gateway:
 * <root>/<gw>/sim/ctl (console -> simulator: make a device silent or wake
 * it) and <root>/<gw>/sim/event (simulator -> console: acknowledgements
 * and what the simulated devices saw, such as heartbeat probes). The
 * simulator's topics stand for the radio between the gateway and its
 * sub-devices; a real gateway has no such topics.
 */
#ifndef APPS_COMMON_TOPICS_H
#define APPS_COMMON_TOPICS_H

#include <string>

namespace apps {

struct Topics {
    std::string root;
    std::string gw;

    std::string base() const { return root + "/" + gw; }
    std::string up() const { return base() + "/up"; }
    std::string status() const { return base() + "/status"; }
    std::string cmd(const std::string &kind) const { return base() + "/cmd/" + kind; }
    std::string sim_ctl() const { return base() + "/sim/ctl"; }
    std::string sim_event() const { return base() + "/sim/event"; }
};

} // namespace apps

#endif /* APPS_COMMON_TOPICS_H */
