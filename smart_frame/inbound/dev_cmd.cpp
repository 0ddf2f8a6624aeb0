/*
 * Intake of device DP commands. The network receive paths only queue the
 * parsed command; the handler runs later on the dispatch thread, one
 * command at a time in arrival order, so application callbacks never run
 * on a network thread.
 */
#include <strings.h>

#include <cstring>

#include "../../services/uni_memory.h"
#include "../frame_cntl.h"
#include "../json_type.h"
#include "../sf_log.h"
#include "../sf_raii.h"
#include "inbound.h"

namespace {

/* Transfer types from this value on are unknown and handled as type 0. */
constexpr INT_T DTT_FIRST_UNKNOWN = 4;

/*
 * The target device id inside the command ("devId", else "cid"), or NULL
 * for the gateway itself: no id, a JSON null id, or the gateway's own id
 * in any letter case. The text belongs to the command tree.
 */
const CHAR_T *command_target(const cJSON *cmd)
{
    const cJSON *id = cJSON_GetObjectItem(cmd, "devId");
    if (id == nullptr) {
        id = cJSON_GetObjectItem(cmd, "cid");
    }
    if (id == nullptr || sf::json_type(id) == sf::JSON_NULL || id->valuestring == nullptr) {
        return nullptr;
    }
    if (strcasecmp(id->valuestring, get_gw_cntl()->gw_if.id) == 0) {
        return nullptr;
    }
    return id->valuestring;
}

} // namespace

extern "C" OPERATE_RET sf_send_gw_dev_cmd(SF_GW_DEV_CMD_S *gd_cmd)
{
    if (gd_cmd == nullptr) {
        SF_LOG_ERR("Invalid Param");
        return RC_BAD_PARAM;
    }
    return cmmod_post_msg_malloc(sf::sf_cntl.mid_gw_dev_cmd, gd_cmd, sizeof(*gd_cmd));
}

/* Dispatch thread; no lock held. Owns the envelope copy and the command tree. */
extern "C" void __sf_gw_dev_cmd_cb(MESSAGE *msg)
{
    if (msg == nullptr || msg->pMsgData == nullptr) {
        SF_LOG_ERR("Invalid Param");
        return;
    }
    /* released whatever happens below: the tree first, then the envelope */
    sf::MallocPtr<SF_GW_DEV_CMD_S> envelope(static_cast<SF_GW_DEV_CMD_S *>(msg->pMsgData));
    sf::JsonPtr tree(envelope->cmd_js);
    SF_LOG_DETAIL("Rev Cmd %d", envelope->tp);

    const CHAR_T *cid = command_target(tree.get());

    DP_TRANS_TYPE_T dt_tp = DTT_CTYPE_0;
    const cJSON *ctype = cJSON_GetObjectItem(tree.get(), "ctype");
    if (ctype != nullptr) {
        const BYTE_T value = static_cast<BYTE_T>(ctype->valueint);
        if (value >= DTT_FIRST_UNKNOWN) {
            SF_LOG_ERR("dp transfer type error type is :%d", value);
        } else {
            dt_tp = value;
        }
    }

    const CHAR_T *mb_id = nullptr;
    if (dt_tp == DTT_MULTI) {
        const cJSON *mbid = cJSON_GetObjectItem(tree.get(), "mbid");
        mb_id = mbid != nullptr ? mbid->valuestring : nullptr;
        /* answer the cloud at once with the command itself; the report copies the text */
        sf::TextPtr text(cJSON_PrintUnformatted(tree.get()));
        const OPERATE_RET rc = text ? sf_multi_dp_report_async(text.get(), static_cast<INT_T>(std::strlen(text.get())), 0,
                                                               nullptr)
                                    : RC_NO_MEMORY;
        if (rc != RC_OK) {
            SF_LOG_ERR("mqc_prot_data_rept fails %d", rc);
        }
    }

    /*
     * The envelope (target, transfer type, multi-DP answer) is settled first;
     * only the decoding needs the DPs, and it walks them as an object.
     */
    cJSON *dps = cJSON_GetObjectItem(tree.get(), "dps");
    if (sf::json_type(dps) != sf::JSON_OBJECT) {
        SF_LOG_ERR("cmd has no dps object");
        return;
    }
    const OPERATE_RET rc = __sf_handle_recv_dp(envelope->tp, dt_tp, mb_id, cid, dps);
    if (rc != RC_OK) {
        SF_LOG_ERR("__smt_frm_cmd_prep error:%d", rc);
    }
}
