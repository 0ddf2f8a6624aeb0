/*
 * The periodic passes over the device list with 1,000 and 10,000
 * sub-devices (the heartbeat pass also with 100,000): heartbeat supervision, the DP sync run (nothing pending,
 * and one pending DP on every device), and the online/offline batch build.
 *
 * Backend: the POSIX runtime with the bench stand-ins for MQTT and LAN.
 * The dispatch thread is stopped after set-up (cmmod_stop), and the
 * benchmark thread calls the timed-message callbacks itself, so it is the
 * only thread running them, as the dispatch thread would be; publications
 * complete at once with success (standin_complete_pending).
 *
 * Steady state of the supervision pass: every device has a heartbeat
 * time-out of one hour, had a heartbeat, is online and reported; so a
 * pass decides, finds nothing changed and probes nobody.
 */
#include <benchmark/benchmark.h>

#include <string>

#include "backend/counting_memory.h"
#include "backend/standin_channels.h"
#include "port/posix/runtime/posix_runtime.h"
#include "services/uni_mutex.h"
#include "smart_frame/dp_lookup.h"
#include "smart_frame/frame_cntl.h"
#include "smart_frame/presence/presence.h"
#include "smart_frame/smart_frame.h"
#include "support/bench_gateway.h"

namespace {

constexpr TIME_S HB_TIMEOUT_S = 3600;
int g_loaded_subs = -1;
unsigned g_round = 0; /* of the batch benchmark, across its runs: the devices keep their state */

void probe_nobody(const CHAR_T *) {}

/* Run the batch builder until every marked device is reported. */
void drain_presence_batches()
{
    for (;;) {
        __tmm_dev_ol_sync_cb(sf::sf_cntl.tmm_dev_ol_sync);
        if (bench::standin_complete_pending(RC_OK) == 0) {
            return;
        }
    }
}

/*
 * What the batch builder leaves once every refreshed device is reported:
 * online devices marked reported. Set directly, because the builder walks
 * the list from its head for every batch, which at 100,000 devices takes
 * many minutes of set-up.
 */
void mark_reported()
{
    GW_CNTL_S *gw = get_gw_cntl();
    MutexLock(gw->dev_mutex);
    MutexLock(sf::sf_cntl.dos_mutex);
    for (DEV_CNTL_N_S *dev = gw->dev; dev != nullptr; dev = dev->next) {
        if (dev->attr.stat == DOS_ONLINE) {
            dev->attr.dosm = DOSM_REPORTED;
        }
    }
    MutexUnLock(sf::sf_cntl.dos_mutex);
    MutexUnLock(gw->dev_mutex);
}

/* subs supervised sub-devices, online and reported, the dispatch thread stopped. */
void prepare(benchmark::State &state, int subs)
{
    if (g_loaded_subs == subs) {
        return;
    }
    bench::start_gateway(subs);
    if (sf::sf_cntl.hb_start != TRUE && sf_sys_mag_hb_init(probe_nobody) != RC_OK) {
        state.SkipWithError("sf_sys_mag_hb_init");
        return;
    }
    cmmod_stop(); /* from now on only this thread runs the callbacks */
    for (int n = 0; n < subs; ++n) {
        const std::string id = bench::sub_id(n);
        if (sf_set_dev_hb_timeout(id.c_str(), HB_TIMEOUT_S, 2) != RC_OK || sf_refresh_dev_hb(id.c_str()) != RC_OK) {
            state.SkipWithError("heartbeat set-up");
            return;
        }
    }
    mark_reported();
    g_loaded_subs = subs;
    g_round = 0; /* every device online */
}

void set_heap_counters(benchmark::State &state, const bench::HeapCount &before)
{
    const bench::HeapCount used = bench::heap_diff(before, bench::heap_count());
    const double n = static_cast<double>(state.iterations());
    state.counters["mallocs_per_pass"] = static_cast<double>(used.mallocs) / n;
    state.counters["bytes_per_pass"] = static_cast<double>(used.bytes) / n;
}

void BM_HeartbeatPass(benchmark::State &state)
{
    prepare(state, static_cast<int>(state.range(0)));
    const bench::HeapCount before = bench::heap_count();
    for (auto _ : state) {
        __tmm_hb_fresh_ol_stat_cb(sf::sf_cntl.tmm_dev_hst);
    }
    set_heap_counters(state, before);
    if (bench::standin_complete_pending(RC_OK) != 0) {
        state.SkipWithError("the steady-state pass published something");
    }
}

/* Nothing unconfirmed: the run walks every device and packs nothing. */
void BM_DpSyncIdle(benchmark::State &state)
{
    prepare(state, static_cast<int>(state.range(0)));
    const size_t published = bench::standin_published();
    const bench::HeapCount before = bench::heap_count();
    for (auto _ : state) {
        __tmm_dp_sync_cb(sf::sf_cntl.tmm_dp_sync);
    }
    set_heap_counters(state, before);
    if (bench::standin_published() != published) {
        state.SkipWithError("an idle sync published something");
    }
}

/* DP 2 of every device unconfirmed (pv_stat 1): one re-publication per device, completed at once. */
void BM_DpSyncAllPending(benchmark::State &state)
{
    const int subs = static_cast<int>(state.range(0));
    prepare(state, subs);
    GW_CNTL_S *gw = get_gw_cntl();
    size_t republished = 0;
    bench::HeapCount used;
    for (auto _ : state) {
        state.PauseTiming();
        MutexLock(gw->dev_mutex);
        for (DEV_CNTL_N_S *dev = gw->dev; dev != nullptr; dev = dev->next) {
            if (DP_CNTL_S *dp = __locate_dp_ctl_by_dpid(dev, 2)) {
                dp->pv_stat = PV_STAT_LOCAL;
            }
        }
        MutexUnLock(gw->dev_mutex);
        const size_t published = bench::standin_published();
        const bench::HeapCount before = bench::heap_count();
        state.ResumeTiming();
        __tmm_dp_sync_cb(sf::sf_cntl.tmm_dp_sync);
        bench::standin_complete_pending(RC_OK);
        state.PauseTiming();
        const bench::HeapCount one = bench::heap_diff(before, bench::heap_count());
        used.mallocs += one.mallocs;
        used.bytes += one.bytes;
        republished += bench::standin_published() - published;
        state.ResumeTiming();
    }
    const double reports = static_cast<double>(republished);
    state.counters["reports_per_pass"] = reports / static_cast<double>(state.iterations());
    state.counters["mallocs_per_report"] = static_cast<double>(used.mallocs) / reports;
    state.counters["bytes_per_report"] = static_cast<double>(used.bytes) / reports;
}

/* Ten devices change state among subs; one builder run collects them, its publication completes. */
void BM_OnlineBatchBuild(benchmark::State &state)
{
    const int subs = static_cast<int>(state.range(0));
    prepare(state, subs);
    constexpr int CHANGED = 10;
    bench::HeapCount used;
    for (auto _ : state) {
        state.PauseTiming();
        const BOOL_T online = (g_round & 1) != 0 ? TRUE : FALSE; /* off, on, off, ... */
        for (int k = 0; k < CHANGED; ++k) {
            sf_dev_online_stat_update(bench::sub_id((k * subs) / CHANGED).c_str(), online);
        }
        ++g_round;
        const bench::HeapCount before = bench::heap_count();
        state.ResumeTiming();
        __tmm_dev_ol_sync_cb(sf::sf_cntl.tmm_dev_ol_sync);
        const size_t completed = bench::standin_complete_pending(RC_OK);
        state.PauseTiming();
        const bench::HeapCount one = bench::heap_diff(before, bench::heap_count());
        used.mallocs += one.mallocs;
        used.bytes += one.bytes;
        drain_presence_batches(); /* end the chain: the next round starts from idle */
        state.ResumeTiming();
        if (completed != 1) {
            state.SkipWithError(("the batch was not published: " + std::to_string(completed)).c_str());
            break;
        }
    }
    state.counters["mallocs_per_batch"] = static_cast<double>(used.mallocs) / static_cast<double>(state.iterations());
    state.counters["bytes_per_batch"] = static_cast<double>(used.bytes) / static_cast<double>(state.iterations());
}

} // namespace

BENCHMARK(BM_HeartbeatPass)->ArgName("subs")->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DpSyncIdle)->ArgName("subs")->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DpSyncAllPending)->ArgName("subs")->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OnlineBatchBuild)->ArgName("subs")->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
