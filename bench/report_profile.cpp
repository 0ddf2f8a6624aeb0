/*
 * Instruction counts of the report path and of its baseline, for
 * valgrind's callgrind (scripts/report_profile.sh). Timings on a shared
 * machine move with its load; instruction counts do not, so decisions
 * about the report path's cost are taken on these.
 *
 *   sf_report_profile <dps> <reports>
 *
 * Starts the benchmark gateway (10 sub-devices), warms up, then runs
 * `reports` reports of `dps` changed DPs in run_reports() and as many
 * cJSON parse + print of the same texts in run_baseline(), exactly as
 * sf_bench_report does. Each of the two functions is a callgrind
 * collection target (--toggle-collect), so its cost divided by `reports`
 * is the cost of one report (completion included) or of one baseline.
 */
#include <cjson/cJSON.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "backend/standin_channels.h"
#include "services/uni_memory.h"
#include "smart_frame/smart_frame.h"
#include "support/bench_gateway.h"

namespace {

const char *g_id = nullptr;
std::string g_text[2];

inline int report_loop(int reports)
{
    int failures = 0;
    for (int i = 0; i < reports; ++i) {
        if (sf_obj_dp_report_async(g_id, g_text[i & 1].c_str(), FALSE) != RC_OK ||
            bench::standin_complete_pending(RC_OK) != 1) {
            ++failures;
        }
    }
    return failures;
}

inline int baseline_loop(int reports)
{
    int failures = 0;
    for (int i = 0; i < reports; ++i) {
        cJSON *doc = cJSON_Parse(g_text[i & 1].c_str());
        char *printed = cJSON_PrintUnformatted(doc);
        failures += printed == nullptr ? 1 : 0;
        Free(printed);
        cJSON_Delete(doc);
    }
    return failures;
}

} // namespace

/* the two collection targets; the warm-up runs the same loops outside them */
extern "C" __attribute__((noinline)) int sf_profile_run_reports(int reports)
{
    return report_loop(reports);
}

extern "C" __attribute__((noinline)) int sf_profile_run_baseline(int reports)
{
    return baseline_loop(reports);
}

int main(int argc, char **argv)
{
    const int dps = argc > 1 ? std::atoi(argv[1]) : 1;
    const int reports = argc > 2 ? std::atoi(argv[2]) : 1000;
    if (dps < 1 || dps > bench::REPORT_DPS || reports < 1) {
        std::fprintf(stderr, "usage: sf_report_profile <dps 1..16> <reports>\n");
        return 2;
    }
    bench::start_gateway(10);
    const std::string id = bench::sub_id(5);
    g_id = id.c_str();
    g_text[0] = bench::report_text(dps, 0);
    g_text[1] = bench::report_text(dps, 1);
    /* warm-up: first-use costs (lazy binding, first allocations) stay out of the counts */
    int failures = report_loop(16) + baseline_loop(16);
    failures += sf_profile_run_reports(reports) + sf_profile_run_baseline(reports);
    if (failures != 0) {
        std::fprintf(stderr, "%d reports failed\n", failures);
        return 1;
    }
    return 0;
}
