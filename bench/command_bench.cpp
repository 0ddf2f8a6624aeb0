/*
 * Device commands of 4 DPs from sf_send_gw_dev_cmd to the application's
 * dev_obj_dp_cb, through the real POSIX message module (queue, dispatch
 * thread, handler): throughput, latency and heap use.
 *
 * Backend: the POSIX runtime with the bench stand-ins for MQTT and LAN
 * (nothing is published: each command changes every DP, so none is echoed).
 * The command text is parsed before the clock runs: parsing is the
 * receiving channel's work, and the tree is what the entry point takes.
 */
#include <benchmark/benchmark.h>

#include <cjson/cJSON.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "backend/counting_memory.h"
#include "smart_frame/smart_frame.h"
#include "support/bench_gateway.h"

namespace {

constexpr int CMD_DPS = 4;

std::atomic<uint64_t> g_delivered{0};
std::atomic<uint64_t> g_dps_seen{0};

void count_command(const KL_RECV_OBJ_DP_S *cmd)
{
    g_dps_seen.fetch_add(cmd->dps_cnt, std::memory_order_relaxed);
    g_delivered.fetch_add(1, std::memory_order_release);
}

void start_command_gateway()
{
    bench::start_gateway(10); /* fresh values: no command equals them */
    get_gw_cntl()->cbs.dev_obj_dp_cb = count_command;
}

std::vector<cJSON *> parse_commands(size_t n)
{
    const std::string text[2] = {bench::command_text(bench::sub_id(5), CMD_DPS, 0),
                                 bench::command_text(bench::sub_id(5), CMD_DPS, 1)};
    std::vector<cJSON *> trees(n);
    for (size_t i = 0; i < n; ++i) {
        trees[i] = cJSON_Parse(text[i & 1].c_str());
    }
    return trees;
}

bool send(cJSON *tree)
{
    SF_GW_DEV_CMD_S cmd{DP_CMD_MQ, tree};
    if (sf_send_gw_dev_cmd(&cmd) != RC_OK) {
        cJSON_Delete(tree);
        return false;
    }
    return true;
}

void wait_delivered(uint64_t target)
{
    while (g_delivered.load(std::memory_order_acquire) < target) {
        std::this_thread::yield();
    }
}

/* Batches of 1,000 commands posted back to back; the time runs until the last one reached the application. */
void BM_CommandThroughput(benchmark::State &state)
{
    start_command_gateway();
    constexpr size_t BATCH = 1000;
    uint64_t commands = 0;
    const bench::HeapCount before = bench::heap_count();
    bench::HeapCount parse_heap;
    for (auto _ : state) {
        const bench::HeapCount parse_start = bench::heap_count();
        std::vector<cJSON *> trees = parse_commands(BATCH);
        const bench::HeapCount parse_used = bench::heap_diff(parse_start, bench::heap_count());
        parse_heap.mallocs += parse_used.mallocs;
        parse_heap.bytes += parse_used.bytes;
        const uint64_t target = g_delivered.load() + BATCH;
        const auto start = std::chrono::steady_clock::now();
        for (cJSON *tree : trees) {
            if (!send(tree)) {
                state.SkipWithError("a command was refused");
                return;
            }
        }
        wait_delivered(target);
        const auto end = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
        commands += BATCH;
    }
    const bench::HeapCount used = bench::heap_diff(before, bench::heap_count());
    state.counters["commands_per_s"] =
        benchmark::Counter(static_cast<double>(commands), benchmark::Counter::kIsRate);
    state.counters["mallocs_per_cmd"] =
        static_cast<double>(used.mallocs - parse_heap.mallocs) / static_cast<double>(commands);
    state.counters["bytes_per_cmd"] = static_cast<double>(used.bytes - parse_heap.bytes) / static_cast<double>(commands);
    if (g_dps_seen.load() != g_delivered.load() * CMD_DPS) {
        state.SkipWithError("a command reached the application without all its DPs");
    }
}

/* One command at a time: from the call to the callback, waited for by spinning. */
void BM_CommandLatency(benchmark::State &state)
{
    start_command_gateway();
    std::vector<double> samples;
    samples.reserve(200000);
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<cJSON *> trees = parse_commands(1);
        const uint64_t target = g_delivered.load() + 1;
        state.ResumeTiming();
        const auto start = std::chrono::steady_clock::now();
        if (!send(trees[0])) {
            state.SkipWithError("a command was refused");
            return;
        }
        wait_delivered(target);
        samples.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }
    const bench::Percentiles p = bench::percentiles(samples);
    state.counters["p50_us"] = p.p50;
    state.counters["p99_us"] = p.p99;
}

} // namespace

BENCHMARK(BM_CommandThroughput)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CommandLatency)->Unit(benchmark::kMicrosecond)->Iterations(20000);

BENCHMARK_MAIN();
