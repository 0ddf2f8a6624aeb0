/*
 * Decoding of the "dps" object of one command into the records the
 * application receives: one KL_RECV_RAW_DP_S per raw DP, handed over at
 * once, and one KL_RECV_OBJ_DP_S with all object DPs at the end. A command
 * whose object DPs all repeat the values already known is echoed back
 * through the query answer, since the application would report nothing.
 *
 * Runs on the dispatch thread, with no lock held on entry. The DP table
 * (passive flags, pv_stat and values) is shared with reporting threads,
 * which write it under dev_mutex; this side takes dev_mutex for its own
 * short reads and writes of it (the first pass, each comparison), never
 * across an application callback. A value reported meanwhile may or may
 * not be seen, which only decides whether an echo is sent, but an
 * unguarded read could see a string buffer half rewritten.
 */
#include <cstdlib>
#include <cstring>
#include <utility>

#include "../../services/kelo_base64.h"
#include "../../services/uni_memory.h"
#include "../../services/uni_time.h"
#include "../dp_lookup.h"
#include "../json_helpers.h"
#include "../json_type.h"
#include "../sf_log.h"
#include "../sf_lock.h"
#include "../sf_raii.h"
#include "inbound.h"
#include "../sf_tunables.h"

namespace {

/* Capacity of the list of unchanged DPs; a command with more equal DPs gets no echo. */
constexpr size_t QUERY_DP_CAP = SF_QUERY_ECHO_CAP;

bool is_raw_text(const DP_CNTL_S *dp, const cJSON *member)
{
    return dp->dp_desc.type == DP_TYPE_RAW && sf::json_type(member) == sf::JSON_STRING;
}

/*
 * Whether the member gets a slot in the object record. Only object DPs
 * do: a file DP, or a raw DP whose value is not base64 text, is skipped,
 * so the record is sized exactly by what it holds.
 */
bool takes_object_slot(const DP_CNTL_S *dp)
{
    return dp->dp_desc.type == DP_TYPE_OBJ;
}

/*
 * Fill one object slot from the member by the DP's property type. Returns
 * false only for an enum text that names none of the DP's values (the
 * slot then keeps index 0).
 */
bool fill_slot(KL_OBJ_DP_S *slot, const DP_CNTL_S *dp, const cJSON *member)
{
    slot->dpid = dp->dp_desc.dp_id;
    slot->type = dp->dp_desc.prop_tp;
    slot->time_stamp = uni_time_get_posix();
    const bool is_text = sf::json_type(member) == sf::JSON_STRING;
    switch (dp->dp_desc.prop_tp) {
    case PROP_BOOL:
        slot->value.dp_bool = sf::json_type(member) == sf::JSON_TRUE ? TRUE : FALSE;
        break;
    case PROP_VALUE:
        slot->value.dp_value = member->valueint;
        break;
    case PROP_STR:
        if (is_text) {
            slot->value.dp_str = member->valuestring; /* lives as long as the command tree */
        }
        break;
    case PROP_ENUM:
        if (is_text) {
            const INT_T index = sf::enum_index(dp, member->valuestring);
            if (index < 0) {
                return false;
            }
            slot->value.dp_enum = static_cast<UINT_T>(index);
        }
        break;
    case PROP_BITMAP:
        slot->value.dp_bitmap = static_cast<UINT_T>(member->valueint);
        break;
    default:
        break; /* unknown property type: the value stays 0 */
    }
    return true;
}

/* Give the object record (if any) to the application, then release it. */
void hand_over(const KL_IOT_CBS_S &cbs, sf::MallocPtr<KL_RECV_OBJ_DP_S> obj_dps)
{
    if (obj_dps && cbs.dev_obj_dp_cb != nullptr) {
        cbs.dev_obj_dp_cb(obj_dps.get());
    }
}

} // namespace

extern "C" OPERATE_RET __sf_handle_recv_dp(DP_CMD_TYPE_E cmd, DP_TRANS_TYPE_T dt_tp, const CHAR_T *mb_id,
                                           const CHAR_T *cid, cJSON *dps_js)
{
    if (sf::json_type(dps_js) != sf::JSON_OBJECT) {
        SF_LOG_ERR("dps is not an object");
        return RC_BAD_PARAM;
    }
    DEV_CNTL_N_S *dev_cntl = cid != nullptr ? get_dev_cntl(cid) : get_gw_dev_cntl();
    if (dev_cntl == nullptr) {
        SF_LOG_ERR("can't find device");
        return RC_FAIL;
    }
    sf::MallocPtr<BYTE_T> query_dp_id(static_cast<BYTE_T *>(Malloc(QUERY_DP_CAP)));
    if (!query_dp_id) {
        SF_LOG_ERR("malloc fail %d", static_cast<INT_T>(QUERY_DP_CAP));
        return RC_NO_MEMORY;
    }

    /*
     * First pass: drop the DPs the device does not have, release commanded
     * passive DPs, count the object slots. Counts are kept wide so that no
     * number of members can make the record smaller than what is written.
     */
    size_t obj_dp_cnt = 0;
    sf::Hold table_lock(sf::dev_mutex, get_gw_cntl()); /* passive flags; no callback in this pass */
    for (cJSON *member = dps_js->child; member != nullptr;) {
        cJSON *next = member->next;
        DP_CNTL_S *dp = __locate_dp_ctl_by_dpid(dev_cntl, sf::member_dp_id(member));
        if (dp == nullptr) {
            SF_LOG_ERR("DP ID %d Invalid", sf::member_dp_id(member));
            cJSON_Delete(cJSON_DetachItemViaPointer(dps_js, member));
            member = next;
            continue;
        }
        if (dev_cntl->attr.preprocess == TRUE && dp->dp_desc.passive == PSV_HOLD) {
            dp->dp_desc.passive = PSV_RELEASED; /* a commanded passive DP may report again */
        }
        if (takes_object_slot(dp)) {
            ++obj_dp_cnt;
        }
        member = next;
    }
    table_lock.unlock();

    sf::MallocPtr<KL_RECV_OBJ_DP_S> obj_dps;
    if (obj_dp_cnt > 0) {
        const size_t size = sizeof(KL_RECV_OBJ_DP_S) + obj_dp_cnt * sizeof(KL_OBJ_DP_S);
        obj_dps.reset(static_cast<KL_RECV_OBJ_DP_S *>(Malloc(size)));
        if (!obj_dps) {
            SF_LOG_ERR("malloc error obj_dp_cnt:%d", static_cast<INT_T>(obj_dp_cnt));
            return RC_NO_MEMORY;
        }
        std::memset(obj_dps.get(), 0, size);
        obj_dps->cmd_tp = cmd;
        obj_dps->dtt_tp = dt_tp;
        obj_dps->cid = const_cast<CHAR_T *>(cid);
        obj_dps->mb_id = const_cast<CHAR_T *>(mb_id);
        obj_dps->dps_cnt = static_cast<UINT_T>(obj_dp_cnt);
    }

    const KL_IOT_CBS_S &cbs = get_gw_cntl()->cbs;
    size_t valid_num = 0; /* object slots filled, also the next slot's index */
    size_t equal_num = 0;
    for (const cJSON *member = dps_js->child; member != nullptr; member = member->next) {
        const DP_CNTL_S *dp = __locate_dp_ctl_by_dpid(dev_cntl, sf::member_dp_id(member));
        if (dp == nullptr) {
            continue; /* removed above; cannot happen */
        }
        if (is_raw_text(dp, member)) {
            const size_t text_len = std::strlen(member->valuestring);
            const size_t size = sizeof(KL_RECV_RAW_DP_S) + text_len;
            sf::MallocPtr<KL_RECV_RAW_DP_S> raw(static_cast<KL_RECV_RAW_DP_S *>(Malloc(size)));
            if (!raw) {
                return RC_OK; /* the command is given up quietly, object DPs included */
            }
            std::memset(raw.get(), 0, size);
            raw->cid = const_cast<CHAR_T *>(cid);
            raw->cmd_tp = cmd;
            raw->dpid = dp->dp_desc.dp_id;
            raw->dtt_tp = dt_tp;
            raw->mb_id = const_cast<CHAR_T *>(mb_id);
            const INT_T decoded = kelo_base64_decode(member->valuestring, raw->data);
            if (decoded < 0) {
                /* bytes that cannot be decoded are not the device's command: not delivered */
                SF_LOG_ERR("raw dp %d base64 invalid", dp->dp_desc.dp_id);
                continue;
            }
            raw->len = static_cast<UINT_T>(decoded);
            if (cbs.dev_raw_dp_cb != nullptr) {
                cbs.dev_raw_dp_cb(raw.get());
            }
            continue;
        }
        if (!takes_object_slot(dp)) {
            SF_LOG_ERR("dp id %d type %d not accepted", dp->dp_desc.dp_id, dp->dp_desc.type);
            continue;
        }
        if (!fill_slot(&obj_dps->dps[valid_num], dp, member)) {
            SF_LOG_ERR("dp enum value[%s] invalid", member->valuestring);
        }
        ++valid_num;
        sf::Hold value_lock(sf::dev_mutex, get_gw_cntl()); /* released before the next callback */
        const bool unchanged = sf::dp_value_equal(dp, member);
        value_lock.unlock();
        if (unchanged) {
            /* beyond the capacity recording stops; equal_num then stays below valid_num: no echo */
            if (equal_num < QUERY_DP_CAP) {
                query_dp_id.get()[equal_num++] = static_cast<BYTE_T>(sf::member_dp_id(member));
            }
        }
    }

    /*
     * The echo answers a command that changes nothing; the object record
     * goes to the application before it for "ctype" 3, after it otherwise,
     * and alone for a multi-DP command (already answered by the intake).
     */
    const bool want_echo = dt_tp != DTT_MULTI && equal_num > 0 && equal_num == valid_num;
    const bool callback_first = dt_tp == DTT_CTYPE_3 || dt_tp == DTT_MULTI;
    if (callback_first) {
        hand_over(cbs, std::move(obj_dps));
    }
    if (want_echo) {
        const OPERATE_RET rc =
            __sf_response_query_obj_dp(dev_cntl, query_dp_id.get(), static_cast<BYTE_T>(equal_num));
        if (rc != RC_OK) {
            SF_LOG_ERR("sf_obj_dp_qry_dpid error:%d  %d %d", rc, static_cast<INT_T>(equal_num),
                       static_cast<INT_T>(valid_num));
        }
    }
    if (!callback_first) {
        hand_over(cbs, std::move(obj_dps));
    }
    return RC_OK;
}
