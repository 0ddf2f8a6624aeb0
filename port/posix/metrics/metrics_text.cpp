/*
 * Renderings of a metrics snapshot. Names follow Prometheus' conventions:
 * a prefix per area, base units (seconds, bytes), "_total" on counters.
 */
#include "metrics_text.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace sf_metrics {
namespace {

std::string number(double value)
{
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.6g", value);
    return buf;
}

std::string number(uint64_t value) { return std::to_string(value); }

/* A label value: backslash, quote and newline escaped. */
std::string label_value(const std::string &text)
{
    std::string out;
    for (char c : text) {
        if (c == '\\' || c == '"') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    return out;
}

class Exposition {
public:
    explicit Exposition(const std::string &gateway_id) : gw_("gateway=\"" + label_value(gateway_id) + "\"") {}

    void family(const char *name, const char *type, const char *help)
    {
        text_ += std::string("# HELP ") + name + ' ' + help + "\n# TYPE " + name + ' ' + type + '\n';
    }
    /* extra: further labels, "" or e.g. kind="dp" */
    void sample(const std::string &name, const std::string &extra, const std::string &value)
    {
        text_ += name + '{' + gw_ + (extra.empty() ? "" : "," + extra) + "} " + value + '\n';
    }
    void one(const char *name, const char *type, const char *help, const std::string &value)
    {
        family(name, type, help);
        sample(name, "", value);
    }
    std::string take() { return std::move(text_); }

private:
    std::string gw_;
    std::string text_;
};

const char *const kKinds[] = {"dp", "group", "scene", "query"};
const char *const kDropReasons[] = {"oversize", "too_deep", "queue_full", "invalid"};
const char *const kPublishStates[] = {"none", "local", "sending", "confirmed"};

} // namespace

std::string prometheus_text(const Snapshot &s, const std::string &gateway_id)
{
    const uint64_t *c = s.counters;
    Exposition e(gateway_id);
    e.one("sf_up", "gauge", "1 while the gateway runs; 0 in the last file, written at a clean stop.", s.up ? "1" : "0");
    e.one("sf_mqtt_connected", "gauge", "1 while the broker connection is up, else 0.", s.mqtt_connected ? "1" : "0");
    e.one("sf_mqtt_connects_total", "counter", "Sessions the broker accepted.", number(c[MqttConnects]));
    e.family("sf_mqtt_broker_info", "gauge", "Always 1; the broker label names the broker in use.");
    e.sample("sf_mqtt_broker_info", "broker=\"" + label_value(s.mqtt_broker) + '"', "1");
    e.one("sf_mqtt_broker_changes_total", "counter", "Sessions accepted by another broker of the list than the one before.",
          number(c[MqttBrokerChanges]));
    e.one("sf_mqtt_disconnects_total", "counter", "Accepted sessions that ended.", number(c[MqttDisconnects]));
    e.one("sf_mqtt_connect_failures_total", "counter", "Connection attempts that did not reach a session.",
          number(c[MqttConnectFailures]));
    e.one("sf_mqtt_publications_accepted_total", "counter", "Publications handed to the MQTT client.",
          number(c[MqttAccepted]));
    e.family("sf_mqtt_publications_completed_total", "counter",
             "Publications with a completion, by result: confirmed, failed (connection lost, stopped), timed_out.");
    e.sample("sf_mqtt_publications_completed_total", "result=\"confirmed\"", number(c[MqttConfirmed]));
    e.sample("sf_mqtt_publications_completed_total", "result=\"failed\"", number(c[MqttFailed]));
    e.sample("sf_mqtt_publications_completed_total", "result=\"timed_out\"", number(c[MqttTimedOut]));
    e.family("sf_mqtt_publication_latency_seconds", "histogram", "Time from publication to its completion.");
    for (int b = 0; b < kLatencyBuckets; ++b) {
        e.sample("sf_mqtt_publication_latency_seconds_bucket", "le=\"" + number(kLatencyBounds[b]) + "\"",
                 number(s.latency_buckets[b]));
    }
    e.sample("sf_mqtt_publication_latency_seconds_bucket", "le=\"+Inf\"", number(s.latency_buckets[kLatencyBuckets]));
    e.sample("sf_mqtt_publication_latency_seconds_sum", "", number(s.latency_sum_s));
    e.sample("sf_mqtt_publication_latency_seconds_count", "", number(s.latency_buckets[kLatencyBuckets]));
    e.family("sf_mqtt_inbound_documents_total", "counter", "Inbound command documents by kind.");
    for (int k = 0; k < 4; ++k) {
        e.sample("sf_mqtt_inbound_documents_total", std::string("kind=\"") + kKinds[k] + '"', number(c[InboundDp + k]));
    }
    e.family("sf_mqtt_inbound_dropped_total", "counter", "Inbound documents dropped, by reason.");
    for (int r = 0; r < 4; ++r) {
        e.sample("sf_mqtt_inbound_dropped_total", std::string("reason=\"") + kDropReasons[r] + '"',
                 number(c[InboundDroppedOversize + r]));
    }
    e.one("sf_mqtt_session", "gauge", "Session number of the current or next connection (raised at every connect).",
          number(s.mqtt_session));
    e.one("sf_mqtt_session_kept", "gauge",
          "1 when the broker had kept the gateway's session at the last connect, else 0.",
          s.mqtt_session_kept ? "1" : "0");
    e.one("sf_mqtt_session_takeovers_total", "counter",
          "Sessions another client with the gateway's client id took over (two gateways with one id).",
          number(c[MqttTakeovers]));
    e.one("sf_commands_replayed_total", "counter",
          "Commands taken from the journal of the last run and handed on again after a restart.",
          number(c[CommandsReplayed]));
    e.family("sf_commands_expired_total", "counter",
             "Commands not applied because they were too old, by reason: message_expiry (MQTT 5), max_age (t).");
    e.sample("sf_commands_expired_total", "reason=\"message_expiry\"", number(c[CommandsExpired]));
    e.sample("sf_commands_expired_total", "reason=\"max_age\"", number(s.commands_too_old));
    e.one("sf_dispatch_queue_depth", "gauge", "Messages waiting for the dispatch thread.", number(s.dispatch_depth));
    e.one("sf_dispatch_queue_depth_max", "gauge", "Highest dispatch queue depth since the start.",
          number(s.dispatch_depth_max));
    e.one("sf_dispatch_messages_handled_total", "counter", "Messages the dispatch thread ran.",
          number(c[DispatchHandled]));
    e.one("sf_lan_clients", "gauge", "Authenticated LAN clients connected.", number(s.lan_clients));
    e.one("sf_lan_auth_refused_total", "counter", "LAN clients refused for a wrong local key.",
          number(c[LanAuthRefused]));
    e.one("sf_lan_clients_dropped_slow_total", "counter", "LAN clients dropped for reading too slowly.",
          number(c[LanDroppedSlow]));
    e.one("sf_lan_handshakes_failed_total", "counter", "LAN TLS handshakes that failed or did not finish in time.",
          number(c[LanHandshakeFailed]));
    e.family("sf_devices", "gauge", "Sub-devices by presence.");
    e.sample("sf_devices", "state=\"online\"", number(s.devices_online));
    e.sample("sf_devices", "state=\"offline\"", number(s.devices_offline));
    e.family("sf_dps", "gauge", "DPs of every device by publish state of their value.");
    for (int p = 0; p < 4; ++p) {
        e.sample("sf_dps", std::string("publish_state=\"") + kPublishStates[p] + '"', number(s.dps_by_state[p]));
    }
    e.one("sf_dps_pending", "gauge", "DP values stored but not confirmed by the cloud (local or sending).",
          number(s.dps_pending));
    e.one("sf_heartbeat_probes_total", "counter", "Heartbeat probes sent to silent sub-devices.",
          number(c[HeartbeatProbes]));
    e.one("sf_log_lines_dropped_total", "counter", "Log lines dropped because the log output was too slow.",
          number(s.log_dropped));
    e.one("sf_log_lines_suppressed_total", "counter", "Repeated error lines held back by the rate limit.",
          number(s.log_suppressed));
    e.one("sf_state_read_only", "gauge", "1 when the state file could only be read at start: nothing is stored.",
          s.state_read_only ? "1" : "0");
    e.one("sf_uptime_seconds", "gauge", "Seconds since the gateway process started.", number(s.uptime_s));
    e.one("sf_resident_memory_bytes", "gauge", "Resident memory of the gateway process.", number(s.rss_bytes));
    return e.take();
}

std::string json_document(const Snapshot &s, const std::string &gateway_id)
{
    const uint64_t *c = s.counters;
    auto field = [](const char *key, const std::string &value) { return std::string("\"") + key + "\":" + value; };
    std::string latency_le = "[";
    std::string latency_counts = "[";
    for (int b = 0; b <= kLatencyBuckets; ++b) {
        latency_le += (b != 0 ? "," : "") + (b < kLatencyBuckets ? number(kLatencyBounds[b]) : std::string("null"));
        latency_counts += (b != 0 ? "," : "") + number(s.latency_buckets[b]);
    }
    latency_le += ']';
    latency_counts += ']';
    std::string kinds;
    std::string drops;
    std::string states;
    for (int i = 0; i < 4; ++i) {
        kinds += (i != 0 ? "," : "") + field(kKinds[i], number(c[InboundDp + i]));
        drops += (i != 0 ? "," : "") + field(kDropReasons[i], number(c[InboundDroppedOversize + i]));
        states += (i != 0 ? "," : "") + field(kPublishStates[i], number(s.dps_by_state[i]));
    }
    return "{" + field("gateway", "\"" + label_value(gateway_id) + "\"") + "," + field("time", std::to_string(s.unix_time_s)) +
           "," +
           field("mqtt", "{" + field("connected", s.mqtt_connected ? "true" : "false") + "," +
                             field("broker", "\"" + label_value(s.mqtt_broker) + "\"") + "," +
                             field("broker_changes", number(c[MqttBrokerChanges])) + "," +
                             field("connects", number(c[MqttConnects])) + "," +
                             field("disconnects", number(c[MqttDisconnects])) + "," +
                             field("connect_failures", number(c[MqttConnectFailures])) + "," +
                             field("publications", "{" + field("accepted", number(c[MqttAccepted])) + "," +
                                                       field("confirmed", number(c[MqttConfirmed])) + "," +
                                                       field("failed", number(c[MqttFailed])) + "," +
                                                       field("timed_out", number(c[MqttTimedOut])) + "}") +
                             "," +
                             field("latency_s", "{" + field("le", latency_le) + "," + field("counts", latency_counts) +
                                                    "," + field("sum", number(s.latency_sum_s)) + "}") +
                             "," + field("inbound", "{" + kinds + "}") + "," + field("inbound_dropped", "{" + drops + "}") +
                             "," + field("session", number(s.mqtt_session)) + "," +
                             field("session_kept", s.mqtt_session_kept ? "true" : "false") + "," +
                             field("takeovers", number(c[MqttTakeovers])) + "}") +
           "," +
           field("commands", "{" + field("replayed", number(c[CommandsReplayed])) + "," +
                                 field("expired", number(c[CommandsExpired])) + "," +
                                 field("too_old", number(s.commands_too_old)) + "}") +
           "," +
           field("dispatch", "{" + field("depth", number(s.dispatch_depth)) + "," +
                                 field("depth_max", number(s.dispatch_depth_max)) + "," +
                                 field("handled", number(c[DispatchHandled])) + "}") +
           "," +
           field("lan", "{" + field("clients", number(s.lan_clients)) + "," +
                            field("auth_refused", number(c[LanAuthRefused])) + "," +
                            field("dropped_slow", number(c[LanDroppedSlow])) + "," +
                            field("handshakes_failed", number(c[LanHandshakeFailed])) + "}") +
           "," +
           field("registry", "{" + field("devices", number(s.devices)) + "," + field("online", number(s.devices_online)) +
                                 "," + field("offline", number(s.devices_offline)) + "," +
                                 field("dps", "{" + states + "}") + "," + field("pending", number(s.dps_pending)) + "," +
                                 field("pending_peak", number(s.dps_pending_peak)) + "," +
                                 field("heartbeat_probes", number(c[HeartbeatProbes])) + "}") +
           "," +
           field("log", "{" + field("dropped", number(s.log_dropped)) + "," +
                            field("suppressed", number(s.log_suppressed)) + "}") +
           "," +
           field("process", "{" + field("uptime_s", number(s.uptime_s)) + "," + field("rss_bytes", number(s.rss_bytes)) +
                                "}") +
           "}";
}

bool write_file_atomically(const std::string &path, const std::string &text, std::string *why)
{
    const std::string temp = path + ".tmp";
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        *why = "cannot write " + temp + ": " + std::strerror(errno);
        return false;
    }
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            *why = "cannot write " + temp + ": " + std::strerror(errno);
            ::close(fd);
            ::unlink(temp.c_str());
            return false;
        }
        done += static_cast<size_t>(n);
    }
    ::close(fd);
    if (::rename(temp.c_str(), path.c_str()) != 0) {
        *why = "cannot rename " + temp + " to " + path + ": " + std::strerror(errno);
        ::unlink(temp.c_str());
        return false;
    }
    return true;
}

} // namespace sf_metrics
