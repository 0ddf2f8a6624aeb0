/*
 * The LAN channel's inbound road, as far as it is reachable without a
 * socket: the bytes a client sends, cut into reads of the sizes the first
 * byte gives, framed into lines by the session (longest line 65536: the
 * default of lan_config.h), each line bounded and parsed (nesting 32) and,
 * when it names a known "cmd" with a "data" object, handed to the module
 * with DP_CMD_LAN, on the fakes. Authentication is taken as done.
 */
#include <string>
#include <vector>

#include "fuzz/harness.h"
#include "port/posix/lan_session.h"
#include "port/posix/wire_commands.h"
#include "port/posix/wire_json.h"

namespace {

constexpr size_t MAX_LINE = 65536;
constexpr size_t MAX_DEPTH = 32;

/* What the channel does with one line of an authenticated client. */
void hand_over(const std::string &line)
{
    const char *why = "";
    cJSON *doc = sf_wire::parse_bounded(line.data(), line.size(), MAX_LINE, MAX_DEPTH, &why);
    const cJSON *cmd = cJSON_GetObjectItemCaseSensitive(doc, "cmd");
    const sf_wire::CmdKind kind =
        cJSON_IsString(cmd) ? sf_wire::cmd_kind_from_name(cmd->valuestring) : sf_wire::CmdKind::Unknown;
    cJSON *payload = cJSON_DetachItemFromObjectCaseSensitive(doc, "data");
    cJSON_Delete(doc);
    if (kind == sf_wire::CmdKind::Unknown || payload == nullptr) {
        cJSON_Delete(payload);
        return;
    }
    (void)sf_wire::dispatch_command(kind, payload, DP_CMD_LAN);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1) {
        return 0;
    }
    sf_fuzz::begin_run(sf_fuzz::Channels{});
    {
        sf_lan::Session session(-1, "fuzz", sf_lan::Clock::now());
        session.set_authed();
        const size_t chunk = static_cast<size_t>(data[0]) + 1;
        for (size_t at = 1; at < size; at += chunk) {
            std::vector<std::string> lines;
            const size_t len = size - at < chunk ? size - at : chunk;
            if (!session.take_bytes(reinterpret_cast<const char *>(data + at), len, MAX_LINE, &lines)) {
                break; /* the channel closes such a client */
            }
            for (const std::string &line : lines) {
                hand_over(line);
            }
        }
    }
    sf_fuzz::end_run();
    return 0;
}
