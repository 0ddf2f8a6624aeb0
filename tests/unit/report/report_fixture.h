/*
 * Shared ground of the report road tests: a started module, the gateway
 * "gw0001" and helpers to run the filter and read DP states.
 */
#ifndef SF_TEST_REPORT_FIXTURE_H
#define SF_TEST_REPORT_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "smart_frame/frame_cntl.h"
#include "smart_frame/report/report.h"
#include "smart_frame/sf_raii.h"
#include "tests/fakes/sf_fixture.h"

namespace report_test {

/* Result and text of one filter run (the text freed already). */
struct Filtered {
    OPERATE_RET code;
    std::string text; /* "<null>" when the filter produced no text */
};

inline Filtered filter(DEV_CNTL_N_S *dev, INT_T filter_type, const char *data, BOOL_T force_send = FALSE)
{
    CHAR_T *out = reinterpret_cast<CHAR_T *>(0x1); /* proves the filter writes it */
    const OPERATE_RET code = __sf_dp_verify_flowctl_update(dev, filter_type, data, force_send, &out);
    Filtered result{code, out == nullptr ? "<null>" : (out == reinterpret_cast<CHAR_T *>(0x1) ? "<unset>" : out)};
    if (out != nullptr && out != reinterpret_cast<CHAR_T *>(0x1)) {
        Free(out);
    }
    return result;
}

inline DP_PV_STAT_E pv(const std::string &dev_id, BYTE_T dpid)
{
    return fake::registry::dp(dev_id, dpid)->pv_stat;
}

/* Every DP of dev set to pv_stat state. */
inline void set_all_pv(DEV_CNTL_N_S *dev, DP_PV_STAT_E state)
{
    for (INT_T i = 0; i < dev->dp_num; ++i) {
        dev->dp[i].pv_stat = state;
    }
}

/* Boolean DPs numbered 1 to count. */
inline std::vector<fake::registry::DpSpec> bools(int count)
{
    std::vector<fake::registry::DpSpec> dps;
    for (int i = 1; i <= count; ++i) {
        dps.push_back(fake::registry::dp_bool(static_cast<BYTE_T>(i)));
    }
    return dps;
}

/* "from":false,...,"to":false, the members of packed stored booleans (stored false) */
inline std::string false_members(int from, int to)
{
    std::string text;
    for (int i = from; i <= to; ++i) {
        text += (text.empty() ? "\"" : ",\"") + std::to_string(i) + "\":false";
    }
    return text;
}

/* How often the DP sync was armed, and whether always for 2000 ms once. */
inline size_t sync_starts()
{
    const auto starts = fake::timers::starts_of(sf::sf_cntl.tmm_dp_sync);
    for (const auto &start : starts) {
        EXPECT_EQ(2000u, start.period);
        EXPECT_EQ(TIMER_ONCE, start.type);
    }
    return starts.size();
}

/*
 * Allocation-failure sweep of a synchronous report of DP dpid of "a1b2c3":
 * fail the 1st, 2nd, ... Malloc of report() until it runs through. Every
 * run returns an allowed code and leaves no block, semaphore or message
 * behind; the run that hits no failure succeeds and confirms the DP.
 */
template <typename Report>
void sweep_sync_report(BYTE_T dpid, Report report)
{
    for (size_t nth = 1;; ++nth) {
        fake::registry::dp("a1b2c3", dpid)->pv_stat = PV_STAT_INVALID;
        fake::mem::fail_nth(nth);
        const OPERATE_RET code = report();
        const bool fired = fake::mem::failure_fired();
        fake::mem::fail_nth(0);
        EXPECT_TRUE(code == RC_OK || code == RC_JSON_FAIL || code == RC_FAIL || code == RC_NO_MEMORY)
            << nth << ": " << code;
        fake::lan::release_held();
        EXPECT_EQ(0u, fake::rfc::live()) << nth;
        EXPECT_EQ(0u, fake::sem::live()) << nth;
        EXPECT_EQ(0u, fake::mem::live_blocks()) << nth << "\n" << fake::mem::leak_report();
        if (!fired) {
            EXPECT_EQ(RC_OK, code);
            EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", dpid));
            EXPECT_GT(nth, 5u);
            break;
        }
    }
}

} // namespace report_test

#endif /* SF_TEST_REPORT_FIXTURE_H */
