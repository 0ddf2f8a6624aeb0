/*
 * The gateway of a benchmark: a gateway description generated for a
 * number of sub-devices, loaded into the POSIX registry, and the smart
 * frame started once per process on the POSIX runtime.
 *
 * Every sub-device has the same schema of REPORT_DPS object DPs:
 *   1 bool, 2 value (0..1000000), 3 string (max 32), 4 enum [low, mid, high],
 *   5..16 value (0..1000000); no flow-control limit, bound.
 * Ids are "sub00000", "sub00001", ...
 */
#ifndef BENCH_GATEWAY_H
#define BENCH_GATEWAY_H

#include <string>
#include <vector>

#include "cloud_defs/kelo_cloud_types.h"

namespace bench {

constexpr int REPORT_DPS = 16;
constexpr char GW_ID[] = "gwbench0001";

/* The id of sub-device n. */
std::string sub_id(int n);

/* A gateway description with subs sub-devices of dps DPs each (1..16). */
std::string gateway_description(int subs, int dps = REPORT_DPS);

/*
 * (Re)load the registry with subs sub-devices (always a fresh load: stored
 * values back to zero), start the smart frame on the first call, set the
 * log filter to errors only and the network to "cloud connected". Aborts
 * the process with a message when anything fails (a benchmark cannot go on).
 * Call only while nothing uses a device node.
 */
void start_gateway(int subs, int dps = REPORT_DPS);

/*
 * The report text {"1":..,"2":..,...} of the first dps DPs of the schema,
 * in variant 0 or 1: every DP differs between the two variants and from a
 * freshly loaded device, so alternating them changes every DP every time.
 */
std::string report_text(int dps, int variant);

/* A device command of the first dps DPs to sub-device `to`, in variant 0 or 1. */
std::string command_text(const std::string &to, int dps, int variant);

/* Median and 99th percentile of samples (sorted in place), in the samples' unit. */
struct Percentiles {
    double p50 = 0;
    double p99 = 0;
};
Percentiles percentiles(std::vector<double> &samples);

} // namespace bench

#endif /* BENCH_GATEWAY_H */
