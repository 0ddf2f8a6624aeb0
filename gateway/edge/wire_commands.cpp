/*
 * Hand-over of inbound commands from either channel to the smart frame.
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include "wire_commands.h"

#include <cstring>
#include <strings.h>

#include "smart_frame/smart_frame.h"
#include "wire_validate.h"
#include "services/log_front.h"

namespace sf_wire {

namespace {

struct KindName {
    CmdKind kind;
    const char *name;
};

constexpr KindName KIND_NAMES[] = {
    {CmdKind::Dp, "dp"},
    {CmdKind::Group, "group"},
    {CmdKind::Scene, "scene"},
    {CmdKind::Query, "query"},
};

/*
 * A query's ids that name the gateway in another letter case become the
 * gateway's own id: DP commands name the gateway in any case (the module
 * resolves them so), but the module hands a query's ids to the application
 * as they are, and the application knows its gateway by the exact id.
 */
void name_the_gateway_as_it_is(cJSON *cids)
{
    const char *gw_id = get_gw_cntl()->gw_if.id;
    for (cJSON *id = cids != nullptr ? cids->child : nullptr; id != nullptr; id = id->next) {
        if (cJSON_IsString(id) && strcasecmp(id->valuestring, gw_id) == 0 && std::strcmp(id->valuestring, gw_id) != 0) {
            cJSON_SetValuestring(id, gw_id);
        }
    }
}

OPERATE_RET answer_query(cJSON *doc)
{
    cJSON *cids = cJSON_GetObjectItemCaseSensitive(doc, "cids");
    const cJSON *dpids = cJSON_GetObjectItemCaseSensitive(doc, "dpids");
    if (cids != nullptr && cJSON_IsNull(cids)) {
        cids = nullptr;
    }
    if (!cJSON_IsArray(dpids) || (cids != nullptr && !cJSON_IsArray(cids))) {
        SF_LOG_ERR("query dropped: \"dpids\" must be an array and \"cids\" an array or null");
        return RC_BAD_PARAM;
    }
    for (const cJSON *id = cids == nullptr ? nullptr : cids->child; id != nullptr; id = id->next) {
        if (!cJSON_IsString(id)) {
            SF_LOG_ERR("query dropped: every \"cids\" entry must be a string");
            return RC_BAD_PARAM;
        }
    }
    for (const cJSON *dp = dpids->child; dp != nullptr; dp = dp->next) {
        if (!cJSON_IsNumber(dp)) {
            SF_LOG_ERR("query dropped: every \"dpids\" entry must be a number");
            return RC_BAD_PARAM;
        }
    }
    name_the_gateway_as_it_is(cids);
    const OPERATE_RET rc = sf_respone_obj_dp_query(cids, dpids);
    if (rc != RC_OK) {
        SF_LOG_ERR("sf_respone_obj_dp_query failed %d", rc);
    }
    return rc;
}

OPERATE_RET post_command(CmdKind kind, cJSON *doc, DP_CMD_TYPE_E tp)
{
    OPERATE_RET rc;
    if (kind == CmdKind::Scene) {
        SF_GW_SCE_CMD_S cmd = {tp, doc};
        rc = sf_send_scene_oper_cmd(&cmd);
    } else {
        SF_GW_DEV_CMD_S cmd = {tp, doc};
        rc = kind == CmdKind::Dp ? sf_send_gw_dev_cmd(&cmd) : sf_send_grp_oper_cmd(&cmd);
    }
    if (rc != RC_OK) {
        // A refused post leaves the tree with us.
        SF_LOG_ERR("%s command not queued: %d", cmd_kind_name(kind), rc);
        cJSON_Delete(doc);
    }
    return rc;
}

} // namespace

CmdKind cmd_kind_from_name(const char *name)
{
    if (name != nullptr) {
        for (const KindName &entry : KIND_NAMES) {
            if (std::strcmp(entry.name, name) == 0) {
                return entry.kind;
            }
        }
    }
    return CmdKind::Unknown;
}

const char *cmd_kind_name(CmdKind kind)
{
    for (const KindName &entry : KIND_NAMES) {
        if (entry.kind == kind) {
            return entry.name;
        }
    }
    return "unknown";
}

OPERATE_RET dispatch_command(CmdKind kind, cJSON *doc, DP_CMD_TYPE_E tp)
{
    if (doc == nullptr) {
        return RC_BAD_PARAM;
    }
    if (!admit_command(kind, doc, tp)) {
        cJSON_Delete(doc); // refused at the edge: logged and answered, nothing reaches the smart frame
        return RC_BAD_PARAM;
    }
    if (!cJSON_IsObject(doc) || kind == CmdKind::Unknown) {
        SF_LOG_ERR("%s command dropped: not a JSON object or unknown kind", cmd_kind_name(kind));
        cJSON_Delete(doc);
        return RC_BAD_PARAM;
    }
    if (kind == CmdKind::Query) {
        const OPERATE_RET rc = answer_query(doc);
        cJSON_Delete(doc);
        return rc;
    }
    return post_command(kind, doc, tp);
}

} // namespace sf_wire
