/*
 * The reporter thread: every second it checks whether the file or the
 * document is due. Snapshots take dev_mutex briefly; nothing here is on the
 * report path.
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include "metrics_reporter.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "gateway/sync/annotated_lock.h"
#include "metrics.h"
#include "metrics_text.h"
#include "port/posix/mqtt/mqtt_raw_publish.h"
#include "services/log_front.h"

namespace sf_metrics {
namespace {

using SteadyClock = std::chrono::steady_clock;

struct Reporter {
    /* Set by start_reporter before the thread exists, read-only while it runs: read without a lock. */
    ReporterConfig config;
    sf_sync::Mutex lock;
    sf_sync::CondVar wake;
    bool stop SF_GUARDED_BY(lock) = false;
    bool running SF_GUARDED_BY(lock) = false;
    std::thread thread; /* started by start_reporter, joined by stop_reporter */
    sf_sync::Mutex output_lock; /* one writer of the file at a time: a snapshot and what is made of it */
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
        SF_LOG_ERR("metrics file: %s", why.c_str());
    }
}

/* true when the document went out (or there is none to send). */
bool publish(Reporter &r, const Snapshot &s)
{
    return r.config.mqtt_period_s <= 0 ||
           sf_mqtt::publish_raw("metrics", json_document(s, r.config.gateway_id), 0, true) == 0;
}

/*
 * Each second: a snapshot, so that the document can tell the highest
 * number of pending values since the last one (an outage's values are
 * usually confirmed within a second of the reconnect, before the next
 * document), then the file and the document when due. A document that
 * cannot go out (no connection) is tried again the next second.
 */
void run(Reporter *r) SF_EXCLUDES(r->lock, r->output_lock)
{
    SteadyClock::time_point next_file = SteadyClock::now() + std::chrono::seconds(r->config.file_period_s);
    SteadyClock::time_point next_doc = SteadyClock::now();
    uint64_t peak = 0;
    sf_sync::Guard held(r->lock);
    while (!r->stop) {
        r->wake.wait_for(r->lock, std::chrono::seconds(1), [r]() SF_REQUIRES(r->lock) { return r->stop; });
        if (r->stop) {
            break;
        }
        held.unlock();
        {
            sf_sync::Guard out(r->output_lock);
            Snapshot s = snapshot();
            const SteadyClock::time_point now = SteadyClock::now();
            peak = std::max(peak, s.dps_pending);
            s.dps_pending_peak = peak;
            if (!r->config.file_path.empty() && now >= next_file) {
                write_file(*r, s);
                next_file = now + std::chrono::seconds(r->config.file_period_s);
            }
            if (r->config.mqtt_period_s > 0 && now >= next_doc && publish(*r, s)) {
                next_doc = now + std::chrono::seconds(r->config.mqtt_period_s);
                peak = s.dps_pending;
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
    sf_sync::Guard held(r.lock);
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
    sf_sync::Guard out(r.output_lock);
    const Snapshot s = snapshot();
    write_file(r, s);
    publish(r, s);
}

namespace {

/*
 * The last file and document of a clean stop: the gateway is down and its
 * session is being closed, so a scrape after the stop (node_exporter keeps
 * serving the file) does not show a connected gateway that is gone. The
 * counters keep their final values.
 */
void report_stopped(Reporter &r) SF_EXCLUDES(r.output_lock)
{
    sf_sync::Guard out(r.output_lock);
    Snapshot s = snapshot();
    s.up = false;
    s.mqtt_connected = false;
    write_file(r, s);
    publish(r, s);
}

} // namespace

void stop_reporter()
{
    Reporter &r = reporter();
    {
        sf_sync::Guard held(r.lock);
        if (!r.running) {
            return;
        }
        r.stop = true;
    }
    r.wake.notify_all();
    r.thread.join();
    report_stopped(r);
    sf_sync::Guard held(r.lock);
    r.running = false;
}

} // namespace sf_metrics
