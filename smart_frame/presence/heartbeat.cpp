/*
 * Heartbeat supervision of sub-devices.
 *
 * The application passes every heartbeat on with sf_refresh_dev_hb. Every
 * 8 s a pass decides each bound device online (last heartbeat within its
 * time-out) or offline, and feeds the decision to the online/offline
 * batches. Shortly before a device's time-out runs out, the pass asks the
 * application to probe it, a limited number of times.
 *
 * All times are seconds of uni_get_system_time in 32-bit unsigned
 * arithmetic. Locks: the registry's dev_mutex before dos_mutex, never the
 * reverse; dos_mutex guards the heartbeat fields of every device.
 */
#include <cstdlib>

#include "../../cloud_defs/gw_intf.h"
#include "../../services/uni_time.h"
#include "../frame_cntl.h"
#include "../json_helpers.h"
#include "../sf_log.h"
#include "../sf_lock.h"
#include "presence.h"
#include "sub_device.h"
#include "../sf_tunables.h"

using sf::sf_cntl;

namespace {

constexpr TIME_MS PASS_PERIOD_MS = SF_HB_PASS_PERIOD_MS;
constexpr TIME_S MIN_HB_TIMEOUT_S = SF_HB_MIN_TIMEOUT_S;
constexpr TIME_S NEVER_TIMES_OUT = SF_HB_NEVER_TIMES_OUT;
constexpr TIME_S NEVER_PROBED = SF_HB_NEVER_PROBED;
constexpr TIME_S PROBE_LEAD_S = SF_HB_PROBE_LEAD_S;
constexpr UINT_T DEFAULT_PROBE_LIMIT = SF_HB_DEFAULT_PROBE_LIMIT;
constexpr int FIRST_PROBE_SPREAD_S = SF_HB_FIRST_PROBE_SPREAD_S;
constexpr UINT_T LAST_QUIET_PASS = SF_HB_QUIET_PASSES;

/* Pass counter; dispatch thread only. The per-device lines are logged when it wraps to 0. */
UINT_T count = 0;

TIME_S system_now()
{
    TIME_S now = 0;
    uni_get_system_time(&now, nullptr);
    return now;
}

/*
 * hb_start and hb_send_cb are set by sf_sys_mag_hb_init after the timer
 * starts, on the application's thread, and read without a lock by the
 * pass (dispatch thread) and by refreshes on any thread. The callback is
 * stored before the flag is released, so whoever sees the flag set also
 * sees the callback stored with it. The control block keeps its plain
 * fields (the layout is shared), hence the builtins on the fields.
 */
void publish_supervision(DEV_HEARTBEAT_SEND_CB send)
{
    __atomic_store_n(&sf_cntl.hb_send_cb, send, __ATOMIC_RELEASE);
    __atomic_store_n(&sf_cntl.hb_start, static_cast<BOOL_T>(TRUE), __ATOMIC_RELEASE);
}

DEV_HEARTBEAT_SEND_CB probe_callback()
{
    return __atomic_load_n(&sf_cntl.hb_send_cb, __ATOMIC_ACQUIRE);
}

/* The per-device functions work only once supervision has been started. */
bool refused_before_init()
{
    return __atomic_load_n(&sf_cntl.hb_start, __ATOMIC_ACQUIRE) != TRUE;
}

/*
 * Online when the device never times out, or when its last heartbeat is at
 * most its time-out old. Never a heartbeat (0) or no time-out (0) is
 * offline; a clock that went backwards makes the difference huge, so the
 * device goes offline. Caller holds dos_mutex.
 */
BOOL_T heartbeat_alive(const DEV_ACTV_ATTR_S &attr, TIME_S cur_time) SF_REQUIRES(sf::dos_mutex_cap)
{
    if (attr.hb_timeout_time == NEVER_TIMES_OUT) {
        return TRUE;
    }
    return (attr.last_ol_time != 0 && static_cast<TIME_S>(cur_time - attr.last_ol_time) <= attr.hb_timeout_time)
               ? TRUE
               : FALSE;
}

/*
 * The probe step of one device: M probes counting up retry_send_times,
 * then one last that also ends the schedule. hb_send_cb runs with
 * dos_mutex held (and dev_mutex released) so that a concurrent refresh
 * cannot reschedule the device between the decision and the probe; the
 * callback must therefore only hand the probe off and must not call back
 * into the presence or heartbeat functions.
 */
void probe_if_due(DEV_CNTL_N_S *dev, TIME_S cur_time, DEV_HEARTBEAT_SEND_CB send)
    SF_EXCLUDES(sf::dev_mutex_cap, sf::dos_mutex_cap)
{
    sf::Hold lock(sf::dos_mutex);
    DEV_ACTV_ATTR_S &attr = dev->attr;
    if (attr.hb_send_time == 0 || cur_time < attr.hb_send_time || attr.hb_timeout_time == NEVER_TIMES_OUT ||
        attr.hb_timeout_time == NEVER_PROBED) {
        return;
    }
    if (attr.max_resend_times == 0) {
        attr.max_resend_times = DEFAULT_PROBE_LIMIT;
    }
    if (attr.retry_send_times < attr.max_resend_times) {
        ++attr.retry_send_times;
    } else {
        attr.hb_send_time = 0; /* no further probes until the next refresh */
    }
    send(dev->dev_if.id);
}

} // namespace

extern "C" OPERATE_RET sf_sys_mag_hb_init(const DEV_HEARTBEAT_SEND_CB hb_send_cb)
{
    if (!sf::frame_inited()) {
        /* there is no timed message to start before smart_frame_init */
        SF_LOG_ERR("smart frame not inited");
        return RC_FAIL;
    }
    const OPERATE_RET op_ret = cmmod_start_tm_msg(sf_cntl.tmm_dev_hst, PASS_PERIOD_MS, TIMER_CYCLE);
    if (op_ret != RC_OK) {
        SF_LOG_ERR("cmmod_start_tm_msg err:%d", op_ret);
        return op_ret;
    }
    publish_supervision(hb_send_cb);
    return RC_OK;
}

extern "C" OPERATE_RET sf_set_dev_hb_timeout(const CHAR_T *dev_id, const TIME_S hb_timeout_time,
                                             const UINT_T max_resend_times)
{
    /* 60 itself is accepted, although the message says "must >" */
    if (dev_id == nullptr || hb_timeout_time < MIN_HB_TIMEOUT_S) {
        SF_LOG_ERR("dev_id is %s or hb_timeout_time[%d] must > %d", sf::log_text(dev_id),
                   static_cast<INT_T>(hb_timeout_time), static_cast<INT_T>(MIN_HB_TIMEOUT_S));
        return RC_BAD_PARAM;
    }
    if (refused_before_init()) {
        SF_LOG_ERR("sf_sys_mag_hb_init need init");
        return RC_FAIL;
    }
    /* an unknown device is RC_FAIL here, unlike sf_refresh_dev_hb */
    DEV_CNTL_N_S *dev_cntl = nullptr;
    if (sf::find_sub_device(dev_id, &dev_cntl) != RC_OK) {
        return RC_FAIL;
    }

    sf::Hold lock(sf::dos_mutex);
    DEV_ACTV_ATTR_S &attr = dev_cntl->attr;
    attr.hb_timeout_time = hb_timeout_time;
    /*
     * Spread the first probes of many devices configured together. The
     * module's only std::rand call is made here, under dos_mutex, so the
     * module's callers never share the generator's state unlocked; an
     * application that also calls std::rand relies on its C library's rand
     * being thread-safe (glibc's is), as any rand user must.
     */
    attr.hb_send_time = system_now() + static_cast<TIME_S>(std::rand() % FIRST_PROBE_SPREAD_S);
    attr.max_resend_times = max_resend_times;
    return RC_OK;
}

extern "C" OPERATE_RET sf_refresh_dev_hb(const CHAR_T *dev_id)
{
    if (refused_before_init()) {
        SF_LOG_ERR("sf_sys_mag_hb_init need init");
        return RC_FAIL;
    }
    if (dev_id == nullptr) {
        SF_LOG_ERR("dev_id is null");
        return RC_BAD_PARAM;
    }
    /* RC_FAIL for the gateway's own id, RC_DEV_NOT_FOUND for an unknown one */
    DEV_CNTL_N_S *dev_cntl = nullptr;
    const OPERATE_RET found = sf::find_sub_device(dev_id, &dev_cntl);
    if (found != RC_OK) {
        return found;
    }
    if (dev_cntl->dev_if.bind == FALSE) {
        SF_LOG_ERR("device not bind");
        return RC_DEV_NOT_BOUND;
    }

    sf::Hold lock(sf::dos_mutex);
    DEV_ACTV_ATTR_S &attr = dev_cntl->attr;
    if (attr.stat != DOS_ONLINE) {
        /* no timer here: the next pass starts the batch */
        attr.stat = DOS_ONLINE;
        attr.dosm = DOSM_PENDING;
    }
    /*
     * The heartbeat time is kept only when probes are wanted. Without a
     * probe callback a refresh sets the device online and the next pass
     * sets it offline again (unless it never times out): kept as designed.
     */
    if (probe_callback() != nullptr) {
        attr.last_ol_time = system_now();
        if (attr.hb_timeout_time != NEVER_TIMES_OUT && attr.hb_timeout_time != 0) {
            attr.hb_send_time = attr.last_ol_time + attr.hb_timeout_time - PROBE_LEAD_S;
            attr.retry_send_times = 0;
        }
    }
    return RC_OK;
}

/*
 * The supervision pass; dispatch thread, every 8 s. Holds dev_mutex while
 * deciding and marking (which takes dos_mutex inside it), releases it
 * around the probe step. Using a node after releasing dev_mutex is safe:
 * the registry flags a device dev_delete before removing it, and flagged
 * devices are skipped.
 */
extern "C" void __tmm_hb_fresh_ol_stat_cb(TM_MSG_S *tm_msg)
{
    (void)tm_msg;
    GW_CNTL_S *gw_cntl = get_gw_cntl();
    sf::Hold dev_lock(sf::dev_mutex, gw_cntl);
    count = count < LAST_QUIET_PASS ? count + 1 : 0;

    for (DEV_CNTL_N_S *dev = gw_cntl->dev; dev != nullptr; dev = dev->next) {
        if (dev->dev_delete != 0 || dev->dev_if.bind != TRUE) {
            continue;
        }
        const TIME_S cur_time = system_now();
        TIME_S last_ol_time = 0;
        TIME_S hb_timeout_time = 0;
        BOOL_T online = FALSE;
        {
            /* the heartbeat fields are dos_mutex's, also when read */
            sf::Hold lock(sf::dos_mutex);
            last_ol_time = dev->attr.last_ol_time;
            hb_timeout_time = dev->attr.hb_timeout_time;
            online = heartbeat_alive(dev->attr, cur_time);
        }
        if (count == 0) {
            SF_LOG_PROG("cur_time:%d last_ol_time:%d hb_timeout_time:%d", static_cast<INT_T>(cur_time),
                        static_cast<INT_T>(last_ol_time), static_cast<INT_T>(hb_timeout_time));
            SF_LOG_PROG("id:%s online:%d", dev->dev_if.id, online);
        }
        __sf_dev_ol_stat_update(dev, online);
        dev_lock.unlock();

        const DEV_HEARTBEAT_SEND_CB send = probe_callback();
        if (send != nullptr) {
            probe_if_due(dev, cur_time, send);
        }
        dev_lock.lock();
    }
}
