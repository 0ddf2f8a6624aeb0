/*
 * The MQTT client's settings: MQC_CONFIG_S with its defaults, and the
 * gateway's topics.
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include "cloud_defs/gw_intf.h"
#include "mqtt_client_state.h"
#include "port/posix/posix_tunables.h"
#include "services/log_front.h"

namespace sf_mqtt {

namespace {

constexpr size_t INBOUND_QUEUE_LIMIT = SF_MQTT_INBOUND_QUEUE_LIMIT;

std::string or_default(const CHAR_T *text, const char *fallback)
{
    return text != nullptr && text[0] != '\0' ? std::string(text) : std::string(fallback);
}

UINT_T or_default(UINT_T value, UINT_T fallback) { return value != 0 ? value : fallback; }

} // namespace

bool configure(Client *client, const MQC_CONFIG_S *cfg)
{
    client->host = or_default(cfg->host, "127.0.0.1");
    client->ca_file = or_default(cfg->ca_file, "");
    client->port = cfg->port > 0 ? cfg->port : (client->ca_file.empty() ? 1883 : 8883);
    const char *gw = cfg->gw_id;
    if ((gw == nullptr || gw[0] == '\0') && get_gw_cntl() != nullptr) {
        gw = get_gw_cntl()->gw_if.id;
    }
    client->gw_id = or_default(gw, "");
    if (client->gw_id.empty()) {
        SF_LOG_ERR("no gateway id for the MQTT topics");
        return false;
    }
    client->client_id = or_default(cfg->client_id, client->gw_id.c_str());
    client->username = or_default(cfg->username, "");
    client->password = or_default(cfg->password, "");
    client->cert_file = or_default(cfg->cert_file, "");
    client->key_file = or_default(cfg->key_file, "");
    client->tls_insecure = cfg->tls_insecure == TRUE;
    client->keepalive_s = or_default(cfg->keepalive_s, SF_MQTT_KEEPALIVE_S);
    client->reconnect_min_s = or_default(cfg->reconnect_min_s, SF_MQTT_RECONNECT_MIN_S);
    client->reconnect_max_s = or_default(cfg->reconnect_max_s, SF_MQTT_RECONNECT_MAX_S);
    if (client->reconnect_max_s < client->reconnect_min_s) {
        client->reconnect_max_s = client->reconnect_min_s;
    }
    if (!configure_brokers(client, cfg)) {
        return false;
    }
    client->default_timeout_s = or_default(cfg->default_timeout_s, SF_MQTT_PUBLISH_TIMEOUT_S);
    client->max_inflight = or_default(cfg->max_inflight, SF_MQTT_MAX_INFLIGHT);
    const std::string base = or_default(cfg->topic_root, "sf") + "/" + client->gw_id + "/";
    client->up_topic = base + "up";
    client->cmd_prefix = base + "cmd/";
    client->cmd_filter = client->cmd_prefix + "+";
    client->status_topic = base + "status";
    const UINT_T protocol = or_default(cfg->protocol, SF_MQTT_PROTOCOL);
    if (protocol != 5 && protocol != 311) {
        SF_LOG_ERR("MQTT protocol %u unknown: 5 or 311", protocol);
        return false;
    }
    client->protocol = protocol == 5 ? MQTT_PROTOCOL_V5 : MQTT_PROTOCOL_V311;
    client->fall_back = cfg->protocol == 0 && protocol == 5;
    client->receive_maximum = SF_MQTT_RECEIVE_MAXIMUM;
    client->clean_session = cfg->clean_session == TRUE;
    client->session_expiry_s = or_default(cfg->session_expiry_s, SF_MQTT_SESSION_EXPIRY_S);
    client->takeover_backoff_s = or_default(cfg->takeover_backoff_s, SF_MQTT_TAKEOVER_BACKOFF_S);
    const UINT_T max_bytes = or_default(cfg->max_inbound_bytes, SF_MQTT_MAX_INBOUND_BYTES);
    client->max_packet_bytes = max_bytes + SF_MQTT_PACKET_OVERHEAD;
    client->inbound = std::make_unique<InboundWorker>(max_bytes,
                                                      or_default(cfg->max_inbound_depth, SF_MQTT_MAX_INBOUND_DEPTH),
                                                      INBOUND_QUEUE_LIMIT, SF_MQTT_INBOUND_RESERVE);
    return true;
}

} // namespace sf_mqtt
