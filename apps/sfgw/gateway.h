/*
 * The life of the gateway process: registry, smart frame, heartbeat
 * supervision, MQTT client, LAN channel, simulator and its control link
 * started in order, and stopped in the order that lets every thread finish
 * what it holds (see stop()).
 */
#ifndef SFGW_GATEWAY_H
#define SFGW_GATEWAY_H

#include <csignal>
#include <memory>
#include <string>

#include "common/description.h"
#include "options.h"
#include "apps/sfgw/sim/sim_link.h"
#include "apps/sfgw/sim/simulator.h"

namespace sfgw {

class Gateway {
public:
    Gateway(const Options &options, const apps::Description &description);
    ~Gateway();

    /*
     * Start everything. The broker is not waited for (the MQTT client keeps
     * trying it) unless a connect time-out is set: then false when it is not
     * reached in time. false with *why when a part cannot start; what was
     * started is stopped again.
     * stop_signals: the signals to watch while waiting (blocked in every thread).
     */
    bool start(const sigset_t &stop_signals, bool *interrupted, std::string *why);

    /* Stop everything that was started. Idempotent. */
    void stop();

    /* Where the LAN channel listens (0 when it is off). */
    int lan_port() const;

    /*
     * SIGHUP: the description's local key as it is now. A changed key is
     * the LAN channel's from now on (connections made with the old one are
     * closed); an empty one is refused and logged. Main thread.
     */
    void reload_local_key(const std::string &local_key);

private:
    bool wait_for_broker(const sigset_t &stop_signals, bool *interrupted, std::string *why);

    const Options &options_;
    const apps::Description &description_;
    apps::MqttSettings mqtt_;
    std::unique_ptr<Simulator> sim_;
    SimLink link_;
    bool registry_loaded_ = false;
    bool frame_started_ = false;
    bool mqtt_started_ = false;
    bool metrics_started_ = false;
    bool lan_started_ = false;
    std::string lan_key_; /* the LAN channel's local key now */
};

} // namespace sfgw

#endif /* SFGW_GATEWAY_H */
