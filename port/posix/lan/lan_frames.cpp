/*
 * Inbound LAN frames: the authentication line and the commands that follow
 * it (docs/wire-protocol.md).
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include <openssl/crypto.h>

#include <cstring>

#include "cloud_defs/gw_intf.h"
#include "lan_channel_state.h"
#include "lan_config.h"
#include "gateway/edge/wire_commands.h"
#include "gateway/edge/wire_json.h"
#include "services/log_front.h"

namespace sf_lan {

namespace {

/*
 * The given key against the expected one: lengths and bytes, in a time
 * that does not depend on where they differ.
 */
bool keys_equal(const char *given, size_t given_len, const std::string &expected)
{
    const bool same_length = given_len == expected.size();
    // A length that differs still costs a comparison of as many bytes.
    const int diff = CRYPTO_memcmp(given, same_length ? expected.data() : given, given_len);
    return same_length && diff == 0;
}

/*
 * A \u0000 escape in a line: cJSON decodes it to a NUL byte and cuts the
 * string there, so "<key>\u0000anything" would read as the key. The local
 * key is a C string and never holds a NUL, so such a key is wrong. Outside
 * strings JSON has no backslash: every escaping one is inside a string.
 */
bool has_escaped_nul(const std::string &line)
{
    size_t backslashes = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\\') {
            ++backslashes;
            continue;
        }
        if (backslashes % 2 == 1 && line.compare(i, 5, "u0000") == 0) {
            return true;
        }
        backslashes = 0;
    }
    return false;
}

} // namespace

AuthFrame classify_auth_frame(const std::string &line)
{
    const char *why = "";
    cJSON *doc = sf_wire::parse_bounded(line.data(), line.size(), g_settings.max_frame_bytes,
                                        g_settings.max_frame_depth, &why);
    const cJSON *cmd = cJSON_GetObjectItemCaseSensitive(doc, "cmd");
    const cJSON *key = cJSON_GetObjectItemCaseSensitive(doc, "key");
    AuthFrame kind = AuthFrame::NotAuth;
    if (cJSON_IsString(cmd) && std::strcmp(cmd->valuestring, "auth") == 0) {
        kind = cJSON_IsString(key) && !has_escaped_nul(line) &&
                       keys_equal(key->valuestring, std::strlen(key->valuestring), g_settings.local_key)
                   ? AuthFrame::RightKey
                   : AuthFrame::WrongKey;
    }
    cJSON_Delete(doc);
    return kind;
}

void welcome(Session *session)
{
    session->set_authed();
    const GW_CNTL_S *gw = get_gw_cntl();
    const std::string hello = "{\"gwId\":" + sf_wire::quote(gw->gw_if.id, std::strlen(gw->gw_if.id)) + "}";
    session->queue_text(sf_wire::wrap_frame({{"type", LAN_FRAME_AUTH_OK}, {"flag", 0}}, hello.data(), hello.size()) +
                            "\n",
                        g_settings.max_queue_frames);
}

bool authenticate(Session *session, const std::string &line)
{
    if (classify_auth_frame(line) != AuthFrame::RightKey) {
        return false;
    }
    welcome(session);
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
