/*
 * End to end: confirmed (QoS 1) object DP reports per second and their
 * latency, from sf_obj_dp_report_async to the completion that the MQTT
 * client runs when the broker acknowledged the publication.
 *
 * Backend: the production POSIX backend (sf_posix: libmosquitto client,
 * registry, message module, heap) against a private mosquitto broker on a
 * free loopback port, started and killed by this program (the integration
 * tests' broker helper, reconfigured as below: no packet log, TCP_NODELAY).
 * The LAN channel is not started (no LAN client).
 *
 * The completion is observed by a linker wrap of mqc_dp_report_async
 * (--wrap): the wrapper hands the real client its own completion, which
 * first runs the module's completion (publish state and flow control) and
 * then takes the time. Reports rotate over 64 sub-devices with a fresh
 * value every time, 4 value DPs each, so nothing is dropped as unchanged.
 *
 * Each window runs with the DP state store off and on (store:0/1, a
 * state file next to this program, docs/state.md), so the store's cost
 * reads side by side. BM_StateWriteVolume reports at a steady rate and
 * counts what the process wrote (/proc/self/io) per report.
 *
 * BM_EndToEndRatio puts the floor beside the gateway in the same run: a
 * bare libmosquitto client (MQTT 5, QoS 1, its own network thread, the same
 * in-flight limit) publishing the very payload the gateway's client sent
 * first, on the gateway's uplink topic, against the same broker, with the
 * same window and count, in iterations that alternate with the gateway's;
 * its completion is libmosquitto's on_publish. scripts/bench_goals.py
 * checks the ratio of throughputs window by window.
 */
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <unistd.h>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include "cloud_defs/gw_intf.h"
#include "gateway/edge/wire_json.h"
#include "port/posix/metrics/metrics.h"
#include "port/posix/metrics/metrics_reporter.h"
#include "port/posix/mqtt/mqtt_config.h"
#include "port/posix/state/state_store.h"
#include "services/mqtt_client.h"
#include "smart_frame/smart_frame.h"
#include "support/bench_gateway.h"
#include "support/broker.h"

extern "C" OPERATE_RET __real_mqc_dp_report_async(RFC_DATA_S *rfc_data, UINT_T to_lmt_s, MQ_PUB_ASYNC_IFM_CB cb,
                                                  void *prv_data);

namespace {

using Clock = std::chrono::steady_clock;

constexpr int DEVICES = 64;
constexpr size_t MAX_WINDOW = 256;

/* One report in flight: its start, and the module's own completion to run first. */
struct InFlight {
    Clock::time_point start;
    MQ_PUB_ASYNC_IFM_CB module_cb = nullptr;
    const void *module_prv = nullptr;
};

InFlight g_slots[MAX_WINDOW];
thread_local size_t t_slot = 0; /* the slot of the report the calling thread is making */

std::mutex g_lock;
std::condition_variable g_done;
std::vector<size_t> g_free_slots;
std::vector<double> g_latency_us;
uint64_t g_completed = 0;
uint64_t g_failed = 0;

void completion(OPERATE_RET op_ret, const void *prv_data)
{
    InFlight *slot = static_cast<InFlight *>(const_cast<void *>(prv_data));
    slot->module_cb(op_ret, slot->module_prv);
    const double us = std::chrono::duration<double, std::micro>(Clock::now() - slot->start).count();
    std::lock_guard<std::mutex> hold(g_lock);
    g_latency_us.push_back(us);
    ++g_completed;
    g_failed += op_ret != RC_OK ? 1 : 0;
    g_free_slots.push_back(static_cast<size_t>(slot - g_slots));
    g_done.notify_all();
}

std::unique_ptr<it::Broker> g_broker;

/* The first payload the gateway's client published (what the bare publisher sends); under g_lock. */
std::string g_sample_payload;

bool start_once(std::string *why)
{
    static bool started = false;
    static bool ok = false;
    if (started) {
        return ok;
    }
    started = true;
    g_broker = std::make_unique<it::Broker>();
    if (!g_broker->start(why)) {
        return false;
    }
    /*
     * Restart it on the same port with a broker configured for service
     * rather than for debugging: the test helper logs every packet to a
     * file ("log_type all"), and without set_tcp_nodelay the broker's
     * acknowledgements wait for Nagle's algorithm (40 ms tails).
     */
    g_broker->stop();
    {
        std::ofstream conf(g_broker->dir() + "/mosquitto.conf", std::ios::trunc);
        conf << "listener " << g_broker->port() << " 127.0.0.1\n"
             << "allow_anonymous true\npersistence false\nlog_dest none\nset_tcp_nodelay true\n";
    }
    if (!g_broker->start(why)) {
        return false;
    }
    std::atexit([] {
        mqc_stop();
        g_broker.reset();
    });
    bench::start_gateway(DEVICES);
    MQC_CONFIG_S cfg{};
    cfg.port = g_broker->port();
    cfg.max_inflight = MAX_WINDOW;
    if (mqc_start(&cfg) != RC_OK) {
        *why = "mqc_start";
        return false;
    }
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (get_mqc_conn_stat() != 1) {
        if (Clock::now() > deadline) {
            *why = "no MQTT connection";
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    bench::start_gateway(DEVICES); /* the client set the network state: back to "cloud" for sure */
    ok = true;
    return true;
}

/* The state file next to this program, started afresh by the first benchmark that uses it. */
std::string state_file()
{
    static const std::string file = [] {
        char exe[4096] = {};
        const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
        std::string dir = n > 0 ? std::string(exe, static_cast<size_t>(n)) : std::string("./x");
        dir = dir.substr(0, dir.rfind('/'));
        const std::string path = dir + "/bench-state.db";
        for (const char *suffix : {"", "-wal", "-shm"}) {
            std::remove((path + suffix).c_str());
        }
        return path;
    }();
    return file;
}

/* A counter of /proc/self/io ("wchar": bytes handed to write(); "write_bytes": bytes sent to the disk). */
long long proc_io(const std::string &name)
{
    std::ifstream io("/proc/self/io");
    std::string key;
    long long value = 0;
    while (io >> key >> value) {
        if (key == name + ":") {
            return value;
        }
    }
    return -1;
}

/* The store on for one benchmark run, off again at its end. */
class StoreFor {
public:
    explicit StoreFor(bool on) : on_(on)
    {
        if (on_) {
            on_ = sf_state::start({state_file(), std::chrono::milliseconds(SF_STATE_WRITE_INTERVAL_MS)});
        }
    }
    ~StoreFor()
    {
        if (on_) {
            sf_state::stop();
        }
    }
    bool on() const { return on_; }

private:
    bool on_;
};

std::string report_text(uint64_t n)
{
    const long long v = static_cast<long long>(n % 900000);
    char text[96];
    std::snprintf(text, sizeof text, "{\"2\":%lld,\"5\":%lld,\"6\":%lld,\"7\":%lld}", v, v + 1, v + 2, v + 3);
    return text;
}

/* Take a free slot (waiting while the window is full) and report text for the n-th sub-device. */
bool report_in_slot(uint64_t n, const std::string &text)
{
    {
        std::unique_lock<std::mutex> hold(g_lock);
        g_done.wait(hold, [] { return !g_free_slots.empty(); });
        t_slot = g_free_slots.back();
        g_free_slots.pop_back();
    }
    const std::string id = bench::sub_id(static_cast<int>(n % DEVICES));
    g_slots[t_slot].start = Clock::now();
    return sf_obj_dp_report_async(id.c_str(), text.c_str(), FALSE) == RC_OK;
}

/* window: reports in flight at most, store_on: the state store runs. Each iteration is 2,000 reports, all completed. */
/* Give the gateway's reports `window` slots and forget earlier latencies and failures. */
void reset_gateway_window(size_t window)
{
    std::lock_guard<std::mutex> hold(g_lock);
    g_free_slots.clear();
    for (size_t i = 0; i < window; ++i) {
        g_free_slots.push_back(i);
    }
    g_latency_us.clear();
    g_failed = 0;
}

constexpr uint64_t PER_ITERATION = 2000;

/* PER_ITERATION confirmed reports through the gateway, all completed; their wall time in *seconds. */
bool gateway_batch(double *seconds, std::string *why)
{
    static uint64_t next_value = 1;
    const uint64_t target = g_completed + PER_ITERATION;
    const auto start = Clock::now();
    for (uint64_t i = 0; i < PER_ITERATION; ++i) {
        const uint64_t n = next_value++;
        if (!report_in_slot(n, report_text(n / DEVICES))) {
            *why = "a report was refused";
            return false;
        }
    }
    std::unique_lock<std::mutex> hold(g_lock);
    if (!g_done.wait_for(hold, std::chrono::seconds(30), [&] { return g_completed >= target; })) {
        *why = "completions missing after 30 s";
        return false;
    }
    *seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return true;
}

void confirmed_reports(benchmark::State &state, size_t window, bool store_on)
{
    std::string why;
    if (!start_once(&why)) {
        state.SkipWithError(why.c_str());
        return;
    }
    const StoreFor store(store_on);
    if (store_on && !store.on()) {
        state.SkipWithError("the state store did not start");
        return;
    }
    reset_gateway_window(window);
    uint64_t reports = 0;
    for (auto _ : state) {
        double seconds = 0;
        if (!gateway_batch(&seconds, &why)) {
            state.SkipWithError(why.c_str());
            return;
        }
        state.SetIterationTime(seconds);
        reports += PER_ITERATION;
    }
    std::lock_guard<std::mutex> hold(g_lock);
    const bench::Percentiles p = bench::percentiles(g_latency_us);
    state.counters["reports_per_s"] = benchmark::Counter(static_cast<double>(reports), benchmark::Counter::kIsRate);
    state.counters["p50_us"] = p.p50;
    state.counters["p99_us"] = p.p99;
    if (g_failed != 0) {
        state.SkipWithError("a publication was not acknowledged");
    }
}

/* range(0): reports in flight at most; range(1): 1 with the state store on. */
void BM_ConfirmedReports(benchmark::State &state)
{
    confirmed_reports(state, static_cast<size_t>(state.range(0)), state.range(1) != 0);
}

/*
 * The cost of the metrics (docs/metrics.md): range(0) 1 counts and runs the
 * reporter (file and health document every second), 0 counts nothing and
 * runs no reporter. Window 8, no state store.
 */
void BM_MetricsCost(benchmark::State &state)
{
    const bool on = state.range(0) != 0;
    sf_metrics::g_enabled.store(on);
    std::string why;
    if (on && !sf_metrics::start_reporter({"/tmp/sf_bench_metrics.prom", 1, 1, get_gw_cntl()->gw_if.id}, &why)) {
        state.SkipWithError(why.c_str());
        return;
    }
    confirmed_reports(state, 8, false);
    sf_metrics::stop_reporter();
    sf_metrics::g_enabled.store(true);
}

/*
 * A steady rate as a gateway sees it: range(0) reports per second, each of
 * one DP of the next sub-device, for 10 s, with the store on. Counters:
 * bytes handed to write() and bytes sent to the disk, per report.
 */
void BM_StateWriteVolume(benchmark::State &state)
{
    std::string why;
    if (!start_once(&why)) {
        state.SkipWithError(why.c_str());
        return;
    }
    {
        std::lock_guard<std::mutex> hold(g_lock);
        g_free_slots.clear();
        for (size_t i = 0; i < MAX_WINDOW; ++i) {
            g_free_slots.push_back(i);
        }
    }
    const StoreFor store(true);
    if (!store.on()) {
        state.SkipWithError("the state store did not start");
        return;
    }
    const int rate = static_cast<int>(state.range(0));
    constexpr int SECONDS = 10;
    static uint64_t next_value = 1000000;
    long long wchar = 0;
    long long disk = 0;
    int reports = 0;
    for (auto _ : state) {
        const long long wchar_before = proc_io("wchar");
        const long long disk_before = proc_io("write_bytes");
        const auto start = Clock::now();
        for (int i = 0; i < rate * SECONDS; ++i) {
            std::this_thread::sleep_until(start + std::chrono::microseconds(1000000LL * i / rate));
            const uint64_t n = next_value++;
            if (!report_in_slot(n, "{\"2\":" + std::to_string(n % 900000) + "}")) {
                state.SkipWithError("a report was refused");
                return;
            }
            ++reports;
        }
        /* one interval more, so the last reports' rows are counted too */
        std::this_thread::sleep_for(std::chrono::milliseconds(2 * SF_STATE_WRITE_INTERVAL_MS));
        wchar += proc_io("wchar") - wchar_before;
        disk += proc_io("write_bytes") - disk_before;
    }
    state.counters["write_bytes_per_report"] = static_cast<double>(wchar) / reports;
    state.counters["disk_bytes_per_report"] = static_cast<double>(disk) / reports;
}

/*
 * The bare publisher: a libmosquitto client of its own on the benchmark's
 * broker, publishing the gateway's first payload at QoS 1; its completion
 * is libmosquitto's on_publish, on mosquitto_loop_start's thread.
 */
class BareClient {
public:
    ~BareClient()
    {
        if (mosq_ != nullptr) {
            mosquitto_disconnect(mosq_);
            mosquitto_loop_stop(mosq_, false);
            mosquitto_destroy(mosq_);
        }
    }

    /* Connect; false with *why. Call after the gateway published once (its payload is the bare one's). */
    bool connect(std::string *why)
    {
        {
            std::lock_guard<std::mutex> hold(g_lock);
            payload_ = g_sample_payload;
        }
        if (payload_.empty()) {
            *why = "no gateway payload captured yet";
            return false;
        }
        static const bool lib_ready = mosquitto_lib_init() == MOSQ_ERR_SUCCESS;
        mosq_ = lib_ready ? mosquitto_new("sf-bench-bare", true, this) : nullptr;
        if (mosq_ == nullptr) {
            *why = "mosquitto_new";
            return false;
        }
        mosquitto_int_option(mosq_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        mosquitto_max_inflight_messages_set(mosq_, MAX_WINDOW);
        mosquitto_publish_callback_set(mosq_, on_publish);
        if (mosquitto_connect(mosq_, "127.0.0.1", g_broker->port(), 60) != MOSQ_ERR_SUCCESS ||
            mosquitto_loop_start(mosq_) != MOSQ_ERR_SUCCESS) {
            *why = "bare publisher: no connection";
            return false;
        }
        return true;
    }

    /* PER_ITERATION publications with at most `window` in flight, all acknowledged; wall time in *seconds. */
    bool batch(size_t window, double *seconds)
    {
        const uint64_t target = completed_ + PER_ITERATION;
        const auto start = Clock::now();
        for (uint64_t i = 0; i < PER_ITERATION; ++i) {
            std::unique_lock<std::mutex> hold(lock_);
            done_.wait(hold, [&] { return in_flight_ < window; });
            ++in_flight_;
            int mid = 0;
            /* stamped under the lock, before the acknowledgement can be handled */
            const auto now = Clock::now();
            if (mosquitto_publish(mosq_, &mid, topic_.c_str(), static_cast<int>(payload_.size()), payload_.data(), 1,
                                  false) != MOSQ_ERR_SUCCESS) {
                return false;
            }
            started_[static_cast<size_t>(mid) % started_.size()] = now;
        }
        std::unique_lock<std::mutex> hold(lock_);
        if (!done_.wait_for(hold, std::chrono::seconds(30), [&] { return completed_ >= target; })) {
            return false;
        }
        *seconds = std::chrono::duration<double>(Clock::now() - start).count();
        return true;
    }

    bench::Percentiles latency()
    {
        std::lock_guard<std::mutex> hold(lock_);
        return bench::percentiles(latency_us_);
    }

private:
    static void on_publish(struct mosquitto *, void *obj, int mid)
    {
        BareClient *self = static_cast<BareClient *>(obj);
        const auto now = Clock::now();
        std::lock_guard<std::mutex> hold(self->lock_);
        const auto started = self->started_[static_cast<size_t>(mid) % self->started_.size()];
        self->latency_us_.push_back(std::chrono::duration<double, std::micro>(now - started).count());
        --self->in_flight_;
        ++self->completed_;
        self->done_.notify_all();
    }

    struct mosquitto *mosq_ = nullptr;
    std::string payload_;
    const std::string topic_ = std::string("sf/") + bench::GW_ID + "/up"; /* the gateway's uplink topic */
    std::mutex lock_;
    std::condition_variable done_;
    size_t in_flight_ = 0;
    uint64_t completed_ = 0;
    std::vector<Clock::time_point> started_ = std::vector<Clock::time_point>(65536); /* by message id */
    std::vector<double> latency_us_;
};

/*
 * The gateway against the bare publisher, window range(0), store off. The
 * iterations alternate: 2,000 confirmed reports through the gateway, then
 * 2,000 bare publications, then the bare ones first, and so on, so that both
 * run under the same load of a shared machine; "ratio" is the gateway's
 * throughput over the bare publisher's, over the whole benchmark run.
 */
void BM_EndToEndRatio(benchmark::State &state)
{
    std::string why;
    if (!start_once(&why)) {
        state.SkipWithError(why.c_str());
        return;
    }
    const size_t window = static_cast<size_t>(state.range(0));
    reset_gateway_window(window);
    double seconds = 0;
    if (!gateway_batch(&seconds, &why)) { /* warms up, and captures the payload the bare publisher sends */
        state.SkipWithError(why.c_str());
        return;
    }
    reset_gateway_window(window);
    BareClient bare;
    if (!bare.connect(&why)) {
        state.SkipWithError(why.c_str());
        return;
    }
    double gateway_s = 0;
    double bare_s = 0;
    bool gateway_first = true;
    for (auto _ : state) {
        double g = 0;
        double b = 0;
        const bool ok = gateway_first ? gateway_batch(&g, &why) && bare.batch(window, &b)
                                      : bare.batch(window, &b) && gateway_batch(&g, &why);
        if (!ok) {
            state.SkipWithError(why.empty() ? "bare publisher: a publication failed or was not acknowledged" : why.c_str());
            return;
        }
        gateway_first = !gateway_first;
        gateway_s += g;
        bare_s += b;
        state.SetIterationTime(g + b);
    }
    const double count = static_cast<double>(state.iterations() * PER_ITERATION);
    std::lock_guard<std::mutex> hold(g_lock);
    const bench::Percentiles gateway_p = bench::percentiles(g_latency_us);
    const bench::Percentiles bare_p = bare.latency();
    state.counters["ratio"] = bare_s / gateway_s;
    state.counters["reports_per_s"] = count / gateway_s;
    state.counters["bare_per_s"] = count / bare_s;
    state.counters["p50_us"] = gateway_p.p50;
    state.counters["bare_p50_us"] = bare_p.p50;
    state.counters["p99_us"] = gateway_p.p99;
    state.counters["bare_p99_us"] = bare_p.p99;
    if (g_failed != 0) {
        state.SkipWithError("a publication was not acknowledged");
    }
}

} // namespace

extern "C" OPERATE_RET __wrap_mqc_dp_report_async(RFC_DATA_S *rfc_data, UINT_T to_lmt_s, MQ_PUB_ASYNC_IFM_CB cb,
                                                  void *prv_data)
{
    InFlight &slot = g_slots[t_slot];
    static std::atomic<bool> captured{false};
    const MSG_DATA_S *msg = captured.load(std::memory_order_relaxed) ? nullptr : sf_wire::message_of(rfc_data);
    if (msg != nullptr) {
        /* once: the client's own framing (mqtt_publish.cpp), so the bare publisher sends the same bytes */
        captured.store(true, std::memory_order_relaxed);
        std::string payload = sf_wire::wrap_frame({{"serno", msg->serno}, {"pro", MQC_PRO_DP_REPORT}},
                                                  reinterpret_cast<const char *>(msg->data), msg->len);
        std::lock_guard<std::mutex> hold(g_lock);
        g_sample_payload.swap(payload);
    }
    slot.module_cb = cb;
    slot.module_prv = prv_data;
    return __real_mqc_dp_report_async(rfc_data, to_lmt_s, completion, &slot);
}

BENCHMARK(BM_ConfirmedReports)
    ->ArgNames({"window", "store"})
    ->ArgsProduct({{1, 8, 64}, {0, 1}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EndToEndRatio)->ArgName("window")->Arg(1)->Arg(8)->Arg(64)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MetricsCost)->ArgName("metrics")->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StateWriteVolume)->ArgName("reports_per_s")->Arg(50)->Iterations(1)->Repetitions(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
