/*
 * Counters and gauges of the POSIX runtime, for operators (docs/metrics.md).
 *
 * Event points in the channels, the dispatch queue and the MQTT client
 * call the inline functions below: one relaxed atomic add, no lock, so they
 * may stay on in the report path. What the registry and the process know
 * (devices, presence, DP publish states, memory) is read only when a
 * snapshot is taken. Any thread.
 */
#ifndef SF_POSIX_METRICS_H
#define SF_POSIX_METRICS_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace sf_metrics {

enum Counter : int {
    MqttConnects,        /* sessions the broker accepted */
    MqttDisconnects,     /* accepted sessions that ended */
    MqttConnectFailures, /* connection attempts that did not reach a session */
    MqttAccepted,        /* publications libmosquitto accepted */
    MqttConfirmed,       /* QoS 1 publications the broker acknowledged */
    MqttFailed,          /* publications completed with the connection lost or the client stopped */
    MqttTimedOut,        /* publications not acknowledged within their time limit */
    InboundDp,           /* inbound documents by kind (MQTT command topics) */
    InboundGroup,
    InboundScene,
    InboundQuery,
    InboundDroppedOversize,
    InboundDroppedTooDeep,
    InboundDroppedQueueFull,
    InboundDroppedInvalid, /* not JSON, or bytes after the document */
    DispatchHandled,     /* messages the dispatch thread ran */
    LanAuthRefused,
    LanDroppedSlow,
    LanHandshakeFailed,  /* TLS handshakes of LAN clients that failed or did not finish in time */
    HeartbeatProbes,     /* probes sent to silent sub-devices */
    MqttTakeovers,       /* sessions another client with our client id took from us */
    CommandsReplayed,    /* commands taken from the journal of the last run and handed on again */
    CommandsExpired,     /* commands dropped because their MQTT 5 message expiry passed while they waited */
    MqttBrokerChanges,   /* sessions accepted by another broker of the list than the previous session */
    kCounterCount
};

/* The latency buckets of publication completions, upper bounds in seconds; the last is +Inf. */
constexpr double kLatencyBounds[] = {0.01, 0.05, 0.1, 0.5, 1, 5, 30};
constexpr int kLatencyBuckets = sizeof kLatencyBounds / sizeof kLatencyBounds[0];

extern std::atomic<uint64_t> g_counters[kCounterCount];
extern std::atomic<uint64_t> g_dispatch_depth;
extern std::atomic<uint64_t> g_dispatch_depth_max;
/* per bucket, not cumulative; the last slot is above the highest bound */
extern std::atomic<uint64_t> g_latency[kLatencyBuckets + 1];
extern std::atomic<uint64_t> g_latency_sum_us;
/* Counting on (the default). Only the benchmarks turn it off, to measure what counting costs. */
extern std::atomic<bool> g_enabled;

inline void count(Counter c)
{
    if (g_enabled.load(std::memory_order_relaxed)) {
        g_counters[c].fetch_add(1, std::memory_order_relaxed);
    }
}

/* The dispatch queue holds depth messages now (after a post). */
inline void dispatch_depth(size_t depth)
{
    if (!g_enabled.load(std::memory_order_relaxed)) {
        return;
    }
    g_dispatch_depth.store(depth, std::memory_order_relaxed);
    uint64_t high = g_dispatch_depth_max.load(std::memory_order_relaxed);
    while (depth > high && !g_dispatch_depth_max.compare_exchange_weak(high, depth, std::memory_order_relaxed)) {
    }
}

/* A message was taken off the queue to run; depth left behind. */
inline void dispatch_handled(size_t depth)
{
    if (g_enabled.load(std::memory_order_relaxed)) {
        g_dispatch_depth.store(depth, std::memory_order_relaxed);
    }
    count(DispatchHandled);
}

/*
 * A publication with a completion completed with op_ret (0 acknowledged)
 * after accepted: counted by outcome, latency in the histogram.
 */
void publication_completed(int op_ret, std::chrono::steady_clock::time_point accepted);

/* The broker accepted a session / an accepted session ended: counted, and logged at notice level. */
void mqtt_session_up(const char *host, int port);
void mqtt_session_down(const char *host, int port);

/* The broker in use ("host:port"): the last that accepted a session, else the first to try. */
void mqtt_broker_in_use(const std::string &name);
std::string mqtt_broker_in_use();

/* A refused inbound document, by the reason sf_wire gave (within_bounds, parse_bounded). */
void inbound_refused(const char *why);

/* An inbound MQTT document of kind (sf_wire::CmdKind as int: Dp, Group, Scene, Query). */
inline void inbound_received(int kind)
{
    if (kind >= 0 && kind < 4) {
        count(static_cast<Counter>(InboundDp + kind));
    }
}

struct Snapshot {
    bool up = true; /* false only in the last snapshot of a clean stop */
    uint64_t counters[kCounterCount] = {};
    uint64_t latency_buckets[kLatencyBuckets + 1] = {}; /* cumulative; the last is +Inf = count */
    double latency_sum_s = 0;
    bool mqtt_connected = false;
    uint64_t mqtt_session = 0;        /* session number (docs/wire-protocol.md) */
    bool mqtt_session_kept = false;   /* the broker had our session at the last accepted connect */
    uint64_t commands_too_old = 0;    /* commands refused because their "t" was older than the limit */
    std::string mqtt_broker; /* mqtt_broker_in_use() */
    uint64_t dispatch_depth = 0;
    uint64_t dispatch_depth_max = 0;
    uint64_t lan_clients = 0;
    uint64_t devices = 0; /* sub-devices, the gateway's own node not counted */
    uint64_t devices_online = 0;
    uint64_t devices_offline = 0;
    uint64_t dps_by_state[4] = {}; /* PV_STAT_INVALID, LOCAL, SENDING, CLOUD (every node) */
    uint64_t dps_pending = 0;      /* LOCAL + SENDING: values the cloud has not confirmed */
    uint64_t dps_pending_peak = 0; /* the highest dps_pending the reporter saw since its last document */
    uint64_t log_dropped = 0;
    uint64_t log_suppressed = 0;
    bool state_read_only = false; /* the state file could only be read: nothing is stored */
    double uptime_s = 0;
    uint64_t rss_bytes = 0;
    int64_t unix_time_s = 0;
};

/*
 * Everything now. Takes dev_mutex for the walk of the registry: MUST NOT be
 * called with it held. Without a loaded registry the registry part is zero.
 */
Snapshot snapshot();

/* Set every counter and the highest depth to zero (tests). */
void reset();

} // namespace sf_metrics

#endif /* SF_POSIX_METRICS_H */
