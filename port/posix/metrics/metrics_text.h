/*
 * The two renderings of a metrics snapshot (docs/metrics.md): Prometheus
 * text format for node_exporter's textfile collector, and the JSON health
 * document published over MQTT. Any thread.
 */
#ifndef SF_POSIX_METRICS_TEXT_H
#define SF_POSIX_METRICS_TEXT_H

#include <string>

#include "metrics.h"

namespace sf_metrics {

/* Prometheus text exposition format 0.0.4; every sample carries gateway="<gateway_id>". */
std::string prometheus_text(const Snapshot &s, const std::string &gateway_id);

/* The health document, one JSON object. */
std::string json_document(const Snapshot &s, const std::string &gateway_id);

/*
 * Replace the file at path with text so that a reader sees the old file or
 * the new one, never a part: written to "<path>.tmp" in the same
 * directory, synced, then renamed over path. false with *why on failure.
 */
bool write_file_atomically(const std::string &path, const std::string &text, std::string *why);

} // namespace sf_metrics

#endif /* SF_POSIX_METRICS_TEXT_H */
