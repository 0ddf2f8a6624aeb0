/*
 * The periodic outputs of the metrics (docs/metrics.md): the Prometheus
 * file for node_exporter's textfile collector, and the health document
 * published on "<topic_root>/<gateway id>/metrics" (retained, QoS 0).
 * One thread; started after the MQTT client, stopped before it.
 */
#ifndef SF_POSIX_METRICS_REPORTER_H
#define SF_POSIX_METRICS_REPORTER_H

#include <string>

namespace sf_metrics {

struct ReporterConfig {
    std::string file_path; /* empty: no file */
    int file_period_s = 15;
    int mqtt_period_s = 60; /* 0: no MQTT document */
    std::string gateway_id;
};

/* Start the reporter; false with *why when a setting is unusable. Writes the file once before returning. */
bool start_reporter(const ReporterConfig &config, std::string *why);

/*
 * Stop and join it, then write one last file and document that say the
 * gateway is down (sf_up 0, sf_mqtt_connected 0; docs/metrics.md). Idempotent.
 */
void stop_reporter();

/* Write the file and publish the document now (tests, and the demo's last look). */
void report_now();

} // namespace sf_metrics

#endif /* SF_POSIX_METRICS_REPORTER_H */
