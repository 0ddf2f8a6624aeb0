/*
 * The MQTT client over libmosquitto: connection, topics, publications and
 * their completions (services/mqtt_client.h, port/posix/mqtt_config.h).
 *
 * Threads: libmosquitto's network thread runs connect/disconnect,
 * acknowledgements (completions) and inbound messages (queued for the
 * inbound thread); the expiry thread completes publications whose time
 * limit passed. Completions never run with a lock of this client held.
 */
#include <mosquitto.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>

#include "../../cloud_defs/gw_intf.h"
#include "../../services/mqtt_client.h"
#include "../../smart_frame/smart_frame.h"
#include "channel_log.h"
#include "gw_registry.h"
#include "mqtt_config.h"
#include "mqtt_inbound.h"
#include "mqtt_pending.h"
#include "wire_json.h"

namespace {

using sf_mqtt::Clock;
using sf_mqtt::Completion;
using sf_mqtt::PendingPublications;

constexpr size_t INBOUND_QUEUE_LIMIT = 64;
constexpr auto EXPIRY_TICK = std::chrono::milliseconds(100);

std::string or_default(const CHAR_T *text, const char *fallback)
{
    return text != nullptr && text[0] != '\0' ? std::string(text) : std::string(fallback);
}

UINT_T or_default(UINT_T value, UINT_T fallback) { return value != 0 ? value : fallback; }

const char *c_or_null(const std::string &text) { return text.empty() ? nullptr : text.c_str(); }

struct Client {
    // Settled by mqc_start, read-only afterwards.
    std::string host, client_id, gw_id, username, password, ca_file, cert_file, key_file;
    int port = 1883;
    bool tls_insecure = false;
    UINT_T keepalive_s = 60, reconnect_min_s = 1, reconnect_max_s = 30, default_timeout_s = 30;
    UINT_T max_inflight = 20;
    std::string up_topic, cmd_filter, cmd_prefix, status_topic;

    mosquitto *mosq = nullptr;
    PendingPublications pending;
    std::unique_ptr<sf_mqtt::InboundWorker> inbound;

    std::mutex expiry_mutex;
    std::condition_variable expiry_wake;
    bool expiry_stop = false;
    std::thread expiry;
};

// g_life guards g_client: publishers hold it shared for the length of a
// call; mqc_start and mqc_stop hold it exclusively only once every thread of
// the client is gone, so no callback ever waits for it.
std::shared_mutex g_life;
Client *g_client = nullptr;
std::atomic<bool> g_connected{false};
std::atomic<bool> g_stopping{false};

constexpr char ONLINE_STATUS[] = "{\"online\":true}";
constexpr char OFFLINE_STATUS[] = "{\"online\":false}";

void on_connect(mosquitto *mosq, void *obj, int rc)
{
    auto *client = static_cast<Client *>(obj);
    if (rc != 0) {
        // 4 and 5 are the broker's answers to a wrong user name or password.
        CH_LOG_ERR("MQTT broker %s:%d refused the connection: %s%s", client->host.c_str(), client->port,
                   mosquitto_connack_string(rc),
                   (rc == 4 || rc == 5) ? " (check the user name and password)" : "");
        return;
    }
    int sub_rc = mosquitto_subscribe(mosq, nullptr, client->cmd_filter.c_str(), 1);
    if (sub_rc != MOSQ_ERR_SUCCESS) {
        CH_LOG_ERR("subscribe %s failed: %s", client->cmd_filter.c_str(), mosquitto_strerror(sub_rc));
    }
    mosquitto_publish(mosq, nullptr, client->status_topic.c_str(), sizeof ONLINE_STATUS - 1, ONLINE_STATUS, 1,
                      true);
    g_connected = true;
    gw_registry_set_nw_status(GW_NW_CLOUD);
    CH_LOG_INFO("MQTT connected to %s:%d as %s", client->host.c_str(), client->port, client->client_id.c_str());
    // Values whose publication failed while the cloud was away go out again.
    sf_start_sync_obj_dp();
}

void on_disconnect(mosquitto *, void *obj, int rc)
{
    auto *client = static_cast<Client *>(obj);
    const bool was_connected = g_connected.exchange(false);
    if (!g_stopping) {
        gw_registry_set_nw_status(GW_NW_LAN);
    }
    if (was_connected) {
        if (rc != 0) {
            CH_LOG_ERR("MQTT connection to %s:%d lost (%s), reconnecting", client->host.c_str(), client->port,
                       mosquitto_strerror(rc));
        } else {
            CH_LOG_INFO("MQTT disconnected");
        }
    }
    // libmosquitto will re-send these after a reconnect, but their callers
    // are told now; the late acknowledgements then find no entry.
    PendingPublications::complete(client->pending.take_all(), MQC_RC_CONN_LOST);
}

void on_publish(mosquitto *, void *obj, int mid)
{
    auto *client = static_cast<Client *>(obj);
    Completion done;
    if (client->pending.take(mid, &done)) {
        PendingPublications::complete(done, RC_OK);
    }
}

void on_message(mosquitto *, void *obj, const mosquitto_message *msg)
{
    auto *client = static_cast<Client *>(obj);
    if (msg->topic == nullptr || std::strncmp(msg->topic, client->cmd_prefix.c_str(), client->cmd_prefix.size()) != 0) {
        return;
    }
    const char *name = msg->topic + client->cmd_prefix.size();
    const sf_wire::CmdKind kind = sf_wire::cmd_kind_from_name(name);
    if (kind == sf_wire::CmdKind::Unknown) {
        CH_LOG_ERR("message on %s dropped: unknown command topic", msg->topic);
        return;
    }
    client->inbound->push(kind, msg->payload, msg->payloadlen < 0 ? 0 : static_cast<size_t>(msg->payloadlen));
}

void run_expiry(Client *client)
{
    std::unique_lock<std::mutex> hold(client->expiry_mutex);
    while (!client->expiry_stop) {
        client->expiry_wake.wait_for(hold, EXPIRY_TICK);
        hold.unlock();
        PendingPublications::complete(client->pending.take_expired(Clock::now()), MQC_RC_TIMEOUT);
        hold.lock();
    }
}

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
        CH_LOG_ERR("no gateway id for the MQTT topics");
        return false;
    }
    client->client_id = or_default(cfg->client_id, client->gw_id.c_str());
    client->username = or_default(cfg->username, "");
    client->password = or_default(cfg->password, "");
    client->cert_file = or_default(cfg->cert_file, "");
    client->key_file = or_default(cfg->key_file, "");
    client->tls_insecure = cfg->tls_insecure == TRUE;
    client->keepalive_s = or_default(cfg->keepalive_s, 60);
    client->reconnect_min_s = or_default(cfg->reconnect_min_s, 1);
    client->reconnect_max_s = or_default(cfg->reconnect_max_s, 30);
    if (client->reconnect_max_s < client->reconnect_min_s) {
        client->reconnect_max_s = client->reconnect_min_s;
    }
    client->default_timeout_s = or_default(cfg->default_timeout_s, 30);
    client->max_inflight = or_default(cfg->max_inflight, 20);
    const std::string base = or_default(cfg->topic_root, "sf") + "/" + client->gw_id + "/";
    client->up_topic = base + "up";
    client->cmd_prefix = base + "cmd/";
    client->cmd_filter = client->cmd_prefix + "+";
    client->status_topic = base + "status";
    client->inbound = std::make_unique<sf_mqtt::InboundWorker>(or_default(cfg->max_inbound_bytes, 65536),
                                                               or_default(cfg->max_inbound_depth, 32),
                                                               INBOUND_QUEUE_LIMIT);
    return true;
}

bool set_up_mosquitto(Client *client)
{
    client->mosq = mosquitto_new(client->client_id.c_str(), true, client);
    if (client->mosq == nullptr) {
        CH_LOG_ERR("mosquitto_new failed");
        return false;
    }
    mosquitto *mosq = client->mosq;
    mosquitto_connect_callback_set(mosq, on_connect);
    mosquitto_disconnect_callback_set(mosq, on_disconnect);
    mosquitto_publish_callback_set(mosq, on_publish);
    mosquitto_message_callback_set(mosq, on_message);
    mosquitto_reconnect_delay_set(mosq, client->reconnect_min_s, client->reconnect_max_s, true);
    mosquitto_max_inflight_messages_set(mosq, client->max_inflight);
    int rc = mosquitto_will_set(mosq, client->status_topic.c_str(), sizeof OFFLINE_STATUS - 1, OFFLINE_STATUS, 1,
                                true);
    if (rc == MOSQ_ERR_SUCCESS && !client->username.empty()) {
        rc = mosquitto_username_pw_set(mosq, client->username.c_str(), c_or_null(client->password));
    }
    if (rc == MOSQ_ERR_SUCCESS && !client->ca_file.empty()) {
        rc = mosquitto_tls_set(mosq, client->ca_file.c_str(), nullptr, c_or_null(client->cert_file),
                               c_or_null(client->key_file), nullptr);
        if (rc == MOSQ_ERR_SUCCESS && client->tls_insecure) {
            rc = mosquitto_tls_insecure_set(mosq, true);
        }
    }
    if (rc != MOSQ_ERR_SUCCESS) {
        CH_LOG_ERR("MQTT client set-up failed: %s", mosquitto_strerror(rc));
        return false;
    }
    return true;
}

void destroy(Client *client)
{
    if (client->mosq != nullptr) {
        mosquitto_destroy(client->mosq);
    }
    delete client;
}

/*
 * Publish text under the uplink topic. With a callback the publication is
 * recorded and completes exactly once; block (may be null) is a reference
 * that the completion releases. Caller holds g_life shared.
 */
OPERATE_RET publish_uplink(Client *client, const std::string &payload, int qos, UINT_T to_lmt_s,
                           MQ_PUB_ASYNC_IFM_CB cb, void *prv_data, RFC_DATA_S *block)
{
    if (!g_connected) {
        return MQC_RC_NOT_CONNECTED;
    }
    auto publish = [&](int *mid) {
        return mosquitto_publish(client->mosq, mid, client->up_topic.c_str(), static_cast<int>(payload.size()),
                                 payload.data(), qos, false);
    };
    int rc;
    if (cb == nullptr && block == nullptr) {
        rc = publish(nullptr);
    } else {
        Completion c;
        c.cb = cb;
        c.prv_data = prv_data;
        c.block = block;
        c.deadline = Clock::now() + std::chrono::seconds(to_lmt_s != 0 ? to_lmt_s : client->default_timeout_s);
        rc = client->pending.publish_and_record(publish, c);
    }
    if (rc == MOSQ_ERR_NO_CONN) {
        return MQC_RC_NOT_CONNECTED;
    }
    if (rc != MOSQ_ERR_SUCCESS) {
        CH_LOG_ERR("mosquitto_publish failed: %s", mosquitto_strerror(rc));
        return MQC_RC_PUBLISH_FAIL;
    }
    return RC_OK;
}

const MSG_DATA_S *block_message(const RFC_DATA_S *rfc_data)
{
    if (rfc_data == nullptr || rfc_data->data == nullptr || rfc_data->data_len < sizeof(MSG_DATA_S)) {
        return nullptr;
    }
    const auto *msg = static_cast<const MSG_DATA_S *>(rfc_data->data);
    return msg->len + sizeof(MSG_DATA_S) <= rfc_data->data_len ? msg : nullptr;
}

std::string block_payload(const MSG_DATA_S *msg, UINT_T pro)
{
    return sf_wire::wrap_frame({{"serno", msg->serno}, {"pro", pro}}, reinterpret_cast<const char *>(msg->data),
                               msg->len);
}

/*
 * Publish a report block at QoS 1. With keep_ref the client holds a
 * reference of its own until the completion, which then runs exactly once.
 */
OPERATE_RET publish_block(RFC_DATA_S *rfc_data, UINT_T pro, UINT_T to_lmt_s, MQ_PUB_ASYNC_IFM_CB cb,
                          void *prv_data, bool keep_ref, const char *caller)
{
    const MSG_DATA_S *msg = block_message(rfc_data);
    if (msg == nullptr) {
        CH_LOG_ERR("%s: no message block", caller);
        return RC_BAD_PARAM;
    }
    std::shared_lock<std::shared_mutex> life(g_life);
    if (g_client == nullptr || g_stopping) {
        return MQC_RC_NOT_CONNECTED;
    }
    if (keep_ref) {
        get_rfc_data(rfc_data);
    }
    const OPERATE_RET rc = publish_uplink(g_client, block_payload(msg, pro), 1, to_lmt_s, cb, prv_data,
                                          keep_ref ? rfc_data : nullptr);
    if (rc != RC_OK && keep_ref) {
        put_rfc_data(rfc_data);
    }
    return rc;
}

} // namespace

extern "C" OPERATE_RET mqc_start(const MQC_CONFIG_S *cfg)
{
    static std::once_flag lib_init;
    std::call_once(lib_init, [] { mosquitto_lib_init(); });
    if (cfg == nullptr) {
        return RC_BAD_PARAM;
    }
    std::unique_lock<std::shared_mutex> life(g_life);
    if (g_client != nullptr) {
        CH_LOG_ERR("MQTT client already started");
        return RC_BAD_PARAM;
    }
    auto *client = new Client;
    if (!configure(client, cfg)) {
        destroy(client);
        return RC_BAD_PARAM;
    }
    if (!set_up_mosquitto(client)) {
        destroy(client);
        return MQC_RC_START_FAIL;
    }
    g_stopping = false;
    g_connected = false;
    gw_registry_set_nw_status(GW_NW_LAN);
    client->inbound->start();
    client->expiry = std::thread(run_expiry, client);
    int rc = mosquitto_loop_start(client->mosq);
    if (rc != MOSQ_ERR_SUCCESS) {
        CH_LOG_ERR("mosquitto_loop_start failed: %s", mosquitto_strerror(rc));
        client->inbound->stop();
        {
            std::lock_guard<std::mutex> hold(client->expiry_mutex);
            client->expiry_stop = true;
        }
        client->expiry_wake.notify_all();
        client->expiry.join();
        destroy(client);
        return MQC_RC_START_FAIL;
    }
    // An unreachable broker is not an error here: the network thread keeps
    // retrying with back-off.
    rc = mosquitto_connect_async(client->mosq, client->host.c_str(), client->port,
                                 static_cast<int>(client->keepalive_s));
    if (rc != MOSQ_ERR_SUCCESS) {
        CH_LOG_ERR("MQTT broker %s:%d not reachable yet (%s), retrying", client->host.c_str(), client->port,
                   rc == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(rc));
    }
    g_client = client;
    return RC_OK;
}

extern "C" void mqc_stop(void)
{
    Client *client;
    {
        std::shared_lock<std::shared_mutex> life(g_life);
        client = g_client;
    }
    if (client == nullptr || g_stopping.exchange(true)) {
        return;
    }
    mosquitto_disconnect(client->mosq);
    mosquitto_loop_stop(client->mosq, false);
    g_connected = false;
    client->inbound->stop();
    {
        std::lock_guard<std::mutex> hold(client->expiry_mutex);
        client->expiry_stop = true;
    }
    client->expiry_wake.notify_all();
    client->expiry.join();
    {
        std::unique_lock<std::shared_mutex> life(g_life);
        g_client = nullptr;
    }
    PendingPublications::complete(client->pending.take_all(), MQC_RC_STOPPED);
    destroy(client);
    gw_registry_set_nw_status(GW_NW_LAN);
    g_stopping = false;
}

extern "C" OPERATE_RET mqc_dp_report_async(RFC_DATA_S *rfc_data, UINT_T to_lmt_s, MQ_PUB_ASYNC_IFM_CB cb,
                                           void *prv_data)
{
    return publish_block(rfc_data, MQC_PRO_DP_REPORT, to_lmt_s, cb, prv_data, true, __func__);
}

extern "C" OPERATE_RET mqc_obj_dp_query(RFC_DATA_S *rfc_data)
{
    // The payload is copied into the publication: no reference is kept.
    return publish_block(rfc_data, MQC_PRO_DP_QUERY, 0, nullptr, nullptr, false, __func__);
}

extern "C" OPERATE_RET mqc_prot_data_rept_seq(UINT_T pro, const CHAR_T *data, BYTE_T qos, UINT_T to_lmt_s,
                                              MQ_PUB_ASYNC_IFM_CB cb, void *prv_data)
{
    if (data == nullptr || qos > 2) {
        CH_LOG_ERR("mqc_prot_data_rept_seq: bad parameter (pro %u, qos %u)", pro, qos);
        return RC_BAD_PARAM;
    }
    std::shared_lock<std::shared_mutex> life(g_life);
    if (g_client == nullptr || g_stopping) {
        return MQC_RC_NOT_CONNECTED;
    }
    // Every uplink message carries a number of the smart frame's series.
    const std::string payload = sf_wire::wrap_frame({{"serno", sf_get_serial_no()}, {"pro", pro}}, data,
                                                    std::strlen(data));
    return publish_uplink(g_client, payload, qos, to_lmt_s, cb, prv_data, nullptr);
}

extern "C" BOOL_T get_mqc_conn_stat(void) { return g_connected ? TRUE : FALSE; }
