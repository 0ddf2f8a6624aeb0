/*
 * Inbound commands of both channels: which kinds exist, how each one is
 * handed to the smart frame, and who owns the parsed tree afterwards.
 */
#ifndef GATEWAY_EDGE_WIRE_COMMANDS_H
#define GATEWAY_EDGE_WIRE_COMMANDS_H

#include <cjson/cJSON.h>

#include "cloud_defs/kelo_cloud_types.h"

namespace sf_wire {

enum class CmdKind { Dp, Group, Scene, Query, Unknown };

/* "dp", "group", "scene", "query": the MQTT topic's last level and the LAN frame's "cmd". */
CmdKind cmd_kind_from_name(const char *name);
const char *cmd_kind_name(CmdKind kind);

/*
 * Hand one command document to the smart frame, on the calling thread.
 * doc is always consumed: a posted tree belongs to the smart frame, a
 * refused or answered one is deleted here. tp is DP_CMD_MQ or DP_CMD_LAN.
 *   Dp, Group, Scene: the document must be a JSON object; it is posted
 *     with sf_send_gw_dev_cmd / sf_send_grp_oper_cmd / sf_send_scene_oper_cmd.
 *   Query: {"cids":[ids] (absent or null: the gateway), "dpids":[numbers]};
 *     sf_respone_obj_dp_query runs the application's query callback on
 *     this thread.
 * First the edge check (wire_validate.h): a command that does not fit the
 * registry's schemas is logged, answered on its channel and deleted.
 * Returns RC_OK, RC_BAD_PARAM (refused or wrong shape, logged) or the smart
 * frame's code (logged).
 */
OPERATE_RET dispatch_command(CmdKind kind, cJSON *doc, DP_CMD_TYPE_E tp);

} // namespace sf_wire

#endif /* GATEWAY_EDGE_WIRE_COMMANDS_H */
