/*
 * The MQTT client over libmosquitto: its connection, threads, start and
 * stop (services/mqtt_client.h, port/posix/mqtt/mqtt_config.h).
 *
 * Threads: the network thread runs libmosquitto's loop: connect and
 * disconnect, acknowledgements and inbound messages (queued for the
 * inbound thread); the expiry thread runs every completion: those settled
 * by an acknowledgement or the loss of the connection, those settled while
 * being recorded (mqtt_pending.h) and those whose time limit passed. So no
 * completion runs inside libmosquitto's callback lock or with a lock of
 * this client held, and a slow one never holds up the network.
 *
 * The network thread is ours rather than mosquitto_loop_start's because
 * libmosquitto's own loop gives up for good on errors it deems fatal (a TLS
 * error, a failed name lookup, a protocol error), which on a gateway are
 * often passing: we log them and connect again with back-off.
 *
 * Every connect and reconnect is ours too (mosquitto_loop, never
 * mosquitto_loop_forever): loop_forever reconnects by itself, and a
 * mosquitto_disconnect that lands while that internal reconnect is under
 * way is lost (the reconnect sets the state again when connect() fails), so
 * loop_forever retried a dead broker for ever and mqc_stop never joined the
 * thread. Our reconnects run under connect_mutex after checking stop, so
 * once mqc_stop has set stop none begins.
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "cloud_defs/gw_intf.h"
#include "services/mqtt_client.h"
#include "smart_frame/smart_frame.h"
#include "gateway/registry/gw_registry.h"
#include "port/posix/metrics/metrics.h"
#include "mqtt_client_state.h"
#include "mqtt_journal.h"
#include "mqtt_session.h"
#include "port/posix/posix_tunables.h"
#include "port/posix/state/command_journal.h"
#include "services/log_front.h"

namespace sf_mqtt {

sf_sync::SharedMutex g_life;
Client *g_client = nullptr;
std::atomic<bool> g_connected{false};
std::atomic<bool> g_stopping{false};

} // namespace sf_mqtt

using namespace sf_mqtt; // this file is part of the client

namespace {

constexpr auto EXPIRY_TICK = std::chrono::milliseconds(SF_MQTT_EXPIRY_TICK_MS);
constexpr int LOOP_WAIT_MS = SF_MQTT_LOOP_WAIT_MS;
constexpr auto STOP_GRACE = std::chrono::seconds(SF_MQTT_STOP_GRACE_S);
constexpr auto HELD_POLL = std::chrono::milliseconds(SF_MQTT_HELD_POLL_MS);

void publish_status(Client *client, bool online)
{
    const std::string text = status_text(online);
    mosquitto_publish(client->mosq, nullptr, client->status_topic.c_str(), static_cast<int>(text.size()), text.data(),
                      1, true);
}

/*
 * flags bit 0 is the CONNACK's "session present". The command topics are
 * subscribed to whether or not the broker kept the session: a SUBACK is
 * what tells us they are granted, and renewing a kept subscription loses
 * none of the commands queued under it.
 */
void on_connect(mosquitto *mosq, void *obj, int rc, int flags, const mosquitto_property *)
{
    auto *client = static_cast<Client *>(obj);
    client->connack_rc = rc;
    client->connack_seen = true;
    if (rc == 0) {
        g_v5 = client->protocol == MQTT_PROTOCOL_V5;
        session_accepted(client, (flags & 1) != 0);
    }
    if (rc != 0) {
        // 4 and 5 are the broker's answers to a wrong user name or password.
        SF_LOG_ERR("MQTT broker %s:%d refused the connection: %s%s", client->host.c_str(), client->port,
                   mosquitto_connack_string(rc),
                   (rc == 4 || rc == 5) ? " (check the user name and password)" : "");
        return;
    }
    // Connected only once the SUBACK grants the command topics (on_subscribe).
    int sub_rc = mosquitto_subscribe(mosq, nullptr, client->cmd_filter.c_str(), 1);
    if (sub_rc != MOSQ_ERR_SUCCESS) {
        SF_LOG_ERR("subscribe %s failed: %s", client->cmd_filter.c_str(), mosquitto_strerror(sub_rc));
        client->sub_refused = true;
        mosquitto_disconnect(mosq);
    }
}

/*
 * The SUBACK of the command topics. A refusal (granted QoS 0x80 in 3.1.1, a
 * reason code from 0x80 in MQTT 5, e.g. an ACL that denies them) leaves a
 * connection that can publish but never receives a command: it is not
 * counted as connected; it is dropped and tried again with back-off.
 */
void on_subscribe(mosquitto *mosq, void *obj, int, int qos_count, const int *granted_qos)
{
    auto *client = static_cast<Client *>(obj);
    if (qos_count < 1 || granted_qos == nullptr || granted_qos[0] >= 0x80) {
        SF_LOG_ERR("MQTT broker %s:%d refused the subscription to %s (reason %d): no command can arrive",
                   client->host.c_str(), client->port, client->cmd_filter.c_str(),
                   qos_count < 1 || granted_qos == nullptr ? -1 : granted_qos[0]);
        client->sub_refused = true;
        mosquitto_disconnect(mosq);
        return;
    }
    client->subscribed = true;
    publish_status(client, true);
    client->pending.open();
    client->established = true;
    g_connected = true;
    gw_registry_set_nw_status(GW_NW_CLOUD);
    broker_accepted(client);
    sf_metrics::mqtt_session_up(client->host.c_str(), client->port);
    client->inbound->poke();
    SF_LOG_PROG("MQTT connected to %s:%d as %s, session %llu", client->host.c_str(), client->port,
                client->client_id.c_str(), static_cast<unsigned long long>(g_session.load()));
    // Values whose publication failed while the cloud was away go out again.
    sf_start_sync_obj_dp();
}

void on_disconnect(mosquitto *, void *obj, int rc, const mosquitto_property *)
{
    auto *client = static_cast<Client *>(obj);
    client->subscribed = false;
    const bool was_connected = g_connected.exchange(false);
    if (!g_stopping) {
        gw_registry_set_nw_status(GW_NW_LAN);
    }
    if (was_connected) {
        sf_metrics::mqtt_session_down(client->host.c_str(), client->port);
        client->taken_over = !g_stopping && session_taken_over(client, rc);
        if (rc != 0) {
            SF_LOG_ERR("MQTT connection to %s:%d lost (%s), reconnecting", client->host.c_str(), client->port,
                       mosquitto_strerror(rc));
        } else {
            SF_LOG_PROG("MQTT disconnected");
        }
    }
    // libmosquitto will re-send these after a reconnect, but their callers
    // are told now (by the expiry thread); the late acknowledgements then
    // find no entry.
    client->pending.settle(client->pending.close_and_take_all(), MQC_RC_CONN_LOST);
}

void on_publish(mosquitto *, void *obj, int mid)
{
    // Completed on the expiry thread: a completion that takes its time
    // must not hold up the network thread (acknowledgements, commands).
    static_cast<Client *>(obj)->pending.settle_acked(mid);
}

/* The remaining MQTT 5 message expiry of a command as POSIX milliseconds; 0 when it has none. */
int64_t expiry_of(const mosquitto_property *props)
{
    uint32_t remaining_s = 0;
    if (props == nullptr ||
        mosquitto_property_read_int32(props, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &remaining_s, false) == nullptr) {
        return 0;
    }
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count() +
           static_cast<int64_t>(remaining_s) * 1000;
}

/*
 * libmosquitto queues the PUBACK of a QoS 1 message before it calls us and
 * writes it only when this thread next runs its loop, after we return
 * (docs/wire-protocol.md "Delivery of commands"). So a command journaled
 * here is in the state file before the broker may forget it.
 */
void on_message(mosquitto *, void *obj, const mosquitto_message *msg, const mosquitto_property *props)
{
    auto *client = static_cast<Client *>(obj);
    if (msg->topic == nullptr || std::strncmp(msg->topic, client->cmd_prefix.c_str(), client->cmd_prefix.size()) != 0) {
        return;
    }
    const char *name = msg->topic + client->cmd_prefix.size();
    const sf_wire::CmdKind kind = sf_wire::cmd_kind_from_name(name);
    if (kind == sf_wire::CmdKind::Unknown) {
        SF_LOG_ERR("message on %s dropped: unknown command topic", msg->topic);
        return;
    }
    sf_metrics::inbound_received(static_cast<int>(kind));
    const size_t len = msg->payloadlen < 0 ? 0 : static_cast<size_t>(msg->payloadlen);
    const int64_t expires_ms = expiry_of(props);
    const int64_t seq = client->journaled && msg->qos > 0 && client->inbound->fits(len)
                            ? sf_state::journal::put(name, msg->payload, len, expires_ms)
                            : 0;
    client->inbound->push(kind, msg->payload, len, msg->qos, seq, expires_ms);
}

/* Sleep up to span unless the client stops; false when it stops. */
bool wait_unless_stopped(Client *client, std::chrono::milliseconds span) SF_EXCLUDES(client->wait_mutex)
{
    sf_sync::Guard hold(client->wait_mutex);
    return !client->wake.wait_for(client->wait_mutex, span,
                                  [client]() SF_REQUIRES(client->wait_mutex) { return client->stop.load(); });
}

/* Tell the expiry thread that publications were settled. Any thread, no lock held. */
void wake_for_settled(Client *client) SF_EXCLUDES(client->wait_mutex)
{
    {
        sf_sync::Guard hold(client->wait_mutex);
        client->settled = true;
    }
    client->wake.notify_all();
}

void run_expiry(Client *client) SF_EXCLUDES(client->wait_mutex)
{
    for (;;) {
        {
            sf_sync::Guard hold(client->wait_mutex);
            client->wake.wait_for(client->wait_mutex, EXPIRY_TICK, [client]() SF_REQUIRES(client->wait_mutex) {
                return client->stop.load() || client->settled.load();
            });
            if (client->stop) {
                return;
            }
            client->settled = false;
        }
        PendingPublications::complete(client->pending.take_settled());
        PendingPublications::complete(client->pending.take_expired(Clock::now()), MQC_RC_TIMEOUT);
    }
}

/*
 * Whether this turn of the network thread may read the socket. Until the
 * SUBACK came nothing but the broker's answers can arrive; after it,
 * reading stops while the inbound queue is full, so the broker holds the
 * commands it has not sent (libmosquitto acknowledges each one it reads,
 * so reading is where a command becomes ours to keep). It goes on, into
 * the queue's reserve, while a publication of ours waits for its
 * acknowledgement (which may be all that stands between the application
 * and room in the queue: never wait for what needs this thread) and once
 * each half keep-alive (the ping's answer). Network thread.
 */
bool may_read(Client *client, Clock::time_point last_read)
{
    if (client->stop || !client->subscribed) {
        return true;
    }
    const bool waits = client->pending.size() > 0 ||
                       Clock::now() - last_read >= std::chrono::milliseconds(client->keepalive_s * 500);
    return client->inbound->accepts(waits);
}

/* A turn without reading: keep-alive and queued writes only, then a short wait for room. */
int serve_held(Client *client)
{
    int rc = mosquitto_loop_misc(client->mosq);
    if (rc == MOSQ_ERR_SUCCESS && mosquitto_want_write(client->mosq)) {
        rc = mosquitto_loop_write(client->mosq, 1);
    }
    if (rc == MOSQ_ERR_SUCCESS) {
        client->inbound->wait_for_room(HELD_POLL);
    }
    return rc;
}

/*
 * Serve one connection until it ends; returns why (never MOSQ_ERR_SUCCESS
 * unless stop's grace ran out). After stop it runs on only until our
 * DISCONNECT is written (libmosquitto then closes the socket and the next
 * mosquitto_loop says so), and at most STOP_GRACE. Network thread.
 */
int run_session(Client *client)
{
    Clock::time_point give_up{};
    Clock::time_point last_read = Clock::now();
    for (;;) {
        int rc;
        if (may_read(client, last_read)) {
            last_read = Clock::now();
            rc = mosquitto_loop(client->mosq, LOOP_WAIT_MS, 1);
        } else {
            rc = serve_held(client);
        }
        if (rc != MOSQ_ERR_SUCCESS) {
            return rc;
        }
        if (client->stop) {
            const Clock::time_point now = Clock::now();
            if (give_up == Clock::time_point{}) {
                give_up = now + STOP_GRACE;
            } else if (now >= give_up) {
                return MOSQ_ERR_SUCCESS;
            }
        }
    }
}

/*
 * Connect (again) with the protocol level in force: MQTT 5 announces our
 * receive maximum and maximum packet size. A full connect every time
 * rather than mosquitto_reconnect, so a fall-back to 3.1.1 takes effect.
 * Network thread, connect_mutex held.
 */
int connect_now(Client *client) SF_REQUIRES(client->connect_mutex)
{
    client->connack_rc = 0;
    client->connack_seen = false;
    client->subscribed = false;
    mosquitto_int_option(client->mosq, MOSQ_OPT_PROTOCOL_VERSION, client->protocol);
    const int keepalive = static_cast<int>(client->keepalive_s);
    int rc = set_will(client);
    if (rc != MOSQ_ERR_SUCCESS) {
        return rc;
    }
    if (client->protocol != MQTT_PROTOCOL_V5) {
        return mosquitto_connect(client->mosq, client->host.c_str(), client->port, keepalive);
    }
    mosquitto_property *props = nullptr;
    rc = mosquitto_property_add_int16(&props, MQTT_PROP_RECEIVE_MAXIMUM,
                                      static_cast<uint16_t>(client->receive_maximum));
    if (rc == MOSQ_ERR_SUCCESS) {
        rc = mosquitto_property_add_int32(&props, MQTT_PROP_MAXIMUM_PACKET_SIZE, client->max_packet_bytes);
    }
    if (rc == MOSQ_ERR_SUCCESS && !client->clean_session) {
        rc = mosquitto_property_add_int32(&props, MQTT_PROP_SESSION_EXPIRY_INTERVAL, client->session_expiry_s);
    }
    if (rc == MOSQ_ERR_SUCCESS) {
        rc = mosquitto_connect_bind_v5(client->mosq, client->host.c_str(), client->port, keepalive, nullptr, props);
    }
    mosquitto_property_free_all(&props);
    return rc;
}

/*
 * After a session that was never accepted: when the broker said it does
 * not speak MQTT 5 (CONNACK 1, "unacceptable protocol version", as a 3.1.1
 * broker answers, or MQTT 5's 132), or answered in a form MQTT 5 cannot
 * read, connect with 3.1.1 from now on, if the settings allow it.
 *
 * Some 3.1.1-only brokers (RabbitMQ's MQTT plugin) do not answer an MQTT 5
 * CONNECT at all: they close the connection. One such close may be a
 * broker going down; UNANSWERED_V5_LIMIT of them in a row, with no answer
 * in between, is taken as the same refusal. A broker that speaks 5 speaks
 * 3.1.1 too, so a wrong guess costs only MQTT 5's inbound limits, which the
 * 3.1.1 path does without (see docs/brokers.md).
 */
constexpr int UNANSWERED_V5_LIMIT = 2;

void fall_back_if_refused(Client *client, int rc)
{
    if (client->protocol != MQTT_PROTOCOL_V5 || !client->fall_back) {
        return;
    }
    const int connack = client->connack_rc;
    const bool refused = connack == 1 || connack == MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION ||
                         rc == MOSQ_ERR_PROTOCOL || rc == MOSQ_ERR_MALFORMED_PACKET;
    client->unanswered_v5 = client->connack_seen ? 0 : client->unanswered_v5 + 1;
    if (refused) {
        client->protocol = MQTT_PROTOCOL_V311;
        SF_LOG_ERR("MQTT broker %s:%d does not accept MQTT 5; using MQTT 3.1.1", client->host.c_str(),
                   client->port);
    } else if (client->unanswered_v5 >= UNANSWERED_V5_LIMIT) {
        client->protocol = MQTT_PROTOCOL_V311;
        SF_LOG_ERR("MQTT broker %s:%d closed %d MQTT 5 connections without an answer; using MQTT 3.1.1",
                   client->host.c_str(), client->port, client->unanswered_v5);
    }
}

void run_network(Client *client) SF_EXCLUDES(client->connect_mutex, client->wait_mutex)
{
    UINT_T delay_s = 0;
    // An outage is one state change: its first failed attempt, and any change
    // of reason, are errors; the same failure again is detail, and counted.
    std::string failing_because;
    for (;;) {
        int rc;
        {
            sf_sync::Guard hold(client->connect_mutex);
            if (client->stop) {
                return;
            }
            rc = use_broker(client) ? connect_now(client) : MOSQ_ERR_INVAL;
        }
        const bool reached = rc == MOSQ_ERR_SUCCESS;
        if (reached) {
            rc = run_session(client);
        }
        const bool was_established = client->established.exchange(false);
        if (was_established) {
            // The broker did accept us: this is a new outage, not a persisting one.
            failing_because.clear();
        }
        // The next broker of the list (the same one when it is alone), after the back-off.
        delay_s = client->brokers->after_attempt(was_established);
        if (client->stop) {
            return;
        }
        if (was_established) {
            // The next connection is a new session, whatever becomes of this one's will.
            raise_session(client);
        }
        if (was_established && client->taken_over.exchange(false)) {
            // Another client with our id: fight it less often (mqtt_session.h).
            if (!wait_unless_stopped(client, std::chrono::seconds(client->takeover_backoff_s))) {
                return;
            }
            continue;
        }
        if (!was_established && reached) {
            fall_back_if_refused(client, rc);
        }
        if (client->sub_refused.exchange(false)) {
            SF_LOG_ERR("MQTT subscription refused, reconnecting in %u s", delay_s);
        } else if (!was_established) {
            // The loss of an accepted session is logged by on_disconnect already.
            sf_metrics::count(sf_metrics::MqttConnectFailures);
            const std::string why = rc == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(rc);
            if (why != failing_because) {
                SF_LOG_ERR("MQTT connection to %s:%d failed (%s), retrying in %u s", client->host.c_str(),
                           client->port, why.c_str(), delay_s);
                failing_because = why;
            } else {
                SF_LOG_DETAIL("MQTT connection to %s:%d failed (%s), retrying in %u s", client->host.c_str(),
                             client->port, why.c_str(), delay_s);
            }
        }
        if (!wait_unless_stopped(client, std::chrono::seconds(delay_s))) {
            return;
        }
    }
}

void on_log(mosquitto *, void *, int level, const char *text)
{
    // libmosquitto says why TLS failed only here.
    if (level == MOSQ_LOG_ERR) {
        SF_LOG_ERR("libmosquitto: %s", text);
    }
}

/* End the network and expiry threads; the inbound worker is left running. */
void stop_network(Client *client) SF_EXCLUDES(client->connect_mutex, client->wait_mutex)
{
    {
        sf_sync::Guard hold(client->connect_mutex);
        client->stop = true;
        mosquitto_disconnect(client->mosq);
    }
    {
        sf_sync::Guard hold(client->wait_mutex);
    }
    client->wake.notify_all();
    if (client->network.joinable()) {
        client->network.join();
    }
    if (client->expiry.joinable()) {
        client->expiry.join();
    }
}

/* Complete every publication still waiting with MQC_RC_STOPPED. No thread of the client completes any more. */
void complete_all_stopped(Client *client)
{
    PendingPublications::complete(client->pending.take_settled());
    PendingPublications::complete(client->pending.close_and_take_all(), MQC_RC_STOPPED);
}

bool set_up_mosquitto(Client *client)
{
    client->mosq = mosquitto_new(client->client_id.c_str(), client->clean_session, client);
    if (client->mosq == nullptr) {
        SF_LOG_ERR("mosquitto_new failed");
        return false;
    }
    mosquitto *mosq = client->mosq;
    mosquitto_connect_v5_callback_set(mosq, on_connect);
    mosquitto_disconnect_v5_callback_set(mosq, on_disconnect);
    mosquitto_publish_callback_set(mosq, on_publish);
    mosquitto_message_v5_callback_set(mosq, on_message);
    mosquitto_subscribe_callback_set(mosq, on_subscribe);
    mosquitto_log_callback_set(mosq, on_log);
    mosquitto_threaded_set(mosq, true);
    mosquitto_max_inflight_messages_set(mosq, client->max_inflight);
    int rc = MOSQ_ERR_SUCCESS;
    if (!client->username.empty()) {
        rc = mosquitto_username_pw_set(mosq, client->username.c_str(), sf_mqtt::c_or_null(client->password));
    }
    if (rc == MOSQ_ERR_SUCCESS && !client->ca_file.empty()) {
        rc = mosquitto_tls_set(mosq, client->ca_file.c_str(), nullptr, sf_mqtt::c_or_null(client->cert_file),
                               sf_mqtt::c_or_null(client->key_file), nullptr);
        if (rc == MOSQ_ERR_SUCCESS && client->tls_insecure) {
            rc = mosquitto_tls_insecure_set(mosq, true);
        }
    }
    if (rc != MOSQ_ERR_SUCCESS) {
        SF_LOG_ERR("MQTT client set-up failed: %s", mosquitto_strerror(rc));
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


} // namespace

extern "C" OPERATE_RET mqc_start(const MQC_CONFIG_S *cfg)
{
    static std::once_flag lib_init;
    std::call_once(lib_init, [] { mosquitto_lib_init(); });
    if (cfg == nullptr) {
        return RC_BAD_PARAM;
    }
    sf_sync::WriterGuard life(g_life);
    if (g_client != nullptr) {
        SF_LOG_ERR("MQTT client already started");
        return RC_BAD_PARAM;
    }
    auto *client = new Client;
    if (!sf_mqtt::configure(client, cfg)) {
        destroy(client);
        return RC_BAD_PARAM;
    }
    if (!set_up_mosquitto(client)) {
        destroy(client);
        return MQC_RC_START_FAIL;
    }
    g_stopping = false;
    g_connected = false;
    g_session = 0;
    gw_registry_set_nw_status(GW_NW_LAN);
    client->pending.on_settled([client] { wake_for_settled(client); });
    client->inbound->set_gate(&g_connected);
    take_journal(client);
    raise_session(client);
    client->inbound->start();
    client->expiry = std::thread(run_expiry, client);
    // The first connection is made on the network thread: an unreachable
    // broker is not an error here, it is retried with back-off.
    client->network = std::thread(run_network, client);
    g_client = client;
    return RC_OK;
}

extern "C" void mqc_stop(void)
{
    Client *client;
    {
        sf_sync::ReaderGuard life(g_life);
        client = g_client;
    }
    if (client == nullptr || g_stopping.exchange(true)) {
        return;
    }
    const bool was_connected = g_connected;
    if (was_connected) {
        // A clean disconnect does not fire the will: say it ourselves.
        publish_status(client, false);
    }
    stop_network(client);
    g_connected = false;
    // The inbound worker may be inside a synchronous report made from the
    // application's query callback, waiting for one of these: complete them
    // before joining it, or the join would wait for ever. The table is
    // closed from here on, so nothing new is recorded.
    complete_all_stopped(client);
    client->inbound->stop();
    {
        sf_sync::WriterGuard life(g_life);
        g_client = nullptr;
    }
    // No publisher is left (g_life was taken exclusively): one that was
    // between publish and record when the table closed has settled by now.
    complete_all_stopped(client);
    destroy(client);
    gw_registry_set_nw_status(GW_NW_LAN);
    g_stopping = false;
}

extern "C" BOOL_T get_mqc_conn_stat(void) { return g_connected ? TRUE : FALSE; }

extern "C" void mqc_get_inbound_stat(MQC_INBOUND_STAT_S *stat)
{
    if (stat == nullptr) {
        return;
    }
    *stat = MQC_INBOUND_STAT_S{};
    sf_sync::ReaderGuard life(g_life);
    if (g_client != nullptr) {
        InboundWorker &inbound = *g_client->inbound;
        stat->depth = static_cast<UINT_T>(inbound.depth());
        stat->limit = static_cast<UINT_T>(inbound.limit());
        stat->reserve = static_cast<UINT_T>(inbound.reserve());
        stat->dropped = static_cast<UINT_T>(inbound.dropped());
    }
}
