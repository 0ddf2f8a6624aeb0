/*
 * Weak stand-ins of module entry points that may not be merged yet. Each
 * answers RC_FAIL and leaves every argument with its caller (a tree that
 * is not taken stays the caller's, as for any refused post).
 */
#include "module_gaps.h"

#include <cstring>

#include "smart_frame/smart_frame.h"

#define IT_GAP(ret, name, params, value)                                        \
    extern "C" ret it_gap_##name params { return value; }                      \
    extern "C" ret name params __attribute__((weak, alias("it_gap_" #name)));

IT_GAP(OPERATE_RET, sf_send_gw_dev_cmd, (SF_GW_DEV_CMD_S *), RC_FAIL)
IT_GAP(OPERATE_RET, sf_send_grp_oper_cmd, (SF_GW_DEV_CMD_S *), RC_FAIL)
IT_GAP(OPERATE_RET, sf_send_scene_oper_cmd, (SF_GW_SCE_CMD_S *), RC_FAIL)
IT_GAP(OPERATE_RET, sf_respone_obj_dp_query, (const cJSON *, const cJSON *), RC_FAIL)
IT_GAP(OPERATE_RET, sf_obj_dp_report_async, (const CHAR_T *, const CHAR_T *, BOOL_T), RC_FAIL)
IT_GAP(OPERATE_RET, sf_dev_online_stat_update, (const CHAR_T *, const BOOL_T), RC_FAIL)
IT_GAP(OPERATE_RET, sf_multi_dp_report_async, (const CHAR_T *, INT_T, UINT_T, void *), RC_FAIL)
IT_GAP(void, sf_start_sync_obj_dp, (void), )

namespace it {

namespace {

struct Gap {
    const char *name;
    const void *linked;
    const void *stand_in;
};

#define IT_GAP_ENTRY(name) {#name, reinterpret_cast<const void *>(&name), reinterpret_cast<const void *>(&it_gap_##name)}

const Gap GAPS[] = {
    IT_GAP_ENTRY(sf_send_gw_dev_cmd),       IT_GAP_ENTRY(sf_send_grp_oper_cmd),
    IT_GAP_ENTRY(sf_send_scene_oper_cmd),   IT_GAP_ENTRY(sf_respone_obj_dp_query),
    IT_GAP_ENTRY(sf_obj_dp_report_async),   IT_GAP_ENTRY(sf_dev_online_stat_update),
    IT_GAP_ENTRY(sf_multi_dp_report_async), IT_GAP_ENTRY(sf_start_sync_obj_dp),
};

} // namespace

std::vector<std::string> missing_module_parts(const std::vector<std::string> &names)
{
    std::vector<std::string> missing;
    for (const std::string &name : names) {
        for (const Gap &gap : GAPS) {
            if (name == gap.name && gap.linked == gap.stand_in) {
                missing.push_back(name);
            }
        }
    }
    return missing;
}

} // namespace it
