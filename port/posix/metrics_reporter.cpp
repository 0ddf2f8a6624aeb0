/*
 * The reporter thread: every second it checks whether the file or the
 * document is due. Snapshots take dev_mutex briefly; nothing here is on the
 * report path.
 */
#include "metrics_reporter.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "channel_log.h"
#include "metrics.h"
#include "metrics_text.h"
#include "mqtt_raw_publish.h"

namespace sf_metrics {
namespace {

using SteadyClock = std::chrono::steady_clock;

struct Reporter {
    ReporterConfig config;
    std::mutex lock;
    std::condition_variable wake;
    bool stop = false;
    bool running = false;
    std::thread thread;
    std::mutex output_lock; /* one writer of the file at a time */
};

Reporter &reporter()
{
    static Reporter &r = *new Reporter();
    return r;
}

void write_file(Reporter &r, const Snapshot &s)
{
    if (r.config.file_path.empty()) {
        return;
    }
    std::string why;
    if (!write_file_atomically(r.config.file_path, prometheus_text(s, r.config.gateway_id), &why)) {
        CH_LOG_ERR("metrics file: %s", why.c_str());
    }
}

void publish(Reporter &r, const Snapshot &s)
{
    if (r.config.mqtt_period_s > 0) {
        sf_mqtt::publish_raw("metrics", json_document(s, r.config.gateway_id), 0, true);
    }
}

void run(Reporter *r)
{
    SteadyClock::time_point next_file = SteadyClock::now() + std::chrono::seconds(r->config.file_period_s);
    SteadyClock::time_point next_doc = SteadyClock::now();
    std::unique_lock<std::mutex> held(r->lock);
    while (!r->stop) {
        r->wake.wait_for(held, std::chrono::seconds(1), [r] { return r->stop; });
        if (r->stop) {
            break;
        }
        held.unlock();
        const SteadyClock::time_point now = SteadyClock::now();
        const bool file_due = !r->config.file_path.empty() && now >= next_file;
        const bool doc_due = r->config.mqtt_period_s > 0 && now >= next_doc;
        if (file_due || doc_due) {
            std::lock_guard<std::mutex> out(r->output_lock);
            const Snapshot s = snapshot();
            if (file_due) {
                write_file(*r, s);
                next_file = now + std::chrono::seconds(r->config.file_period_s);
            }
            /* not connected: tried again next second, so the cloud learns soon after a reconnect */
            if (doc_due && sf_mqtt::publish_raw("metrics", json_document(s, r->config.gateway_id), 0, true) == 0) {
                next_doc = now + std::chrono::seconds(r->config.mqtt_period_s);
            }
        }
        held.lock();
    }
}

} // namespace

bool start_reporter(const ReporterConfig &config, std::string *why)
{
    Reporter &r = reporter();
    if (config.file_period_s < 1 || config.mqtt_period_s < 0) {
        *why = "metrics periods must be at least 1 s (0 turns the MQTT document off)";
        return false;
    }
    std::lock_guard<std::mutex> held(r.lock);
    if (r.running) {
        *why = "the metrics reporter is already running";
        return false;
    }
    r.config = config;
    if (!config.file_path.empty()) {
        std::string failed;
        if (!write_file_atomically(config.file_path, prometheus_text(snapshot(), config.gateway_id), &failed)) {
            *why = "metrics file: " + failed;
            return false;
        }
    }
    r.stop = false;
    r.running = true;
    r.thread = std::thread(run, &r);
    return true;
}

void report_now()
{
    Reporter &r = reporter();
    std::lock_guard<std::mutex> out(r.output_lock);
    const Snapshot s = snapshot();
    write_file(r, s);
    publish(r, s);
}

void stop_reporter()
{
    Reporter &r = reporter();
    {
        std::lock_guard<std::mutex> held(r.lock);
        if (!r.running) {
            return;
        }
        r.stop = true;
    }
    r.wake.notify_all();
    r.thread.join();
    report_now();
    std::lock_guard<std::mutex> held(r.lock);
    r.running = false;
}

} // namespace sf_metrics
