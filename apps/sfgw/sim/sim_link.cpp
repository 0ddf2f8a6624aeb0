#define SF_LOG_MODULE SF_LOG_MODULE_SFGW
#include "sim_link.h"

#include <mosquitto.h>

#include "services/log_front.h"

namespace sfgw {

namespace {

/* libmosquitto wants one library initialisation per process, before any client */
void init_library_once()
{
    static const int done = mosquitto_lib_init();
    (void)done;
}

} // namespace

SimLink::~SimLink() { stop(); }

bool SimLink::start(const apps::MqttSettings &mqtt, const apps::Topics &topics, ControlHandler on_control,
                    std::string *why)
{
    init_library_once();
    topics_ = topics;
    on_control_ = std::move(on_control);
    const std::string client_id = topics.gw + "-sim";
    mosq_ = mosquitto_new(client_id.c_str(), true, this);
    if (mosq_ == nullptr) {
        *why = "cannot create the simulator's MQTT client";
        return false;
    }
    mosquitto_connect_callback_set(mosq_, on_connect);
    mosquitto_message_callback_set(mosq_, on_message);
    if (!mqtt.username.empty()) {
        mosquitto_username_pw_set(mosq_, mqtt.username.c_str(), mqtt.password.c_str());
    }
    if (!mqtt.ca_file.empty()) {
        mosquitto_tls_set(mosq_, mqtt.ca_file.c_str(), nullptr,
                          mqtt.cert_file.empty() ? nullptr : mqtt.cert_file.c_str(),
                          mqtt.key_file.empty() ? nullptr : mqtt.key_file.c_str(), nullptr);
    }
    /* the broker may not be up yet: the session's thread keeps trying, going round the list */
    session_.start(mosq_, apps::brokers_of(mqtt), [](const std::string &from, const std::string &to) {
        SF_LOG_NOTICE("simulator: MQTT broker changed from %s to %s", from.c_str(), to.c_str());
    });
    return true;
}

void SimLink::publish(const std::string &json)
{
    if (mosq_ != nullptr) {
        mosquitto_publish(mosq_, nullptr, topics_.sim_event().c_str(), static_cast<int>(json.size()), json.data(), 1,
                          false);
    }
}

void SimLink::stop()
{
    if (mosq_ == nullptr) {
        return;
    }
    session_.stop();
    mosquitto_destroy(mosq_);
    mosq_ = nullptr;
}

void SimLink::on_connect(mosquitto *mosq, void *self, int rc)
{
    if (rc == 0) {
        mosquitto_subscribe(mosq, nullptr, static_cast<SimLink *>(self)->topics_.sim_ctl().c_str(), 1);
        static_cast<SimLink *>(self)->session_.accepted();
    }
}

void SimLink::on_message(mosquitto *, void *self, const mosquitto_message *msg)
{
    auto *link = static_cast<SimLink *>(self);
    if (link->on_control_ && msg->payloadlen > 0) {
        link->on_control_(std::string(static_cast<const char *>(msg->payload), static_cast<size_t>(msg->payloadlen)));
    }
}

} // namespace sfgw
