/*
 * Group commands: any bytes, parsed as JSON, posted with
 * sf_send_grp_oper_cmd and handled on the fake queue. The application's
 * per-device results depend on the ids, so every answer shape is reached.
 */
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    sf_fuzz::begin_run(sf_fuzz::channels_from(static_cast<uint8_t>(size >> 2)));
    /* LAN, MQTT, and a channel value no producer should send */
    static const DP_CMD_TYPE_E channels[] = {DP_CMD_LAN, DP_CMD_MQ, DP_CMD_LAN, static_cast<DP_CMD_TYPE_E>(7)};
    SF_GW_DEV_CMD_S cmd{channels[size & 3], sf_fuzz::parse(data, size)};
    if (cmd.cmd_js != nullptr && sf_send_grp_oper_cmd(&cmd) != RC_OK) {
        cJSON_Delete(cmd.cmd_js);
    }
    sf_fuzz::end_run();
    return 0;
}
