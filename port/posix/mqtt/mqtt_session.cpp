/*
 * The MQTT client's session number, status texts, will and take-over
 * detection (mqtt_session.h).
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include "mqtt_session.h"

#include <mqtt_protocol.h>

#include <ctime>

#include "port/posix/metrics/metrics.h"
#include "port/posix/posix_tunables.h"
#include "port/posix/state/command_journal.h"
#include "services/log_front.h"

namespace sf_mqtt {

std::atomic<uint64_t> g_session{0};
std::atomic<bool> g_session_kept{false};
std::atomic<bool> g_v5{false};

void raise_session(Client *client)
{
    uint64_t next = client->journaled ? sf_state::journal::next_session() : 0;
    if (next == 0) {
        // No state file: seconds at the first start, so a restart still
        // counts up (unless the clock goes back), then one per session.
        const uint64_t before = g_session.load();
        next = before != 0 ? before + 1 : static_cast<uint64_t>(std::time(nullptr));
    }
    g_session = next;
}

std::string status_text(bool online)
{
    return std::string("{\"online\":") + (online ? "true" : "false") + ",\"session\":" +
           std::to_string(g_session.load()) + "}";
}

int set_will(Client *client)
{
    const std::string offline = status_text(false);
    return mosquitto_will_set(client->mosq, client->status_topic.c_str(), static_cast<int>(offline.size()),
                              offline.data(), 1, true);
}

void session_accepted(Client *client, bool session_present)
{
    client->session_started = Clock::now();
    g_session_kept = session_present;
    if (!client->clean_session && !session_present) {
        // Subscribing follows in any case (on_connect): this says only that
        // whatever the cloud sent while we were away is gone.
        SF_LOG_NOTICE("MQTT broker %s:%d kept no session for %s (first connect, a new broker, or the session "
                      "expired): commands sent while the gateway was away are lost; subscribed again",
                      client->host.c_str(), client->port, client->client_id.c_str());
    }
}

bool session_taken_over(Client *client, int rc)
{
    // libmosquitto 2.0.11 reports the broker's DISCONNECT 0x8E as a lost
    // connection (seen with mosquitto 2.0.11), so the pattern is watched
    // under MQTT 5 too.
    bool taken = g_v5 && rc == MQTT_RC_SESSION_TAKEN_OVER;
    if (!taken && rc != MOSQ_ERR_SUCCESS) {
        const bool short_lived =
            Clock::now() - client->session_started < std::chrono::seconds(SF_MQTT_TAKEOVER_WINDOW_S);
        client->short_sessions = short_lived ? client->short_sessions + 1 : 0;
        taken = client->short_sessions >= SF_MQTT_TAKEOVER_REPEATS;
    } else if (!taken) {
        client->short_sessions = 0;
    }
    if (!taken) {
        return false;
    }
    client->short_sessions = 0;
    sf_metrics::count(sf_metrics::MqttTakeovers);
    if (!client->takeover_logged) {
        client->takeover_logged = true;
        SF_LOG_ERR("MQTT broker %s:%d gave the session of client id %s to another client: two gateways use the "
                   "same id; reconnecting only every %u s (sf_mqtt_session_takeovers_total counts each turn)",
                   client->host.c_str(), client->port, client->client_id.c_str(), client->takeover_backoff_s);
    } else {
        SF_LOG_DETAIL("MQTT session of %s taken over again; reconnecting in %u s", client->client_id.c_str(),
                      client->takeover_backoff_s);
    }
    return true;
}

} // namespace sf_mqtt

extern "C" uint64_t mqc_session_number(void) { return sf_mqtt::g_session.load(); }

extern "C" BOOL_T mqc_session_kept(void) { return sf_mqtt::g_session_kept.load() ? TRUE : FALSE; }
