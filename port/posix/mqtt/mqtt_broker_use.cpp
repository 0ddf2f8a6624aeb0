/*
 * The MQTT client's broker list at work: built from the settings, its
 * current broker's address and credentials taken before each connect, and
 * a change of broker logged and counted (mqtt_brokers.h).
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include <mosquitto.h>

#include <vector>

#include "mqtt_client_state.h"
#include "port/posix/metrics/metrics.h"
#include "services/log_front.h"

namespace sf_mqtt {

namespace {

std::string text_or(const CHAR_T *text, const std::string &shared)
{
    return text != nullptr && text[0] != '\0' ? std::string(text) : shared;
}

/* client's own fields hold the shared settings when this runs. */
Broker broker_of(const Client *client, const MQC_BROKER_S &in)
{
    Broker b;
    b.host = text_or(in.host, "");
    b.username = text_or(in.username, client->username);
    b.password = text_or(in.password, client->password);
    b.ca_file = text_or(in.ca_file, client->ca_file);
    b.cert_file = text_or(in.cert_file, client->cert_file);
    b.key_file = text_or(in.key_file, client->key_file);
    b.port = in.port > 0 ? in.port : (b.ca_file.empty() ? 1883 : 8883);
    return b;
}

void take_settings(Client *client, const Broker &b)
{
    client->host = b.host;
    client->port = b.port;
    client->username = b.username;
    client->password = b.password;
    client->ca_file = b.ca_file;
    client->cert_file = b.cert_file;
    client->key_file = b.key_file;
}

} // namespace

bool configure_brokers(Client *client, const MQC_CONFIG_S *cfg)
{
    std::vector<Broker> brokers;
    if (cfg->brokers == nullptr || cfg->broker_count == 0) {
        Broker single;
        single.host = client->host;
        single.port = client->port;
        single.username = client->username;
        single.password = client->password;
        single.ca_file = client->ca_file;
        single.cert_file = client->cert_file;
        single.key_file = client->key_file;
        brokers.push_back(single);
    }
    for (UINT_T i = 0; cfg->brokers != nullptr && i < cfg->broker_count; ++i) {
        Broker b = broker_of(client, cfg->brokers[i]);
        if (b.host.empty()) {
            SF_LOG_ERR("MQTT broker %u of the list has no host", i + 1);
            return false;
        }
        if (b.port > 65535) {
            SF_LOG_ERR("MQTT broker %s: port %d out of range", b.host.c_str(), b.port);
            return false;
        }
        // libmosquitto can switch TLS on for a connect, never off again.
        if (!brokers.empty() && brokers[0].ca_file.empty() != b.ca_file.empty()) {
            SF_LOG_ERR("MQTT broker %s: TLS must be on for every broker of the list or for none", b.name().c_str());
            return false;
        }
        brokers.push_back(b);
    }
    take_settings(client, brokers[0]);
    client->brokers = std::make_unique<BrokerList>(std::move(brokers), client->reconnect_min_s, client->reconnect_max_s);
    client->applied_broker = 0;
    sf_metrics::mqtt_broker_in_use(client->brokers->current().name());
    return true;
}

bool use_broker(Client *client)
{
    const size_t index = client->brokers->index();
    if (index == client->applied_broker) {
        return true;
    }
    const Broker &b = client->brokers->current();
    take_settings(client, b);
    client->applied_broker = index;
    int rc = mosquitto_username_pw_set(client->mosq, c_or_null(b.username), c_or_null(b.password));
    if (rc == MOSQ_ERR_SUCCESS && !b.ca_file.empty()) {
        rc = mosquitto_tls_set(client->mosq, b.ca_file.c_str(), nullptr, c_or_null(b.cert_file), c_or_null(b.key_file),
                               nullptr);
    }
    if (rc != MOSQ_ERR_SUCCESS) {
        SF_LOG_ERR("MQTT broker %s: its credentials cannot be used: %s", b.name().c_str(), mosquitto_strerror(rc));
        return false;
    }
    return true;
}

void broker_accepted(Client *client)
{
    const Broker *before = client->brokers->in_use();
    const std::string previous = before != nullptr ? before->name() : std::string();
    const std::string name = client->brokers->current().name();
    if (client->brokers->accepted()) {
        SF_LOG_NOTICE("MQTT broker changed from %s to %s", previous.c_str(), name.c_str());
        sf_metrics::count(sf_metrics::MqttBrokerChanges);
    }
    sf_metrics::mqtt_broker_in_use(name);
}

} // namespace sf_mqtt
