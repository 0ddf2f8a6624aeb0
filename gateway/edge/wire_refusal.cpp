/*
 * What happens to a command the edge check refuses: one log line an
 * operator sees by default, and an answer on the channel it came from,
 * so a cloud can tell "refused" from "lost" (docs/wire-protocol.md).
 */
#define SF_LOG_MODULE SF_LOG_MODULE_CHANNEL
#include <atomic>
#include <ctime>

#include "gateway/gateway_tunables.h"
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

std::atomic<UINT_T> g_max_age_s{SF_COMMAND_MAX_AGE_S};
std::atomic<uint64_t> g_expired{0};

/*
 * Whether doc carries a "t" older than the limit. A "t" in the future (a
 * clock ahead of ours) is no reason to refuse; one that is no number is
 * the edge check's to refuse (bad_shape).
 */
bool too_old(const cJSON *doc, sf_wire::Refusal *why)
{
    const UINT_T limit = g_max_age_s.load();
    const cJSON *t = cJSON_IsObject(doc) ? cJSON_GetObjectItemCaseSensitive(doc, "t") : nullptr;
    if (limit == 0 || !cJSON_IsNumber(t)) {
        return false;
    }
    const double age = static_cast<double>(std::time(nullptr)) - t->valuedouble;
    if (!(age > static_cast<double>(limit))) {
        return false;
    }
    why->code = "expired";
    why->text = "issued " + std::to_string(static_cast<long long>(age)) + " s ago, more than the " +
                std::to_string(limit) + " s a command may be old";
    return true;
}

} // namespace

extern "C" void wire_set_command_max_age(UINT_T seconds) { g_max_age_s.store(seconds); }

extern "C" UINT_T wire_command_max_age(void) { return g_max_age_s.load(); }

extern "C" uint64_t wire_expired_refusals(void) { return g_expired.load(); }

namespace sf_wire {

bool admit_command(CmdKind kind, const cJSON *doc, DP_CMD_TYPE_E tp)
{
    Refusal why;
    if (too_old(doc, &why)) {
        g_expired.fetch_add(1);
    } else if (wire_command_checks() == FALSE || validate_command(kind, doc, &why)) {
        return true;
    }
    SF_LOG_ERR("%s dropped: %s [%s]", log_label(kind), why.text.c_str(), why.code);
    send_refusal(refusal_text(kind, doc, why), tp);
    return false;
}

} // namespace sf_wire
