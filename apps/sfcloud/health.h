/*
 * sfcloud health: every gateway's health document (docs/metrics.md),
 * gathered from "<root>/+/metrics" and "<root>/+/status" (both retained),
 * shown as a table or, with --json, one JSON object per gateway.
 */
#ifndef SFCLOUD_HEALTH_H
#define SFCLOUD_HEALTH_H

#include <cstdio>
#include <map>
#include <string>

#include "common/description.h"
#include "options.h"

namespace sfcloud {

/* What one gateway last said about itself. */
struct GatewayHealth {
    bool have_status = false;
    bool online = false;         /* the status topic: the broker's view (will message on a lost session) */
    long long session = 0;       /* the newest session number its status carried; older statuses are ignored */
    std::string document;        /* the last health document, "" when none came */
};

/* The summary row of one gateway; false when its document is not a health document. */
struct HealthRow {
    std::string gateway;
    std::string link;      /* "up", "down", "offline" */
    long long pending = 0; /* DP values not confirmed */
    long long drops = 0;   /* inbound documents dropped + LAN clients dropped as slow + log lines dropped */
    long long devices = 0, online = 0;
    double latency_mean_ms = -1; /* -1: no completion yet */
    std::string latency_p90;     /* "<= 50 ms", "> 30 s", "-" */
    long long age_s = 0;         /* seconds since the document was made */
    long long session = 0;       /* the session number of the newest status */
    long long takeovers = 0;     /* sessions another client with its id took (two gateways with one id) */
};
bool health_row(const std::string &gateway, const GatewayHealth &seen, long long now_s, HealthRow *out);

/* The table of rows, header first. */
void print_health_table(const std::map<std::string, GatewayHealth> &seen, long long now_s, FILE *out);

/*
 * Subscribe, gather for --for seconds (default 3), print the table or the
 * JSON rows. Exit code as options.h, *detail for the outcome line.
 */
int health(const Options &options, const apps::Description *names, std::string *detail);

} // namespace sfcloud

#endif /* SFCLOUD_HEALTH_H */
