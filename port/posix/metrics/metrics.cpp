/*
 * The counters of metrics.h and their event functions. The snapshot is in
 * metrics_snapshot.cpp, so that a runtime without the channels (the
 * benchmarks') can count without linking them.
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include "metrics.h"

#include <cstring>

#include "gateway/sync/annotated_lock.h"
#include "port/posix/mqtt/mqtt_config.h"
#include "services/log_front.h"

namespace sf_metrics {

std::atomic<uint64_t> g_counters[kCounterCount];
std::atomic<uint64_t> g_dispatch_depth{0};
std::atomic<uint64_t> g_dispatch_depth_max{0};
std::atomic<uint64_t> g_latency[kLatencyBuckets + 1];
std::atomic<uint64_t> g_latency_sum_us{0};
std::atomic<bool> g_enabled{true};

namespace {

using SteadyClock = std::chrono::steady_clock;

sf_sync::Mutex g_broker_mutex;
std::string g_broker SF_GUARDED_BY(g_broker_mutex);

} // namespace

void mqtt_broker_in_use(const std::string &name)
{
    sf_sync::Guard hold(g_broker_mutex);
    g_broker = name;
}

std::string mqtt_broker_in_use()
{
    sf_sync::Guard hold(g_broker_mutex);
    return g_broker;
}

void publication_completed(int op_ret, SteadyClock::time_point accepted)
{
    if (!g_enabled.load(std::memory_order_relaxed)) {
        return;
    }
    if (op_ret == 0) {
        count(MqttConfirmed);
    } else {
        count(op_ret == MQC_RC_TIMEOUT ? MqttTimedOut : MqttFailed);
    }
    const double seconds = std::chrono::duration<double>(SteadyClock::now() - accepted).count();
    int bucket = 0;
    while (bucket < kLatencyBuckets && seconds > kLatencyBounds[bucket]) {
        ++bucket;
    }
    g_latency[bucket].fetch_add(1, std::memory_order_relaxed);
    g_latency_sum_us.fetch_add(static_cast<uint64_t>(seconds * 1e6), std::memory_order_relaxed);
}

void mqtt_session_up(const char *host, int port)
{
    count(MqttConnects);
    SF_LOG_NOTICE("MQTT session with %s:%d up", host, port);
}

void mqtt_session_down(const char *host, int port)
{
    count(MqttDisconnects);
    SF_LOG_NOTICE("MQTT session with %s:%d down", host, port);
}

void inbound_refused(const char *why)
{
    if (why != nullptr && std::strcmp(why, "document nested too deep") == 0) {
        count(InboundDroppedTooDeep);
    } else if (why != nullptr && std::strcmp(why, "document too large") == 0) {
        count(InboundDroppedOversize);
    } else {
        count(InboundDroppedInvalid);
    }
}

} // namespace sf_metrics
