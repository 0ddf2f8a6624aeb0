/*
 * Scene commands: the cloud adds sub-devices to a scene of a group, or
 * removes them. For each listed device the group step runs first, then
 * (only when adding) the application's scene step, then the registry
 * records the membership. One answer over MQTT lists the devices that
 * succeeded and a result code for every device:
 *
 *   0     every step succeeded (the id is also listed in "cids")
 *   1..4  an application callback returned exactly this value
 *   5     an application callback returned any other failure
 *   4     the registry refused (while adding: any code but -1007)
 *   1     while adding, the registry's membership table is full (-1007)
 *
 * Nothing is undone when a later step of a device fails.
 */
#include "../../cloud_defs/gw_intf.h"
#include "../../services/mqtt_client.h"
#include "../frame_cntl.h"
#include "../sf_log.h"
#include "inbound.h"
#include "member_oper.h"

namespace {

/* MQTT protocol number of a scene answer, whatever channel the command came on */
constexpr UINT_T PRO_SCENE_ANSWER = 205;

constexpr OPERATE_RET SCENE_RET_OK = 0;
constexpr OPERATE_RET SCENE_RET_FULL = 1;      /* the registry's table is full (adding) */
constexpr OPERATE_RET SCENE_RET_REGISTRY = 4;  /* the registry refused */
constexpr OPERATE_RET SCENE_RET_APP_OTHER = 5; /* the application failed with a code the cloud does not know */

/* The application's own codes 1..4 reach the cloud as they are; any other failure is 5. */
OPERATE_RET app_result(OPERATE_RET op_ret)
{
    return op_ret >= 1 && op_ret <= 4 ? op_ret : SCENE_RET_APP_OTHER;
}

OPERATE_RET registry_result(SCE_ACTION_E action, OPERATE_RET op_ret)
{
    return action == SCE_ADD && op_ret == RC_MEMBERSHIP_FULL ? SCENE_RET_FULL : SCENE_RET_REGISTRY;
}

} // namespace

extern "C" OPERATE_RET sf_send_scene_oper_cmd(SF_GW_SCE_CMD_S *sce_cmd)
{
    if (sce_cmd == nullptr) {
        SF_LOG_ERR("Invalid Param");
        return RC_BAD_PARAM;
    }
    return cmmod_post_msg_malloc(sf::sf_cntl.mid_gw_scene_oper_cmd, sce_cmd, sizeof(*sce_cmd));
}

/*
 * Dispatch thread; takes no lock (callbacks, registry updates and the MQTT
 * client are called freely). Owns the copied envelope and the command tree:
 * both are released on every path, the tree first. The ids the callbacks
 * get and the answer prints point into the tree.
 */
extern "C" void __sf_gw_scene_oper_cmd_cb(MESSAGE *msg)
{
    const sf::MemberOperMsg<SF_GW_SCE_CMD_S> held(msg);
    if (!held) {
        SF_LOG_ERR("Invalid Param");
        return;
    }
    SF_LOG_PROG("Rev Cmd %d", held.tp());

    /* a malformed scene command gets no answer on any channel */
    sf::MemberOperCmd cmd;
    if (!sf::read_member_oper_cmd(held.tree(), true, &cmd)) {
        SF_LOG_ERR("param is no correct");
        return;
    }

    const KL_IOT_GW_CBS_S &cbs = get_gw_cntl()->gw_cbs;
    const GW_DEV_GRP_INFM_CB grp_cb = cbs.gw_dev_grp_cb;
    const GW_DEV_SCENE_INFM_CB scene_cb = cbs.gw_dev_scene_cb;
    if (grp_cb == nullptr || scene_cb == nullptr) {
        return; /* the application does not take part in scenes: dropped without an answer */
    }
    const SCE_ACTION_E action_sce = cmd.remove ? SCE_DEL : SCE_ADD;
    const GRP_ACTION_E action_grp = cmd.remove ? GRP_DEL : GRP_ADD;
    const CHAR_T *grp_id = cmd.gid;
    const CHAR_T *sce_id = cmd.sid;

    const CHAR_T *dev_list[sf::MEMBER_OPER_MAX_IDS] = {};
    OPERATE_RET ret_list[sf::MEMBER_OPER_MAX_IDS] = {};
    int success = 0;
    int i = 0;
    const cJSON *id = nullptr;
    cJSON_ArrayForEach(id, cmd.cids) {
        const CHAR_T *dev_id = id->valuestring;
        OPERATE_RET &result = ret_list[i++];

        OPERATE_RET op_ret = grp_cb(action_grp, dev_id, grp_id);
        if (op_ret != RC_OK) {
            SF_LOG_ERR("gw_dev_grp_cb err action:%d dev_id:%s grp_id:%s", action_grp, dev_id, grp_id);
            result = app_result(op_ret);
            continue;
        }
        /* removing: the application already left the group; its scene step is not asked for */
        if (action_sce == SCE_ADD) {
            op_ret = scene_cb(action_sce, dev_id, grp_id, sce_id);
            if (op_ret != RC_OK) {
                result = app_result(op_ret);
                continue;
            }
        }
        op_ret = dev_update_grp_info(action_grp, dev_id, grp_id);
        if (op_ret != RC_OK) {
            SF_LOG_ERR("dev_update_grp_info fails %d", op_ret);
            result = registry_result(action_sce, op_ret);
            continue;
        }
        op_ret = dev_update_scene_info(action_sce, dev_id, grp_id, sce_id);
        if (op_ret != RC_OK) {
            SF_LOG_ERR("dev_update_scene_info fails %d", op_ret);
            result = registry_result(action_sce, op_ret);
            continue;
        }
        dev_list[success++] = dev_id;
        result = SCENE_RET_OK;
    }
    SF_LOG_PROG("dev_num:%d,success:%d", cmd.dev_num, success);

    size_t size = 0;
    const sf::TextPtr ret_str = sf::print_answer(
        ret_list, cmd.dev_num,
        [&](sf::TextOut &out, const CHAR_T *rets) {
            out.add("{\"action\":%d,\"cids\":[", action_sce);
            for (int k = 0; k < success; ++k) {
                out.add(k == success - 1 ? "\"%s\"]," : "\"%s\",", dev_list[k]);
            }
            if (success == 0) {
                out.add("],");
            }
            out.add("%s\"sid\":\"%s\",\"gid\":\"%s\"}", rets, sce_id, grp_id);
        },
        &size);
    if (!ret_str) {
        SF_LOG_ERR("Malloc Fails %d", static_cast<INT_T>(size));
        return;
    }
    SF_LOG_PROG("ret_str is %s", ret_str.get());

    const OPERATE_RET op_ret = mqc_prot_data_rept_seq(PRO_SCENE_ANSWER, ret_str.get(), 0, 0, nullptr, nullptr);
    if (op_ret != RC_OK) {
        SF_LOG_ERR("mqc_prot_data_rept fails %d", op_ret);
    }
}
