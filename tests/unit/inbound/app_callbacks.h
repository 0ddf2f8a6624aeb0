/*
 * The application side of the inbound road in tests: callbacks that copy
 * every record they receive (the records die when the callback returns),
 * note how many query answers had gone out at that moment (so a test can
 * tell an echo before the callback from one after it), and check that no
 * lock is held. Plus setters for the values a DP is known to hold.
 */
#ifndef SF_TEST_INBOUND_APP_CALLBACKS_H
#define SF_TEST_INBOUND_APP_CALLBACKS_H

#include <cstring>
#include <string>
#include <vector>

#include "tests/fakes/fakes.h"

namespace app {

struct ObjDp {
    int dpid;
    int type;
    KL_OBJ_DP_VALUE_U value;
    std::string str; /* dp_str copied, for PROP_STR slots with text */
    UINT_T time_stamp;
};

struct ObjCmd {
    int cmd_tp;
    int dtt_tp;
    bool has_cid;
    std::string cid;
    bool has_mb_id;
    std::string mb_id;
    UINT_T dps_cnt;
    std::vector<ObjDp> dps;
    size_t answers_before; /* query answers published before this callback */
};

struct RawCmd {
    int cmd_tp;
    int dtt_tp;
    bool has_cid;
    std::string cid;
    bool has_mb_id;
    std::string mb_id;
    int dpid;
    std::vector<uint8_t> data;
    size_t answers_before;
};

struct Query {
    std::string cid;
    std::vector<int> dpid;
};

inline std::vector<ObjCmd> &obj_cmds()
{
    static std::vector<ObjCmd> v;
    return v;
}
inline std::vector<RawCmd> &raw_cmds()
{
    static std::vector<RawCmd> v;
    return v;
}
inline std::vector<Query> &queries()
{
    static std::vector<Query> v;
    return v;
}

inline void on_obj(const KL_RECV_OBJ_DP_S *rec)
{
    fake::contract::check_no_lock_held("dev_obj_dp_cb");
    ObjCmd c{rec->cmd_tp, rec->dtt_tp, rec->cid != nullptr, rec->cid != nullptr ? rec->cid : "",
             rec->mb_id != nullptr, rec->mb_id != nullptr ? rec->mb_id : "", rec->dps_cnt, {},
             fake::mqtt::queries().size()};
    for (UINT_T i = 0; i < rec->dps_cnt; ++i) {
        const KL_OBJ_DP_S &d = rec->dps[i];
        std::string str;
        if (d.type == PROP_STR && d.value.dp_str != nullptr) {
            str = d.value.dp_str;
        }
        c.dps.push_back({d.dpid, d.type, d.value, str, d.time_stamp});
    }
    obj_cmds().push_back(c);
}

inline void on_raw(const KL_RECV_RAW_DP_S *rec)
{
    fake::contract::check_no_lock_held("dev_raw_dp_cb");
    raw_cmds().push_back({rec->cmd_tp, rec->dtt_tp, rec->cid != nullptr, rec->cid != nullptr ? rec->cid : "",
                          rec->mb_id != nullptr, rec->mb_id != nullptr ? rec->mb_id : "", rec->dpid,
                          std::vector<uint8_t>(rec->data, rec->data + rec->len), fake::mqtt::queries().size()});
}

inline void on_query(const KL_DP_QUERY_S *rec)
{
    fake::contract::check_no_lock_held("dev_dp_query_cb");
    queries().push_back({rec->cid != nullptr ? rec->cid : "(null)",
                         std::vector<int>(rec->dpid, rec->dpid + rec->cnt)});
}

/* Install all three callbacks on the gateway record, with empty records. */
inline void install()
{
    obj_cmds().clear();
    raw_cmds().clear();
    queries().clear();
    KL_IOT_CBS_S &cbs = fake::registry::gw()->cbs;
    cbs.dev_obj_dp_cb = on_obj;
    cbs.dev_raw_dp_cb = on_raw;
    cbs.dev_dp_query_cb = on_query;
}

/* ---- values a DP is known to hold (pv_stat defaults to confirmed) ---- */
inline DP_CNTL_S *known(const std::string &dev, BYTE_T id, DP_PV_STAT_E st)
{
    DP_CNTL_S *dp = fake::registry::dp(dev, id);
    dp->pv_stat = st;
    return dp;
}
inline void known_bool(const std::string &dev, BYTE_T id, BOOL_T v, DP_PV_STAT_E st = PV_STAT_CLOUD)
{
    known(dev, id, st)->prop.prop_bool.value = v;
}
inline void known_value(const std::string &dev, BYTE_T id, INT_T v, DP_PV_STAT_E st = PV_STAT_CLOUD)
{
    known(dev, id, st)->prop.prop_value.value = v;
}
inline void known_str(const std::string &dev, BYTE_T id, const char *v, DP_PV_STAT_E st = PV_STAT_CLOUD)
{
    std::strcpy(known(dev, id, st)->prop.prop_str.value, v);
}
inline void known_enum(const std::string &dev, BYTE_T id, INT_T v, DP_PV_STAT_E st = PV_STAT_CLOUD)
{
    known(dev, id, st)->prop.prop_enum.value = v;
}
inline void known_bitmap(const std::string &dev, BYTE_T id, UINT_T v, DP_PV_STAT_E st = PV_STAT_CLOUD)
{
    known(dev, id, st)->prop.prop_bitmap.value = v;
}

} // namespace app

#endif /* SF_TEST_INBOUND_APP_CALLBACKS_H */
