/*
 * Cost of one object DP report on the caller's thread, beside the cost of
 * cJSON parsing and printing the same text (the baseline, same run).
 *
 * Backend: the POSIX runtime (registry, message module, rfc blocks, OS
 * layer) with the bench stand-ins for MQTT and LAN (backend/): the LAN
 * channel takes the block, and the publication completes at once with
 * success, right after sf_obj_dp_report_async returns, on the same thread.
 * So one iteration is: lookup, network check, verification against the
 * schema, store of the new values (pv_stat 2), envelope, message block,
 * LAN offer, MQTT hand-over, completion (pv_stat 3 and flow-control count).
 *
 * Every iteration alternates between two texts whose every DP differs, so
 * nothing is dropped as unchanged. Counters: Malloc calls and bytes per
 * iteration (cJSON's allocations included: it is hooked to Malloc).
 */
#include <benchmark/benchmark.h>

#include <cjson/cJSON.h>

#include <string>

#include "backend/counting_memory.h"
#include "backend/standin_channels.h"
#include "services/uni_memory.h"
#include "smart_frame/smart_frame.h"
#include "support/bench_gateway.h"

namespace {

void set_heap_counters(benchmark::State &state, const bench::HeapCount &before)
{
    const bench::HeapCount used = bench::heap_diff(before, bench::heap_count());
    const double n = static_cast<double>(state.iterations());
    state.counters["mallocs_per_op"] = benchmark::Counter(static_cast<double>(used.mallocs) / n);
    state.counters["bytes_per_op"] = benchmark::Counter(static_cast<double>(used.bytes) / n);
}

/* One report of `dps` changed DPs to one sub-device of a registry of `subs`. */
void report_loop(benchmark::State &state, int subs, int dps)
{
    bench::start_gateway(subs);
    const std::string id = bench::sub_id(subs / 2);
    const std::string text[2] = {bench::report_text(dps, 0), bench::report_text(dps, 1)};
    const size_t published_before = bench::standin_published();
    const bench::HeapCount before = bench::heap_count();
    int variant = 0;
    for (auto _ : state) {
        const OPERATE_RET rc = sf_obj_dp_report_async(id.c_str(), text[variant].c_str(), FALSE);
        if (rc != RC_OK || bench::standin_complete_pending(RC_OK) != 1) {
            state.SkipWithError("the report was not published");
            break;
        }
        variant ^= 1;
    }
    set_heap_counters(state, before);
    if (bench::standin_published() - published_before != static_cast<size_t>(state.iterations())) {
        state.SkipWithError("a report was dropped");
    }
    state.counters["report_bytes"] = static_cast<double>(bench::standin_last_report_len());
}

void BM_ReportPath(benchmark::State &state)
{
    report_loop(state, 10, static_cast<int>(state.range(0)));
}

/* cJSON_Parse + cJSON_PrintUnformatted of the very text the report path receives. */
void BM_Baseline_ParsePrint(benchmark::State &state)
{
    bench::start_gateway(10); /* the same process state as the report path, cJSON hooks included */
    const int dps = static_cast<int>(state.range(0));
    const std::string text[2] = {bench::report_text(dps, 0), bench::report_text(dps, 1)};
    const bench::HeapCount before = bench::heap_count();
    int variant = 0;
    for (auto _ : state) {
        cJSON *doc = cJSON_Parse(text[variant].c_str());
        char *printed = cJSON_PrintUnformatted(doc);
        benchmark::DoNotOptimize(printed);
        Free(printed);
        cJSON_Delete(doc);
        variant ^= 1;
    }
    set_heap_counters(state, before);
}

/* The 4-DP report with 10, 1,000, 10,000 and 100,000 sub-devices registered. */
void BM_ReportScale(benchmark::State &state)
{
    report_loop(state, static_cast<int>(state.range(0)), 4);
}

} // namespace

BENCHMARK(BM_ReportPath)->ArgName("dps")->Arg(1)->Arg(4)->Arg(16);
BENCHMARK(BM_Baseline_ParsePrint)->ArgName("dps")->Arg(1)->Arg(4)->Arg(16);
BENCHMARK(BM_ReportScale)->ArgName("subs")->Arg(10)->Arg(1000)->Arg(10000)->Arg(100000);

BENCHMARK_MAIN();
