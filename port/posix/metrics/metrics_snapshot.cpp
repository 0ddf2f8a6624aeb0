/*
 * A snapshot of the metrics: the counters, plus what the registry, the
 * channels and the process know at this moment.
 */
#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "services/mqtt_client.h"
#include "services/uni_mutex.h"
#include "gateway/registry/gw_registry.h"
#include "gateway/edge/wire_validate.h"
#include "port/posix/lan/lan_config.h"
#include "port/posix/mqtt/mqtt_config.h"
#include "port/posix/log/log_output.h"
#include "port/posix/state/state_store.h"
#include "metrics.h"

namespace sf_metrics {
namespace {

using SteadyClock = std::chrono::steady_clock;

const SteadyClock::time_point g_started = SteadyClock::now();

uint64_t resident_bytes()
{
    FILE *statm = std::fopen("/proc/self/statm", "r");
    if (statm == nullptr) {
        return 0;
    }
    unsigned long size = 0;
    unsigned long resident = 0;
    const int got = std::fscanf(statm, "%lu %lu", &size, &resident);
    std::fclose(statm);
    return got == 2 ? static_cast<uint64_t>(resident) * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) : 0;
}

/*
 * attr.stat is the smart frame's, written under its own presence lock,
 * which the backend cannot take. The byte is read as it stands: a gauge
 * may be one change behind, never torn.
 */
#if defined(__clang__) || defined(__GNUC__)
__attribute__((no_sanitize("thread")))
#endif
bool online_of(const DEV_CNTL_N_S *node)
{
    return __atomic_load_n(&node->attr.stat, __ATOMIC_RELAXED) == DOS_ONLINE;
}

void add_registry(Snapshot *out)
{
    if (!gw_registry::loaded()) {
        return;
    }
    GW_CNTL_S *gw = get_gw_cntl();
    const DEV_CNTL_N_S *own = get_gw_dev_cntl();
    MutexLock(gw->dev_mutex);
    for (const DEV_CNTL_N_S *node = gw->dev; node != nullptr; node = node->next) {
        if (node->dev_delete != 0) {
            continue;
        }
        if (node != own) {
            ++out->devices;
            ++(online_of(node) ? out->devices_online : out->devices_offline);
        }
        for (BYTE_T i = 0; i < node->dp_num; ++i) {
            const DP_PV_STAT_E state = node->dp[i].pv_stat;
            if (state <= PV_STAT_CLOUD) {
                ++out->dps_by_state[state];
            }
        }
    }
    MutexUnLock(gw->dev_mutex);
    out->dps_pending = out->dps_by_state[PV_STAT_LOCAL] + out->dps_by_state[PV_STAT_SENDING];
    out->dps_pending_peak = out->dps_pending;
}

} // namespace

Snapshot snapshot()
{
    Snapshot out;
    for (int c = 0; c < kCounterCount; ++c) {
        out.counters[c] = g_counters[c].load(std::memory_order_relaxed);
    }
    uint64_t cumulative = 0;
    for (int b = 0; b <= kLatencyBuckets; ++b) {
        cumulative += g_latency[b].load(std::memory_order_relaxed);
        out.latency_buckets[b] = cumulative;
    }
    out.latency_sum_s = static_cast<double>(g_latency_sum_us.load(std::memory_order_relaxed)) / 1e6;
    out.mqtt_connected = get_mqc_conn_stat() != 0;
    out.mqtt_session = mqc_session_number();
    out.mqtt_session_kept = mqc_session_kept() != 0;
    out.commands_too_old = wire_expired_refusals();
    out.mqtt_broker = mqtt_broker_in_use();
    out.dispatch_depth = g_dispatch_depth.load(std::memory_order_relaxed);
    out.dispatch_depth_max = g_dispatch_depth_max.load(std::memory_order_relaxed);
    out.lan_clients = lan_authed_client_count();
    add_registry(&out);
    out.log_dropped = sf_log::dropped_lines();
    out.log_suppressed = sf_log::suppressed_lines();
    out.state_read_only = sf_state::read_only();
    out.uptime_s = std::chrono::duration<double>(SteadyClock::now() - g_started).count();
    out.rss_bytes = resident_bytes();
    out.unix_time_s = static_cast<int64_t>(std::time(nullptr));
    return out;
}

void reset()
{
    for (std::atomic<uint64_t> &c : g_counters) {
        c.store(0, std::memory_order_relaxed);
    }
    for (std::atomic<uint64_t> &b : g_latency) {
        b.store(0, std::memory_order_relaxed);
    }
    g_latency_sum_us.store(0, std::memory_order_relaxed);
    g_dispatch_depth_max.store(g_dispatch_depth.load(std::memory_order_relaxed), std::memory_order_relaxed);
}

} // namespace sf_metrics
