/*
 * What happens to a command the edge check refuses: one log line an
 * operator sees by default, and an answer on the channel it came from,
 * so a cloud can tell "refused" from "lost" (docs/wire-protocol.md).
 */
#include <atomic>
#include <cstring>

#include "../../services/lan_channel.h"
#include "../../services/mqtt_client.h"
#include "channel_log.h"
#include "wire_json.h"
#include "wire_validate.h"

namespace {

std::atomic<bool> g_checks{true};

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

std::string quoted(const std::string &text) { return sf_wire::quote(text.data(), text.size()); }

/* The command's own "sn" (a number or a string) or "mbid" (a string), printed; "" when absent. */
std::string echoed(const cJSON *doc, const char *key, bool numbers_too)
{
    const cJSON *item = cJSON_IsObject(doc) ? cJSON_GetObjectItemCaseSensitive(doc, key) : nullptr;
    if (!cJSON_IsString(item) && !(numbers_too && cJSON_IsNumber(item))) {
        return "";
    }
    char *text = cJSON_PrintUnformatted(item);
    std::string out = text != nullptr ? text : "";
    cJSON_free(text);
    return out;
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
        CH_LOG_ERR("refusal answer not sent: %d", rc);
    }
}

} // namespace

extern "C" void wire_set_command_checks(BOOL_T on) { g_checks.store(on != FALSE); }

extern "C" BOOL_T wire_command_checks(void) { return g_checks.load() ? TRUE : FALSE; }

namespace sf_wire {

std::string refusal_text(CmdKind kind, const cJSON *doc, const Refusal &why)
{
    std::string out = std::string("{\"cmd\":") + quoted(cmd_kind_name(kind));
    const std::string sn = echoed(doc, "sn", true);
    const std::string mbid = echoed(doc, "mbid", false);
    if (!sn.empty()) {
        out += ",\"sn\":" + sn;
    }
    if (!mbid.empty()) {
        out += ",\"mbid\":" + mbid;
    }
    if (!why.dev_json.empty()) {
        out += ",\"devId\":" + why.dev_json;
    }
    if (!why.dp.empty()) {
        out += ",\"dp\":" + quoted(why.dp);
    }
    return out + ",\"code\":" + quoted(why.code) + ",\"reason\":" + quoted(why.text) + "}";
}

bool admit_command(CmdKind kind, const cJSON *doc, DP_CMD_TYPE_E tp)
{
    if (!g_checks.load()) {
        return true;
    }
    Refusal why;
    if (validate_command(kind, doc, &why)) {
        return true;
    }
    CH_LOG_ERR("%s dropped: %s [%s]", log_label(kind), why.text.c_str(), why.code);
    send_refusal(refusal_text(kind, doc, why), tp);
    return false;
}

} // namespace sf_wire
