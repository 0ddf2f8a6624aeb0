#include "health.h"

#include <cjson/cJSON.h>
#include <mosquitto.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <random>
#include <thread>

#include "common/broker_session.h"
#include "link.h"
#include "common/json_reader.h"
#include "uplink.h"
#include "gateway/sync/annotated_lock.h"

namespace sfcloud {
namespace {

long long number_at(const cJSON *doc, std::initializer_list<const char *> path)
{
    const cJSON *at = doc;
    for (const char *key : path) {
        at = cJSON_GetObjectItemCaseSensitive(at, key);
    }
    return cJSON_IsNumber(at) ? static_cast<long long>(at->valuedouble) : 0;
}

long long sum_of(const cJSON *object)
{
    long long total = 0;
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, object)
    {
        total += cJSON_IsNumber(item) ? static_cast<long long>(item->valuedouble) : 0;
    }
    return total;
}

/* The 90th percentile's bucket of the latency histogram, as text. */
void latency_of(const cJSON *latency, HealthRow *row)
{
    const cJSON *le = cJSON_GetObjectItemCaseSensitive(latency, "le");
    const cJSON *counts = cJSON_GetObjectItemCaseSensitive(latency, "counts");
    const int buckets = cJSON_GetArraySize(counts);
    const double total = buckets > 0 ? cJSON_GetArrayItem(counts, buckets - 1)->valuedouble : 0;
    row->latency_p90 = "-";
    if (total <= 0) {
        return;
    }
    row->latency_mean_ms = cJSON_GetObjectItemCaseSensitive(latency, "sum")->valuedouble * 1000 / total;
    for (int b = 0; b < buckets; ++b) {
        if (cJSON_GetArrayItem(counts, b)->valuedouble >= 0.9 * total) {
            const cJSON *bound = cJSON_GetArrayItem(le, b);
            if (!cJSON_IsNumber(bound)) {
                const cJSON *last = cJSON_GetArrayItem(le, b - 1);
                row->latency_p90 = "> " + std::to_string(static_cast<long long>(last->valuedouble)) + " s";
            } else if (bound->valuedouble < 1) {
                row->latency_p90 = "<= " + std::to_string(static_cast<long long>(bound->valuedouble * 1000)) + " ms";
            } else {
                row->latency_p90 = "<= " + std::to_string(static_cast<long long>(bound->valuedouble)) + " s";
            }
            return;
        }
    }
}

struct Gatherer {
    std::string prefix; /* "<root>/"; set before libmosquitto's thread starts, read-only afterwards */
    apps::BrokerSession session;
    sf_sync::Mutex mutex;
    sf_sync::CondVar changed;
    int connect_rc SF_GUARDED_BY(mutex) = -1;
    bool subscribed SF_GUARDED_BY(mutex) = false;
    std::map<std::string, GatewayHealth> seen SF_GUARDED_BY(mutex);
};

void on_connect(mosquitto *mosq, void *self, int rc)
{
    auto *g = static_cast<Gatherer *>(self);
    if (rc == 0) {
        const std::string metrics = g->prefix + "+/metrics";
        const std::string status = g->prefix + "+/status";
        char *subs[] = {const_cast<char *>(metrics.c_str()), const_cast<char *>(status.c_str())};
        mosquitto_subscribe_multiple(mosq, nullptr, 2, subs, 0, 0, nullptr);
        g->session.accepted();
    }
    sf_sync::Guard hold(g->mutex);
    g->connect_rc = rc;
    g->changed.notify_all();
}

void on_subscribe(mosquitto *, void *self, int, int, const int *)
{
    auto *g = static_cast<Gatherer *>(self);
    sf_sync::Guard hold(g->mutex);
    g->subscribed = true;
    g->changed.notify_all();
}

void on_message(mosquitto *, void *self, const mosquitto_message *msg)
{
    auto *g = static_cast<Gatherer *>(self);
    const std::string topic = msg->topic;
    const size_t slash = topic.find('/', g->prefix.size());
    if (topic.compare(0, g->prefix.size(), g->prefix) != 0 || slash == std::string::npos) {
        return;
    }
    const std::string gateway = topic.substr(g->prefix.size(), slash - g->prefix.size());
    const std::string leaf = topic.substr(slash + 1);
    const std::string payload(static_cast<const char *>(msg->payload), static_cast<size_t>(msg->payloadlen));
    sf_sync::Guard hold(g->mutex);
    GatewayHealth &h = g->seen[gateway];
    if (leaf == "metrics") {
        h.document = payload;
    } else if (leaf == "status") {
        cJSON *doc = cJSON_Parse(payload.c_str());
        const cJSON *session = cJSON_GetObjectItemCaseSensitive(doc, "session");
        if (status_is_current(cJSON_IsNumber(session) ? static_cast<long long>(session->valuedouble) : 0,
                              &h.session)) {
            h.have_status = true;
            h.online = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(doc, "online"));
        }
        cJSON_Delete(doc);
    }
}

std::string row_json(const HealthRow &r)
{
    char latency[32];
    std::snprintf(latency, sizeof latency, "%.1f", r.latency_mean_ms);
    return "{\"gateway\":" + apps::json_quote(r.gateway) + ",\"link\":\"" + r.link +
           "\",\"pending\":" + std::to_string(r.pending) + ",\"drops\":" + std::to_string(r.drops) +
           ",\"devices\":" + std::to_string(r.devices) + ",\"online\":" + std::to_string(r.online) +
           ",\"latency_mean_ms\":" + (r.latency_mean_ms < 0 ? std::string("null") : std::string(latency)) +
           ",\"latency_p90\":" + apps::json_quote(r.latency_p90) + ",\"age_s\":" + std::to_string(r.age_s) +
           ",\"session\":" + std::to_string(r.session) + ",\"takeovers\":" + std::to_string(r.takeovers) + "}";
}

} // namespace

bool health_row(const std::string &gateway, const GatewayHealth &seen, long long now_s, HealthRow *out)
{
    cJSON *doc = cJSON_Parse(seen.document.c_str());
    if (doc == nullptr || !cJSON_IsObject(cJSON_GetObjectItemCaseSensitive(doc, "registry"))) {
        cJSON_Delete(doc);
        return false;
    }
    HealthRow row;
    row.gateway = gateway;
    const cJSON *mqtt = cJSON_GetObjectItemCaseSensitive(doc, "mqtt");
    const bool connected = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(mqtt, "connected"));
    row.link = seen.have_status && !seen.online ? "offline" : connected ? "up" : "down";
    row.pending = number_at(doc, {"registry", "pending"});
    row.devices = number_at(doc, {"registry", "devices"});
    row.online = number_at(doc, {"registry", "online"});
    row.drops = sum_of(cJSON_GetObjectItemCaseSensitive(mqtt, "inbound_dropped")) +
                number_at(doc, {"lan", "dropped_slow"}) + number_at(doc, {"log", "dropped"});
    latency_of(cJSON_GetObjectItemCaseSensitive(mqtt, "latency_s"), &row);
    row.age_s = now_s - number_at(doc, {"time"});
    row.session = seen.session;
    row.takeovers = number_at(doc, {"mqtt", "takeovers"});
    cJSON_Delete(doc);
    *out = row;
    return true;
}

void print_health_table(const std::map<std::string, GatewayHealth> &seen, long long now_s, FILE *out)
{
    std::fprintf(out, "%-16s %-8s %8s %6s %8s %10s %10s %6s %9s\n", "GATEWAY", "LINK", "PENDING", "DROPS", "DEVICES",
                 "LAT MEAN", "LAT P90", "AGE", "TAKEOVERS");
    for (const auto &entry : seen) {
        HealthRow r;
        if (!health_row(entry.first, entry.second, now_s, &r)) {
            std::fprintf(out, "%-16s %-8s %s\n", entry.first.c_str(),
                         entry.second.have_status ? (entry.second.online ? "up" : "offline") : "?",
                         "(no health document)");
            continue;
        }
        char devices[32];
        std::snprintf(devices, sizeof devices, "%lld/%lld", r.online, r.devices);
        char mean[32] = "-";
        if (r.latency_mean_ms >= 0) {
            std::snprintf(mean, sizeof mean, "%.1f ms", r.latency_mean_ms);
        }
        char age[32];
        std::snprintf(age, sizeof age, "%llds", r.age_s);
        std::fprintf(out, "%-16s %-8s %8lld %6lld %8s %10s %10s %6s %9lld\n", r.gateway.c_str(), r.link.c_str(),
                     r.pending, r.drops, devices, mean, r.latency_p90.c_str(), age, r.takeovers);
    }
}

int health(const Options &options, const apps::Description *names, std::string *detail)
{
    const apps::MqttSettings defaults = names != nullptr ? names->mqtt : apps::MqttSettings();
    const std::vector<sf_mqtt::Broker> brokers = broker_list(options, defaults);
    Gatherer g;
    g.prefix = (!options.root.empty() ? options.root : defaults.topic_root) + "/";
    mosquitto_lib_init();
    std::random_device seed;
    mosquitto *mosq = mosquitto_new(("sfcloud-health-" + std::to_string(seed() % 1000000000u)).c_str(), true, &g);
    if (mosq == nullptr) {
        *detail = "cannot create an MQTT client";
        return EXIT_NO_ANSWER;
    }
    mosquitto_connect_callback_set(mosq, on_connect);
    mosquitto_subscribe_callback_set(mosq, on_subscribe);
    mosquitto_message_callback_set(mosq, on_message);
    if (!options.username.empty()) {
        mosquitto_username_pw_set(mosq, options.username.c_str(), options.password.c_str());
    }
    if (!options.ca_file.empty()) {
        mosquitto_tls_set(mosq, options.ca_file.c_str(), nullptr, nullptr, nullptr, nullptr);
    }
    const std::string where = brokers[0].name();
    std::string why;
    g.session.start(mosq, brokers, say_broker_change);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options.timeout_s);
    if (g.session.wait_first(deadline, &why)) {
        why.clear();
        sf_sync::Guard hold(g.mutex);
        if (!g.changed.wait_until(g.mutex, deadline,
                                  [&g]() SF_REQUIRES(g.mutex) { return g.subscribed || g.connect_rc > 0; }) ||
            g.connect_rc != 0) {
            why = "the MQTT broker at " + where + " did not accept the subscription";
        } else {
            /* retained documents arrive at once; the wait also catches gateways that publish now */
            g.changed.wait_for(g.mutex, std::chrono::seconds(options.for_s > 0 ? options.for_s : 3), [] { return false; });
        }
    }
    g.session.stop();
    std::map<std::string, GatewayHealth> seen;
    {
        sf_sync::Guard hold(g.mutex);
        seen = g.seen;
    }
    mosquitto_destroy(mosq);
    if (!why.empty()) {
        *detail = why;
        return EXIT_NO_ANSWER;
    }
    const long long now_s = static_cast<long long>(std::time(nullptr));
    if (options.json) {
        for (const auto &entry : seen) {
            HealthRow r;
            if (health_row(entry.first, entry.second, now_s, &r)) {
                std::printf("%s\n", row_json(r).c_str());
            }
        }
    } else {
        print_health_table(seen, now_s, stdout);
    }
    *detail = seen.empty() ? "no gateway published its health on " + g.prefix + "+/metrics"
                           : std::to_string(seen.size()) + " gateway" + (seen.size() == 1 ? "" : "s");
    return seen.empty() ? EXIT_NO_ANSWER : EXIT_OK;
}

} // namespace sfcloud
