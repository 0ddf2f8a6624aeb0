/*
 * What happens to a command the edge check refuses: one log line an
 * operator sees by default, and an answer on the channel it came from,
 * so a cloud can tell "refused" from "lost" (docs/wire-protocol.md).
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include "services/lan_channel.h"
#include "services/mqtt_client.h"
#include "wire_json.h"
#include "wire_validate.h"
#include "services/log_front.h"

namespace {

/* What the log line calls a command of kind. */
const char *log_label(sf_wire::CmdKind kind)
{
    switch (kind) {
    case sf_wire::CmdKind::Dp: return "dp command";
    case sf_wire::CmdKind::Group: return "group command";
    case sf_wire::CmdKind::Scene: return "scene command";
    case sf_wire::CmdKind::Query: return "query";
    default: return "unknown command";
    }
}

void send_refusal(const std::string &text, DP_CMD_TYPE_E tp)
{
    OPERATE_RET rc = RC_OK;
    if (tp == DP_CMD_MQ) {
        rc = mqc_prot_data_rept_seq(WIRE_PRO_CMD_REFUSED, text.c_str(), 1, 0, nullptr, nullptr);
    } else if (tp == DP_CMD_LAN) {
        rc = lan_data_report_cb(WIRE_PRO_CMD_REFUSED, 1, text.data(), static_cast<UINT_T>(text.size()));
    }
    if (rc != RC_OK && rc != RC_LAN_NOT_SENT) {
        SF_LOG_ERR("refusal answer not sent: %d", rc);
    }
}

} // namespace

namespace sf_wire {

bool admit_command(CmdKind kind, const cJSON *doc, DP_CMD_TYPE_E tp)
{
    if (wire_command_checks() == FALSE) {
        return true;
    }
    Refusal why;
    if (validate_command(kind, doc, &why)) {
        return true;
    }
    SF_LOG_ERR("%s dropped: %s [%s]", log_label(kind), why.text.c_str(), why.code);
    send_refusal(refusal_text(kind, doc, why), tp);
    return false;
}

} // namespace sf_wire
