/*
 * Per-DP report flow control: a DP admits cir_rept_item_lmt confirmed
 * reports in a fixed cycle of cir_time seconds, opened by the first
 * confirmed report after the previous cycle ran out.
 *
 * Both functions run with the registry's dev_mutex held (the verifier and
 * the publish-state setter take it), so a DP's counters change together
 * with its value and publish state.
 *
 * The elapsed time is computed in unsigned 32-bit arithmetic on purpose: a
 * clock that went backwards gives a huge difference, which ends the cycle
 * instead of holding the DP back until the clock catches up. A cycle that
 * was never opened (fir_rept_timestamp 0) is expired by the same formula
 * for any real POSIX time; no special case is made for it, so a cycle
 * opened at time 0 on a clock that starts at 0 still counts.
 */
#include "../sf_log.h"
#include "report.h"

namespace {

UINT_T seconds_in_cycle(const DP_REPT_CNTL_S &cntl, TIME_T curr_time)
{
    return static_cast<UINT_T>(curr_time - cntl.fir_rept_timestamp);
}

} // namespace

extern "C" BOOL_T __check_dp_flow_ctl(DP_CNTL_S *dp_cntl, TIME_T curr_time)
{
    const DP_REPT_CNTL_S &cntl = dp_cntl->rept_cntl;
    const bool over = seconds_in_cycle(cntl, curr_time) < cntl.cir_time &&
                      cntl.cir_rept_items >= cntl.cir_rept_item_lmt;
    if (over) {
        SF_LOG_PROG("Flow Ctrl. DP ID:%d flow check:%d  curr_t:%u first_t:%u send:%d lmt:%d ",
                    dp_cntl->dp_desc.dp_id, 1, curr_time, cntl.fir_rept_timestamp, cntl.cir_rept_items,
                    cntl.cir_rept_item_lmt);
        return TRUE;
    }
    SF_LOG_DETAIL("Not Flow Ctrl. DP ID:%d flow check:%d  curr_t:%u first_t:%u send:%d lmt:%d ",
                  dp_cntl->dp_desc.dp_id, 0, curr_time, cntl.fir_rept_timestamp, cntl.cir_rept_items,
                  cntl.cir_rept_item_lmt);
    return FALSE;
}

extern "C" void __set_dp_flow_ctl(DP_CNTL_S *dp_cntl, TIME_T curr_time)
{
    DP_REPT_CNTL_S &cntl = dp_cntl->rept_cntl;
    if (seconds_in_cycle(cntl, curr_time) < cntl.cir_time) {
        ++cntl.cir_rept_items; /* 16-bit, wraps */
        SF_LOG_DETAIL("update flow check send cnt %d dpID:%d", cntl.cir_rept_items, dp_cntl->dp_desc.dp_id);
        return;
    }
    cntl.fir_rept_timestamp = curr_time;
    cntl.cir_rept_items = 1;
    SF_LOG_DETAIL("new flow check timezone.curr_t:%u dpID:%d", curr_time, dp_cntl->dp_desc.dp_id);
}
