/*
 * The MQTT client's inbound road: the first byte picks the command topic
 * ("dp", "group", "scene", "query" or an unknown level) and the channel
 * answers; the rest is the payload, bounded and parsed as the client's
 * inbound worker does (65536 bytes, nesting 32: the defaults of
 * mqtt_config.h) and handed to the module with DP_CMD_MQ, on the fakes.
 */
#include "fuzz/harness.h"
#include "gateway/edge/wire_commands.h"
#include "gateway/edge/wire_json.h"

namespace {

constexpr size_t MAX_BYTES = 65536;
constexpr size_t MAX_DEPTH = 32;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1) {
        return 0;
    }
    static const char *const topics[] = {"dp", "group", "scene", "query", "firmware"};
    sf_fuzz::begin_run(sf_fuzz::channels_from(static_cast<uint8_t>(data[0] >> 3)));
    const sf_wire::CmdKind kind = sf_wire::cmd_kind_from_name(topics[(data[0] & 7) % 5]);
    const char *why = "";
    cJSON *doc = sf_wire::parse_bounded(reinterpret_cast<const char *>(data + 1), size - 1, MAX_BYTES, MAX_DEPTH, &why);
    if (doc != nullptr) {
        (void)sf_wire::dispatch_command(kind, doc, DP_CMD_MQ); /* always consumes doc */
    }
    sf_fuzz::end_run();
    return 0;
}
