/*
 * The simulator's own MQTT connection: it takes control documents from
 * <root>/<gw>/sim/ctl and publishes the simulator's events on
 * <root>/<gw>/sim/event. Separate from the gateway's client on purpose:
 * it stands for the radio to the sub-devices, not for the gateway.
 * It follows the gateway's broker list (common/broker_session.h).
 */
#ifndef SFGW_SIM_LINK_H
#define SFGW_SIM_LINK_H

#include <functional>
#include <string>

#include "common/broker_session.h"
#include "common/description.h"
#include "common/topics.h"

struct mosquitto;
struct mosquitto_message;

namespace sfgw {

class SimLink {
public:
    using ControlHandler = std::function<void(const std::string &payload)>;

    SimLink() = default;
    ~SimLink();
    SimLink(const SimLink &) = delete;
    SimLink &operator=(const SimLink &) = delete;

    /* Start connecting in the background; false with *why when libmosquitto cannot be set up. */
    bool start(const apps::MqttSettings &mqtt, const apps::Topics &topics, ControlHandler on_control, std::string *why);
    /* Publish one event (QoS 1); dropped while the broker is away. Any thread. */
    void publish(const std::string &json);
    /* Disconnect and join the thread. Idempotent. */
    void stop();

private:
    static void on_connect(mosquitto *mosq, void *self, int rc);
    static void on_message(mosquitto *mosq, void *self, const mosquitto_message *msg);

    mosquitto *mosq_ = nullptr;
    apps::BrokerSession session_;
    apps::Topics topics_;
    ControlHandler on_control_;
};

} // namespace sfgw

#endif /* SFGW_SIM_LINK_H */
