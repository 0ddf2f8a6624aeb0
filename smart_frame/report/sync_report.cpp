/*
 * Synchronous reports: the caller's thread runs the report worker and then
 * blocks on a semaphore until the MQTT client completes the publication on
 * its own thread. MUST NOT be called from the MQTT client's thread.
 *
 * Lifetime of the rendezvous. The record (DP_SYNC_REPORT_S and its
 * semaphore) is shared by the waiting caller and the completion, which may
 * run on another thread, inline inside mqc_dp_report_async, or after the
 * caller has given up waiting (a failed wait). So the record carries a
 * count of its holders: two once the publication is accepted (the caller
 * and the completion), and whichever side lets go last releases the
 * semaphore and frees the record. When the publication is not accepted the
 * completion never runs, and the caller lets go of both holds at once.
 * op_ret starts as a failure, so a record is never read uninitialised.
 */
#include <cerrno>

#include "../../services/uni_memory.h"
#include "../../services/uni_semaphore.h"
#include "../sf_log.h"
#include "report.h"
#include "../json_helpers.h"
#include "../sf_tunables.h"

namespace {

constexpr UINT_T SEM_INITIAL = 0;
constexpr UINT_T SEM_MAX = SF_SYNC_REPORT_SEM_MAX;

struct SyncRendezvous {
    DP_SYNC_REPORT_S rec; /* first: the completion's prv_data points at it */
    INT_T holders;        /* changed atomically; the last one frees */
};

void let_go(SyncRendezvous *rv, INT_T holds)
{
    if (__atomic_sub_fetch(&rv->holders, holds, __ATOMIC_ACQ_REL) == 0) {
        ReleaseSemaphore(rv->rec.sem_handle);
        Free(rv);
    }
}

/* A wait that ends in anything but an interruption ends the wait. */
OPERATE_RET wait_completion(SEM_HANDLE sem)
{
    OPERATE_RET ret;
    do {
        ret = WaitSemaphore(sem);
    } while (ret == RC_WAIT_SEM_FAIL && errno == EINTR);
    return ret;
}

} // namespace

extern "C" void __sf_dp_report_sync_cb(OPERATE_RET op_ret, const void *prv_data)
{
    SyncRendezvous *rv = static_cast<SyncRendezvous *>(const_cast<void *>(prv_data));
    rv->rec.op_ret = op_ret;
    PostSemaphore(rv->rec.sem_handle);
    let_go(rv, 1);
}

/*
 * A wait that fails for another reason than an interruption makes the
 * report a failure with the wait's code; the completion may still come and
 * then finds the record alive (see above).
 */
extern "C" OPERATE_RET __sf_dp_report_sync(const CHAR_T *id, BOOL_T is_lan_send, INT_T filter_type,
                                           const CHAR_T *data, const CHAR_T *time, BOOL_T force_send,
                                           UINT_T time_out_s, BOOL_T enable_auto_retrans)
{
    SyncRendezvous *rv = static_cast<SyncRendezvous *>(Malloc(sizeof(SyncRendezvous)));
    if (rv == nullptr) {
        SF_LOG_ERR("Malloc Fails");
        return RC_NO_MEMORY;
    }
    rv->rec.op_ret = RC_FAIL;
    rv->holders = 2;
    OPERATE_RET op_ret = CreateAndInitSemaphore(&rv->rec.sem_handle, SEM_INITIAL, SEM_MAX);
    if (op_ret != RC_OK) {
        SF_LOG_ERR("create seme fails %d", op_ret);
        Free(rv);
        return op_ret;
    }

    BOOL_T need_send = FALSE;
    op_ret = __sf_dp_report_aysnc(id, is_lan_send, filter_type, data, time, force_send, time_out_s,
                                  __sf_dp_report_sync_cb, &rv->rec, &need_send);
    if (op_ret != RC_OK || need_send == FALSE) {
        /* nothing was handed to MQTT, so no completion will come */
        SF_LOG_PROG("sync to report dp fail. %d", op_ret);
        let_go(rv, 2);
        return op_ret;
    }

    const OPERATE_RET wait_ret = wait_completion(rv->rec.sem_handle);
    if (wait_ret == RC_OK) {
        op_ret = rv->rec.op_ret;
    } else {
        SF_LOG_ERR("WaitSemaphore fails %d", wait_ret);
        op_ret = wait_ret;
    }
    let_go(rv, 1);
    SF_LOG_PROG("report finish %d", op_ret);

    if (filter_type == SF_FILTER_OBJ) {
        if (op_ret == RC_OK) {
            __sf_set_obj_dp_pv_stat_by_dc(id, data, PV_STAT_CLOUD, TRUE);
        } else {
            __sf_set_obj_dp_pv_stat_by_dc(id, data, PV_STAT_LOCAL, FALSE);
            sf_start_sync_obj_dp();
        }
    } else if (filter_type == SF_FILTER_RAW || filter_type == SF_FILTER_STAT) {
        if (op_ret == RC_OK) {
            __sf_set_obj_dp_pv_stat_by_dc(id, data, PV_STAT_CLOUD, TRUE);
        } else {
            /* not re-sent by the DP sync; with re-transmission the value stays known as unconfirmed */
            __sf_set_obj_dp_pv_stat_by_dc(id, data, enable_auto_retrans == TRUE ? PV_STAT_LOCAL : PV_STAT_INVALID,
                                          FALSE);
        }
    }
    return op_ret;
}

extern "C" OPERATE_RET sf_stat_dp_report_sync(const CHAR_T *dev_id, const CHAR_T *dp_str, const CHAR_T *time_str,
                                              UINT_T timeout, BOOL_T enable_auto_retrans)
{
    SF_LOG_PROG("Send Stat:%s Time:%s retrans:%d", sf::log_text(dp_str), sf::log_text(time_str), enable_auto_retrans);
    return __sf_dp_report_sync(dev_id, TRUE, SF_FILTER_STAT, dp_str, time_str, TRUE, timeout, enable_auto_retrans);
}
