/*
 * Start-up: bring up the platform services, create the module's locks,
 * bind its message ids and create its timed messages, all or nothing.
 */
#include <cstring>

#include "frame_cntl.h"
#include "inbound/inbound.h"
#include "presence/presence.h"
#include "../services/uni_mutex.h"
#include "sf_log.h"

namespace sf {

namespace {

constexpr int HANDLER_COUNT = 3;

MSG_ENTRY_S msg_tbl[HANDLER_COUNT] = {
    {&sf_cntl.mid_gw_dev_cmd, __sf_gw_dev_cmd_cb},
    {&sf_cntl.mid_gw_scene_oper_cmd, __sf_gw_scene_oper_cmd_cb},
    {&sf_cntl.mid_gw_group_oper_cmd, __sf_gw_group_oper_cmd_cb},
};

TM_MSG_ENTRY_S tm_msg_tbl[HANDLER_COUNT] = {
    {&sf_cntl.tmm_dp_sync, __tmm_dp_sync_cb},
    {&sf_cntl.tmm_dev_ol_sync, __tmm_dev_ol_sync_cb},
    {&sf_cntl.tmm_dev_hst, __tmm_hb_fresh_ol_stat_cb},
};

/*
 * Undo the bindings after a failed start-up so that a later call can start
 * over. Every timed-message slot is released, also the ones still NULL.
 * dos_mutex is deliberately kept: only the serial-number mutex is released.
 */
void roll_back_bindings()
{
    for (MSG_ENTRY_S &entry : msg_tbl) {
        if (*entry.mid != NO_MSG_ID) {
            cmmod_unreg_msgcb(*entry.mid);
            *entry.mid = NO_MSG_ID;
        }
    }
    for (TM_MSG_ENTRY_S &entry : tm_msg_tbl) {
        cmmod_release_tm_msg(*entry.tm_msg);
        *entry.tm_msg = nullptr;
    }
    if (sf_cntl.mutex != nullptr) {
        ReleaseMutex(sf_cntl.mutex);
        sf_cntl.mutex = nullptr;
    }
}

} // namespace

} // namespace sf

using sf::sf_cntl;

extern "C" OPERATE_RET smart_frame_init(void)
{
    using namespace sf;
    if (frame_inited()) {
        SF_LOG_ERR("smart frame has been inited");
        return RC_OK;
    }

    OPERATE_RET op_ret = system_timer_init();
    if (op_ret != RC_OK) {
        SF_LOG_ERR("system_timer_init fails %d", op_ret);
        return op_ret;
    }
    op_ret = cmmod_init();
    if (op_ret != RC_OK) {
        SF_LOG_ERR("cmmod_init fails %d", op_ret);
        return op_ret;
    }

    std::memset(&sf_cntl, 0, sizeof(sf_cntl));
    op_ret = CreateMutexAndInit(&sf_cntl.mutex);
    if (op_ret != RC_OK) {
        SF_LOG_ERR("CreateMutexAndInit fails %d", op_ret);
        return op_ret;
    }
    op_ret = CreateMutexAndInit(&sf_cntl.dos_mutex);
    if (op_ret != RC_OK) {
        /* the serial-number mutex stays: a retry zero-fills the block and makes a new one */
        SF_LOG_ERR("CreateMutexAndInit fails %d", op_ret);
        return op_ret;
    }

    for (MSG_ENTRY_S &entry : msg_tbl) {
        *entry.mid = NO_MSG_ID;
    }
    for (INT_T i = 0; i < HANDLER_COUNT; ++i) {
        op_ret = cmmod_get_free_msgid(msg_tbl[i].mid);
        if (op_ret != RC_OK) {
            SF_LOG_ERR("cmmod_get_free_msgid fails %d %d", i, op_ret);
            roll_back_bindings();
            return op_ret;
        }
        op_ret = cmmod_reg_msgcb(*msg_tbl[i].mid, msg_tbl[i].msg_cb);
        if (op_ret != RC_OK) {
            SF_LOG_ERR("cmmod_reg_msgcb fails %d %d", i, op_ret);
            roll_back_bindings();
            return op_ret;
        }
    }
    for (INT_T i = 0; i < HANDLER_COUNT; ++i) {
        op_ret = cmmod_cr_tm_msg_hand(tm_msg_tbl[i].tmm_msg_cb, nullptr, tm_msg_tbl[i].tm_msg);
        if (op_ret != RC_OK) {
            SF_LOG_ERR("cmmod_cr_tm_msg_hand fails %d %d", i, op_ret);
            roll_back_bindings();
            return op_ret;
        }
    }

    set_frame_inited();
    return RC_OK;
}
