/*
 * Online/offline reporting of sub-devices in batches.
 *
 * A change only marks the device (dosm PENDING). A one-shot timed message
 * collects every marked device into one document
 * {"online":[...],"offline":[...]} published under protocol 25; only the
 * acknowledgement of that publication marks its devices REPORTED. After
 * every acknowledged or failed batch the builder runs again 1 s later and
 * either sends what is left or ends the chain (dos_update FALSE).
 *
 * Locks: dos_mutex guards stat, dosm, dos_update and the first-run flag
 * below. It may be taken with the registry's dev_mutex held (the heartbeat
 * pass does), never the other way round; nothing here takes dev_mutex, and
 * no lock is held while publishing.
 */
#include <cstdio>
#include <cstring>

#include "../../cloud_defs/gw_intf.h"
#include "../../services/mqtt_client.h"
#include "../device_list.h"
#include "../frame_cntl.h"
#include "../sf_log.h"
#include "../sf_raii.h"
#include "presence.h"
#include "sub_device.h"
#include "../sf_tunables.h"

using sf::sf_cntl;

namespace {

constexpr TIME_MS FIRST_RUN_DELAY_MS = SF_PRESENCE_FIRST_DELAY_MS;
constexpr TIME_MS NEXT_RUN_DELAY_MS = SF_PRESENCE_NEXT_DELAY_MS;
constexpr UINT_T PRESENCE_PROTOCOL = 25;
constexpr BYTE_T PRESENCE_QOS = 1;
constexpr UINT_T PRESENCE_TIMEOUT_S = SF_PRESENCE_TIMEOUT_S;

/*
 * Batch size: an entry is added only while at least LIST_HEAD_ROOM of the
 * LIST_BUDGET bytes of a list are left. That fixes how many devices one
 * batch carries (nine ids of 25 characters, eleven of 20). The rule admits
 * an entry with only LIST_HEAD_ROOM bytes left, yet an entry of the longest
 * id takes DEV_ID_LEN + 3 bytes plus the terminator, so the storage of a list
 * is that much larger than what the rule admits (9 bytes past the budget
 * with the defaults): every admitted entry fits, and the batches stay exactly
 * as the budget makes them.
 */
constexpr int LIST_BUDGET = SF_PRESENCE_LIST_BUDGET;
constexpr int LIST_HEAD_ROOM = SF_PRESENCE_LIST_HEAD_ROOM;
constexpr int LIST_STORAGE = LIST_BUDGET - LIST_HEAD_ROOM + (DEV_ID_LEN + 3) + 1;
static_assert(LIST_STORAGE >= LIST_BUDGET, "the head-room must not exceed the longest entry");

/* One id list of a batch, "[" ... "]", in storage from Malloc. */
class IdList {
public:
    /* false when the storage cannot be allocated */
    bool open()
    {
        buf_.reset(static_cast<char *>(Malloc(LIST_STORAGE)));
        if (!buf_) {
            return false;
        }
        buf_.get()[0] = '[';
        size_ = 1;
        return true;
    }

    /* whether the head-room rule forbids another entry */
    bool full() const { return LIST_BUDGET - static_cast<int>(size_) < LIST_HEAD_ROOM; }

    /* Append "id", (quoted, unescaped). Only when !full(). */
    void append(const CHAR_T *id)
    {
        const int room = LIST_STORAGE - static_cast<int>(size_);
        const int printed = std::snprintf(buf_.get() + size_, static_cast<size_t>(room), "\"%.*s\",", DEV_ID_LEN, id);
        if (printed > 0) {
            size_ = static_cast<USHORT_T>(size_ + (printed < room ? printed : room - 1));
        }
    }

    /* Replace the trailing comma by "]" (or follow a lone "[") and terminate. */
    void close()
    {
        if (size_ == 1) {
            size_ = 2;
        }
        buf_.get()[size_ - 1] = ']';
        buf_.get()[size_] = '\0';
    }

    /* after close(): whether the list holds at least one id */
    bool present() const { return size_ >= 3; }
    const char *text() const { return buf_.get(); }
    void release() { buf_.reset(); }

private:
    sf::TextPtr buf_;
    USHORT_T size_ = 0;
};

/*
 * Print the batch document into out (capacity bytes, enough for both lists
 * and the member names): each present list as a member, none as [].
 */
void compose_batch(char *out, size_t capacity, const IdList &online, const IdList &offline)
{
    size_t len = static_cast<size_t>(std::snprintf(out, capacity, "{"));
    if (online.present()) {
        len += static_cast<size_t>(std::snprintf(out + len, capacity - len, "\"online\":%s,", online.text()));
    }
    if (offline.present()) {
        len += static_cast<size_t>(std::snprintf(out + len, capacity - len, "\"offline\":%s,", offline.text()));
    }
    out[len - 1] = '}';
    out[len] = '\0';
}

} // namespace

extern "C" OPERATE_RET sf_dev_online_stat_update(const CHAR_T *dev_id, const BOOL_T online)
{
    /*
     * Silent on every path. A NULL id (or a call before start-up, when
     * there is no lock to take) is answered like an unknown device.
     */
    DEV_CNTL_N_S *dev_cntl = nullptr;
    if (!sf::frame_inited() || sf::find_sub_device(dev_id, &dev_cntl) != RC_OK) {
        return RC_FAIL; /* also for an unknown device: not RC_DEV_NOT_FOUND */
    }
    __sf_dev_ol_stat_update(dev_cntl, online);
    return RC_OK;
}

extern "C" void __sf_dev_ol_stat_update(DEV_CNTL_N_S *dev_cntl, const BOOL_T online)
{
    bool need_update = false;
    bool chain_running = false;
    {
        sf::Hold lock(sf::dos_mutex);
        /* a pending device is re-marked even unchanged; a sent or reported one only by a real change */
        if (dev_cntl->attr.dosm == DOSM_PENDING || dev_cntl->attr.stat != online) {
            dev_cntl->attr.stat = static_cast<DEV_OL_STAT_T>(online & 0xFF);
            dev_cntl->attr.dosm = DOSM_PENDING;
            need_update = true;
        }
        /*
         * Read in the same hold as the mark: a run that ends the chain has
         * either seen this mark or ended before it, and then the timer is
         * started here.
         */
        chain_running = sf_cntl.dos_update == TRUE;
    }
    /*
     * An idle chain starts with the first batch 300 ms out; every further
     * change starts (re-arms) it again, so changes in quick succession
     * share one batch. A running chain picks the change up by itself.
     */
    if (need_update && !chain_running) {
        cmmod_start_tm_msg(sf_cntl.tmm_dev_ol_sync, FIRST_RUN_DELAY_MS, TIMER_ONCE);
    }
}

/*
 * The batch builder; dispatch thread. Holds dos_mutex over the device walk
 * and the list building only, not over the document or the publication.
 */
extern "C" void __tmm_dev_ol_sync_cb(TM_MSG_S *tm_msg)
{
    if (get_gw_nw_status() < GW_NW_CLOUD) {
        SF_LOG_DETAIL("NetWork Unavailable. schedule again, %d", get_gw_nw_status());
        cmmod_start_tm_msg(tm_msg, NEXT_RUN_DELAY_MS, TIMER_ONCE);
        return;
    }

    /* An allocation failure here ends the run without re-arming: a running chain then stands still. */
    IdList online;
    if (!online.open()) {
        SF_LOG_ERR("malloc buffer fails");
        return;
    }
    IdList offline;
    if (!offline.open()) {
        SF_LOG_ERR("malloc buffer fails");
        return;
    }

    sf::Hold lock(sf::dos_mutex);
    for (DEV_CNTL_N_S *dev = sf::first_device(get_gw_cntl()); dev != nullptr; dev = sf::next_device(dev)) {
        if (online.full() || offline.full()) {
            break; /* the rest waits for a later batch */
        }
        if (sf::device_removed(dev) || dev->dev_if.bind != TRUE || dev->attr.dosm == DOSM_REPORTED) {
            continue;
        }
        /* only 1 is online: any other stored value is reported offline */
        (dev->attr.stat == DOS_ONLINE ? online : offline).append(dev->dev_if.id);
        dev->attr.dosm = DOSM_SENDING;
    }
    online.close();
    offline.close();
    if (!online.present() && !offline.present()) {
        /* nothing left: the chain ends, the next marking change starts it again */
        sf_cntl.dos_update = FALSE;
        return;
    }
    SF_LOG_PROG("on:%s off:%s", online.text(), offline.text());
    sf_cntl.dos_update = TRUE;
    lock.unlock();

    const size_t capacity = std::strlen(online.text()) + std::strlen(offline.text()) + SF_PRESENCE_TEXT_SLACK;
    sf::TextPtr send_data(static_cast<char *>(Malloc(capacity)));
    if (!send_data) {
        /* the devices stay SENDING and are taken again by the next run */
        cmmod_start_tm_msg(tm_msg, NEXT_RUN_DELAY_MS, TIMER_ONCE);
        return;
    }
    compose_batch(send_data.get(), capacity, online, offline);
    online.release();
    offline.release();

    SF_LOG_PROG("send_data:%s", send_data.get());
    /* the client copies the text; its completion re-arms the builder */
    const OPERATE_RET op_ret = mqc_prot_data_rept_seq(PRESENCE_PROTOCOL, send_data.get(), PRESENCE_QOS,
                                                      PRESENCE_TIMEOUT_S, __mq_online_stat_async_ifm_cb, nullptr);
    send_data.reset();
    if (op_ret != RC_OK) {
        SF_LOG_ERR("mqc_prot_data_rept_seq err:%d", op_ret);
        cmmod_start_tm_msg(tm_msg, NEXT_RUN_DELAY_MS, TIMER_ONCE);
    }
}

/*
 * Completion of a batch; MQTT client's thread. Walks the device list under
 * dos_mutex only: dosm is all it touches.
 */
extern "C" void __mq_online_stat_async_ifm_cb(const OPERATE_RET op_ret, const void *prv_data)
{
    (void)prv_data;
    if (op_ret != RC_OK) {
        /* the batch's devices stay SENDING: the next run sends them again */
        SF_LOG_ERR("err:%d", op_ret);
    } else {
        sf::Hold lock(sf::dos_mutex);
        for (DEV_CNTL_N_S *dev = sf::first_device(get_gw_cntl()); dev != nullptr; dev = sf::next_device(dev)) {
            /* devices re-marked PENDING meanwhile keep their mark */
            if (dev->attr.dosm == DOSM_SENDING) {
                dev->attr.dosm = DOSM_REPORTED;
            }
        }
    }
    cmmod_start_tm_msg(sf_cntl.tmm_dev_ol_sync, NEXT_RUN_DELAY_MS, TIMER_ONCE);
}
