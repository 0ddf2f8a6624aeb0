/*
 * Scene commands: any bytes, parsed as JSON, posted with
 * sf_send_scene_oper_cmd and handled on the fake queue. The application's
 * group and scene results depend on the ids.
 */
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    sf_fuzz::begin_run(sf_fuzz::channels_from(static_cast<uint8_t>(size >> 1)));
    const DP_CMD_TYPE_E tp = static_cast<DP_CMD_TYPE_E>((size & 1) != 0 ? DP_CMD_LAN : DP_CMD_MQ);
    SF_GW_SCE_CMD_S cmd{tp, sf_fuzz::parse(data, size)};
    if (cmd.cmd_js != nullptr && sf_send_scene_oper_cmd(&cmd) != RC_OK) {
        cJSON_Delete(cmd.cmd_js);
    }
    sf_fuzz::end_run();
    return 0;
}
