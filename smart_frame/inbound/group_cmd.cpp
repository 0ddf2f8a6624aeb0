/*
 * Group commands: the cloud or a LAN app adds sub-devices to a group, or
 * removes them. The producer only queues the command; on the dispatch
 * thread the application's gw_dev_grp_cb does the work for each listed
 * device, and one answer with every device's result goes back on the
 * channel the command came from.
 *
 *   {"action":0,"cids":["a","b"],"gid":"5"}  ->  {"action":0,"rets":[0,0],"gid":"5"}
 */
#include <cstring>

#include "../../cloud_defs/gw_intf.h"
#include "../../services/lan_channel.h"
#include "../../services/mqtt_client.h"
#include "../frame_cntl.h"
#include "../sf_log.h"
#include "inbound.h"
#include "member_oper.h"

namespace {

/* MQTT protocol number of a group answer */
constexpr UINT_T PRO_GRP_ANSWER = 203;

/* What a LAN app gets for a malformed command; the wording is the one LAN apps know. */
constexpr char LAN_OPER_FAILED[] = "scene oper failed";

/* The one place the handler reports a malformed command from the LAN. */
void answer_lan_failure(DP_CMD_TYPE_E tp)
{
    if (tp == DP_CMD_LAN) {
        lan_data_report_cb(LAN_FRAME_GRP_ANSWER, 1, LAN_OPER_FAILED, sizeof(LAN_OPER_FAILED) - 1);
    }
}

} // namespace

extern "C" OPERATE_RET sf_send_grp_oper_cmd(SF_GW_DEV_CMD_S *grp_cmd)
{
    if (grp_cmd == nullptr) {
        SF_LOG_ERR("Invalid Param");
        return RC_BAD_PARAM;
    }
    return cmmod_post_msg_malloc(sf::sf_cntl.mid_gw_group_oper_cmd, grp_cmd, sizeof(*grp_cmd));
}

/*
 * Dispatch thread; takes no lock (callbacks and channels are called freely).
 * Owns the copied envelope and the command tree: both are released on
 * every path, the tree first. The answer's ids point into the tree.
 */
extern "C" void __sf_gw_group_oper_cmd_cb(MESSAGE *msg)
{
    const sf::MemberOperMsg<SF_GW_DEV_CMD_S> held(msg);
    if (!held) {
        SF_LOG_ERR("Invalid Param");
        return;
    }
    const DP_CMD_TYPE_E tp = held.tp();
    SF_LOG_PROG("Rev Cmd %d", tp);

    sf::MemberOperCmd cmd;
    if (!sf::read_member_oper_cmd(held.tree(), false, &cmd)) {
        SF_LOG_ERR("param is no correct");
        answer_lan_failure(tp);
        return;
    }

    const GW_DEV_GRP_INFM_CB grp_cb = get_gw_cntl()->gw_cbs.gw_dev_grp_cb;
    if (grp_cb == nullptr) {
        return; /* nobody to do the work: dropped without an answer */
    }
    const GRP_ACTION_E action = cmd.remove ? GRP_DEL : GRP_ADD;

    /* every device runs; the answer carries each one's code as the application gave it */
    OPERATE_RET ret_list[sf::MEMBER_OPER_MAX_IDS] = {};
    OPERATE_RET op_ret = RC_OK;
    int i = 0;
    const cJSON *id = nullptr;
    cJSON_ArrayForEach(id, cmd.cids) {
        ret_list[i] = grp_cb(action, id->valuestring, cmd.gid);
        op_ret = ret_list[i];
        ++i;
    }

    size_t size = 0;
    const sf::TextPtr ret_str = sf::print_answer(
        ret_list, cmd.dev_num,
        [&](sf::TextOut &out, const CHAR_T *rets) {
            out.add("{\"action\":%d,%s\"gid\":\"%s\"}", action, rets, cmd.gid);
        },
        &size);
    if (!ret_str) {
        SF_LOG_ERR("Malloc Fails %d", static_cast<INT_T>(size));
        return;
    }
    SF_LOG_PROG("ret_str is %s", ret_str.get());

    /* another channel gets no answer; the check below then sees the last device's result */
    if (tp == DP_CMD_LAN) {
        op_ret = lan_data_report_cb(LAN_FRAME_GRP_ANSWER, 0, ret_str.get(),
                                    static_cast<UINT_T>(std::strlen(ret_str.get())));
    } else if (tp == DP_CMD_MQ) {
        op_ret = mqc_prot_data_rept_seq(PRO_GRP_ANSWER, ret_str.get(), 0, 0, nullptr, nullptr);
    }
    if (op_ret != RC_OK) {
        SF_LOG_ERR("report[%d] fails %d", 1, op_ret);
    }
}
