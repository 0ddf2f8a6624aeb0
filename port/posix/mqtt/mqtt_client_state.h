/*
 * The MQTT client's shared state, between its connection
 * (mqtt_connection.cpp), its settings (mqtt_settings.cpp) and its
 * publications (mqtt_publish.cpp). Internal to the client.
 */
#ifndef SF_POSIX_MQTT_CLIENT_STATE_H
#define SF_POSIX_MQTT_CLIENT_STATE_H

#include <mosquitto.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "services/uni_msg_queue.h"

#include "gateway/sync/annotated_lock.h"
#include "mqtt_brokers.h"
#include "mqtt_config.h"
#include "mqtt_inbound.h"
#include "mqtt_pending.h"

namespace sf_mqtt {

struct Client {
    // Settled by mqc_start, read-only afterwards.
    std::string host, client_id, gw_id, username, password, ca_file, cert_file, key_file;
    int port = 1883;
    bool tls_insecure = false;
    UINT_T keepalive_s = 60, reconnect_min_s = 1, reconnect_max_s = 30, default_timeout_s = 30;
    UINT_T max_inflight = 20;
    int protocol = 5;          // MQTT_PROTOCOL_V5 or MQTT_PROTOCOL_V311 level of the next connect
    bool fall_back = true;     // MQTT 5 refused by the broker: use 3.1.1 from then on
    int unanswered_v5 = 0;     // MQTT 5 CONNECTs in a row the broker closed without an answer (network thread)
    UINT_T receive_maximum = 16;
    UINT_T max_packet_bytes = 0; // MQTT 5 maximum packet size we announce
    std::string up_topic, cmd_filter, cmd_prefix, status_topic;
    bool clean_session = false;     // false: the broker keeps our session while we are away
    UINT_T session_expiry_s = 0;    // MQTT 5 session expiry interval of a persistent session
    UINT_T takeover_backoff_s = 300;
    bool journaled = false;         // commands go through the state file's journal (command_journal.h)
    MSG_ID done_msg = 0;            // dispatch message that marks a journaled command applied; 0: none

    // Network thread only: telling a take-over (mqtt_takeover.cpp).
    Clock::time_point session_started{};
    int short_sessions = 0;         // accepted sessions in a row the broker closed soon after their start
    bool takeover_logged = false;
    std::atomic<bool> taken_over{false}; // the last session ended by a take-over: back off long

    // The brokers and the one in use (host, port and credentials above are
    // its settings): changed on the network thread only (mqtt_broker_use.cpp).
    std::unique_ptr<BrokerList> brokers;
    size_t applied_broker = 0;

    mosquitto *mosq = nullptr;
    PendingPublications pending;
    std::unique_ptr<InboundWorker> inbound;

    // stop ends the network and expiry threads; wait_mutex/wake let them
    // sleep until it is set. connect_mutex spans "stop not set yet, so
    // connect", so that mqc_stop's disconnect never precedes a connect that
    // would then run on for ever. Neither lock guards a field: what they
    // order are the atomics below (set under them so that no wake-up and
    // no disconnect is lost) and libmosquitto's connect and disconnect.
    std::atomic<bool> stop{false};
    std::atomic<bool> established{false}; // a session was accepted since the last back-off
    std::atomic<bool> settled{false};     // the pending table settled publications: complete them now
    std::atomic<bool> subscribed{false};  // the command topics' SUBACK came: commands may follow
    std::atomic<int> connack_rc{0};       // the broker's answer to the last CONNECT
    std::atomic<bool> connack_seen{false}; // the broker answered the last CONNECT at all
    std::atomic<bool> sub_refused{false}; // the broker refused the command topics: reconnect with back-off
    sf_sync::Mutex wait_mutex;
    sf_sync::CondVar wake;
    sf_sync::Mutex connect_mutex;
    std::thread network;
    std::thread expiry;
};

// g_life guards g_client: publishers hold it shared for the length of a
// call; mqc_start and mqc_stop hold it exclusively only once every thread of
// the client is gone, so no callback ever waits for it.
extern sf_sync::SharedMutex g_life;
extern Client *g_client SF_GUARDED_BY(g_life);
extern std::atomic<bool> g_connected; // CONNACK accepted, connection up
extern std::atomic<bool> g_stopping;  // mqc_stop under way
extern std::atomic<uint64_t> g_session; // session number of the current or next connection
extern std::atomic<bool> g_session_kept; // the broker had our session at the last accepted connect
extern std::atomic<bool> g_v5;           // the current connection speaks MQTT 5 (uplinks carry properties)

/* Fill client's settings and topics from cfg with their defaults; false (logged) without a gateway id. */
bool configure(Client *client, const MQC_CONFIG_S *cfg);

/* The broker list of cfg (or its single host and port) into client; false (logged) when it cannot be used. */
bool configure_brokers(Client *client, const MQC_CONFIG_S *cfg);
/* Before a connect, network thread: take the settings of the list's current broker; false (logged) on failure. */
bool use_broker(Client *client);
/* The current broker accepted a session, network thread: a change of broker is logged and counted. */
void broker_accepted(Client *client);

/* text, or NULL when empty, for libmosquitto's optional arguments. */
inline const char *c_or_null(const std::string &text) { return text.empty() ? nullptr : text.c_str(); }

} // namespace sf_mqtt

#endif /* SF_POSIX_MQTT_CLIENT_STATE_H */
