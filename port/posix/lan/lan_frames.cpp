/*
 * Inbound LAN frames: the authentication line and the commands that follow
 * it (docs/wire-protocol.md).
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include <cstring>

#include "cloud_defs/gw_intf.h"
#include "lan_channel_state.h"
#include "lan_config.h"
#include "gateway/edge/wire_commands.h"
#include "gateway/edge/wire_json.h"
#include "services/log_front.h"

namespace sf_lan {

namespace {

bool keys_equal(const std::string &given, const std::string &expected)
{
    // The time taken does not depend on where the texts differ.
    unsigned char diff = given.size() == expected.size() ? 0 : 1;
    for (size_t i = 0; i < given.size(); ++i) {
        diff |= static_cast<unsigned char>(given[i] ^ expected[i % expected.size()]);
    }
    return diff == 0;
}

} // namespace

bool authenticate(Session *session, const std::string &line)
{
    const char *why = "";
    cJSON *doc = sf_wire::parse_bounded(line.data(), line.size(), g_settings.max_frame_bytes,
                                        g_settings.max_frame_depth, &why);
    const cJSON *cmd = cJSON_GetObjectItemCaseSensitive(doc, "cmd");
    const cJSON *key = cJSON_GetObjectItemCaseSensitive(doc, "key");
    const bool ok = cJSON_IsString(cmd) && std::strcmp(cmd->valuestring, "auth") == 0 && cJSON_IsString(key) &&
                    keys_equal(key->valuestring, g_settings.local_key);
    cJSON_Delete(doc);
    if (!ok) {
        return false;
    }
    session->set_authed();
    const GW_CNTL_S *gw = get_gw_cntl();
    const std::string hello = "{\"gwId\":" + sf_wire::quote(gw->gw_if.id, std::strlen(gw->gw_if.id)) + "}";
    session->queue_text(sf_wire::wrap_frame({{"type", LAN_FRAME_AUTH_OK}, {"flag", 0}}, hello.data(), hello.size()) +
                            "\n",
                        g_settings.max_queue_frames);
    return true;
}

void hand_over(const std::string &peer, const std::string &line, const FrameLimits &limits)
{
    const char *why = "";
    cJSON *doc = sf_wire::parse_bounded(line.data(), line.size(), limits.max_bytes, limits.max_depth, &why);
    if (doc == nullptr) {
        SF_LOG_ERR("LAN frame from %s dropped: %s", peer.c_str(), why);
        return;
    }
    const cJSON *cmd = cJSON_GetObjectItemCaseSensitive(doc, "cmd");
    const sf_wire::CmdKind kind =
        cJSON_IsString(cmd) ? sf_wire::cmd_kind_from_name(cmd->valuestring) : sf_wire::CmdKind::Unknown;
    cJSON *data = cJSON_DetachItemFromObjectCaseSensitive(doc, "data");
    cJSON_Delete(doc);
    if (kind == sf_wire::CmdKind::Unknown || data == nullptr) {
        SF_LOG_ERR("LAN frame from %s dropped: needs a known \"cmd\" and a \"data\" object", peer.c_str());
        cJSON_Delete(data);
        return;
    }
    sf_wire::dispatch_command(kind, data, DP_CMD_LAN);
}

} // namespace sf_lan
