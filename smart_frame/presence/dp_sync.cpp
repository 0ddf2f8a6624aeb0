/*
 * The DP sync: a one-shot timed message that re-publishes every DP value
 * whose publication failed or is still unconfirmed (pv_stat 1 or 2), device
 * by device, through the ordinary object report path, until the cloud has
 * confirmed them. Armed 2 s ahead whenever a publication fails, and by
 * itself while work is left; only while MQTT is connected. The arming
 * (sf_start_sync_obj_dp) lives in the report room, report/sync_retry.cpp:
 * presence calls the report road, never the other way round.
 */
#include "../../services/uni_memory.h"
#include "../device_list.h"
#include "../frame_cntl.h"
#include "../report/packed_sync.h"
#include "../report/report.h"
#include "../sf_log.h"
#include "presence.h"
#include "../sf_tunables.h"

namespace {

constexpr UINT_T SYNC_PACK_BUDGET = SF_DP_SYNC_PACK_BUDGET;
constexpr UINT_T SYNC_REPORT_TIMEOUT_S = SF_DP_SYNC_REPORT_TIMEOUT_S;

} // namespace

/*
 * Dispatch thread, so runs never overlap. The device list is walked
 * without dev_mutex (the registry keeps nodes alive); the packing and the
 * report path take it for their own steps (see packed_sync.h for a report
 * of the application that comes in between). A failing device never stops
 * the walk. RC_REPORT_SUPERSEDED (-916) from the report path counts as done.
 */
extern "C" void __tmm_dp_sync_cb(TM_MSG_S *tm_msg)
{
    (void)tm_msg;
    if (get_gw_nw_status() < GW_NW_CLOUD) {
        SF_LOG_PROG("NetWork Unavailable. schedule again, %d", get_gw_nw_status());
        sf_start_sync_obj_dp();
        return;
    }
    for (DEV_CNTL_N_S *dev = sf::first_device(get_gw_cntl()); dev != nullptr; dev = sf::next_device(dev)) {
        BOOL_T all_packed = TRUE;
        SF_LOG_PROG("Start To Sync Dev:%s", dev->dev_if.id);
        UINT_T stored = 0;
        CHAR_T *out = sf::pack_for_sync(dev, SYNC_PACK_BUDGET, FALSE, &all_packed, TRUE, &stored);
        if (all_packed == FALSE) {
            SF_LOG_DETAIL("DP Msg Too Long, schedule again");
            sf_start_sync_obj_dp(); /* the rest goes in the next run; this piece is still sent */
        }
        if (out == nullptr) {
            SF_LOG_DETAIL("OUT IS NULL");
            continue;
        }
        OPERATE_RET op_ret;
        {
            /* a newer value reported after the packing is not overwritten by the packed one */
            const sf::PackedReport packed(out, stored);
            op_ret = __sf_dp_report_aysnc(dev->dev_if.id, FALSE, SF_FILTER_OBJ, out, nullptr, FALSE,
                                          SYNC_REPORT_TIMEOUT_S, __sf_obj_dp_report_async_cb, nullptr, nullptr);
        }
        if (op_ret != RC_OK && op_ret != RC_REPORT_SUPERSEDED) {
            SF_LOG_PROG("__sf_dp_report_aysnc fail %d, schedule again", op_ret);
            sf_start_sync_obj_dp();
        } else {
            SF_LOG_PROG("sync result:%d", op_ret);
        }
        Free(out);
    }
    SF_LOG_PROG("Sync Finish");
}
