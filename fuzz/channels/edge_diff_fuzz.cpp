/*
 * Differential target over the command edge and the module together: a DP
 * command (the input after its first byte, parsed as the MQTT client's
 * inbound worker does) goes through sf_wire::dispatch_command into the
 * module on the fakes, and what the application's object callback receives
 * is compared with what the command carried:
 *   - a command the edge accepts reaches the application with exactly its
 *     values: for each object DP of "dps", in order, the DP number, the
 *     property type of the schema, and the value (bool, the integer, the
 *     bitmap as an unsigned 32-bit number, the enum's index in the schema,
 *     the string's bytes, all of them);
 *   - a command the edge refuses reaches the application not at all.
 * The first byte picks the channel (bit 0: LAN, else MQTT). A difference
 * aborts with both sides printed, so the fuzzer keeps the input.
 */
#include <cjson/cJSON.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/harness.h"
#include "gateway/edge/wire_json.h"
#include "gateway/edge/wire_validate.h"
#include "smart_frame/dp_lookup.h"

namespace {

constexpr size_t MAX_BYTES = 65536;
constexpr size_t MAX_DEPTH = 32;

/* One DP value as the application saw it, or as the command carried it. */
struct Value {
    int dpid = 0;
    int type = 0;
    long long number = 0; /* bool, value, bitmap, enum index */
    std::string bytes;    /* string DPs, every byte */

    bool operator==(const Value &o) const
    {
        return dpid == o.dpid && type == o.type && number == o.number && bytes == o.bytes;
    }
    std::string text() const
    {
        return "DP " + std::to_string(dpid) + " type " + std::to_string(type) + " = " + std::to_string(number) +
               (type == PROP_STR ? " \"" + bytes + "\" (" + std::to_string(bytes.size()) + " bytes)" : "");
    }
};

std::vector<std::vector<Value>> g_received; /* one entry per object callback */
int g_raw_received = 0;

void record_obj(const KL_RECV_OBJ_DP_S *rec)
{
    std::vector<Value> values;
    for (UINT_T i = 0; i < rec->dps_cnt; ++i) {
        const KL_OBJ_DP_S &dp = rec->dps[i];
        Value v;
        v.dpid = dp.dpid;
        v.type = dp.type;
        switch (dp.type) {
        case PROP_BOOL: v.number = dp.value.dp_bool; break;
        case PROP_VALUE: v.number = dp.value.dp_value; break;
        case PROP_ENUM: v.number = dp.value.dp_enum; break;
        case PROP_BITMAP: v.number = dp.value.dp_bitmap; break;
        case PROP_STR: v.bytes = dp.value.dp_str != nullptr ? dp.value.dp_str : "(null)"; break;
        default: break;
        }
        values.push_back(v);
    }
    g_received.push_back(values);
}

void record_raw(const KL_RECV_RAW_DP_S *) { ++g_raw_received; }

/* The schema of DP dpid of the command's device, or NULL when the oracle cannot tell. */
const DP_CNTL_S *schema_of(const cJSON *doc, int dpid)
{
    const cJSON *dev = cJSON_GetObjectItemCaseSensitive(doc, "devId");
    if (!cJSON_IsString(dev)) {
        dev = cJSON_GetObjectItemCaseSensitive(doc, "cid");
    }
    DEV_CNTL_N_S *node = cJSON_IsString(dev) ? get_dev_cntl(dev->valuestring) : get_gw_dev_cntl();
    return node != nullptr ? __locate_dp_ctl_by_dpid(node, dpid) : nullptr;
}

/*
 * What the command carries for the application, from the document alone
 * (read as a person reads docs/wire-protocol.md), with the schemas; false
 * when the oracle cannot tell (then only "something arrived" is checked).
 */
bool carried(const cJSON *doc, std::vector<Value> *out)
{
    const cJSON *dps = cJSON_GetObjectItemCaseSensitive(doc, "dps");
    if (!cJSON_IsObject(dps)) {
        return false;
    }
    for (const cJSON *m = dps->child; m != nullptr; m = m->next) {
        const int dpid = std::atoi(m->string);
        const DP_CNTL_S *dp = schema_of(doc, dpid);
        if (dp == nullptr) {
            return false;
        }
        if (dp->dp_desc.type != DP_TYPE_OBJ) {
            continue; /* raw DPs go to the raw callback */
        }
        Value v;
        v.dpid = dpid;
        v.type = dp->dp_desc.prop_tp;
        switch (dp->dp_desc.prop_tp) {
        case PROP_BOOL: v.number = cJSON_IsTrue(m) ? 1 : 0; break;
        case PROP_VALUE: v.number = static_cast<long long>(m->valuedouble); break;
        case PROP_BITMAP: v.number = static_cast<long long>(static_cast<unsigned long long>(m->valuedouble)); break;
        case PROP_STR: v.bytes = m->valuestring != nullptr ? m->valuestring : ""; break;
        case PROP_ENUM: {
            v.number = -1;
            for (INT_T i = 0; i < dp->prop.prop_enum.cnt; ++i) {
                if (m->valuestring != nullptr && std::strcmp(dp->prop.prop_enum.pp_enum[i], m->valuestring) == 0) {
                    v.number = i;
                }
            }
            break;
        }
        default: return false;
        }
        out->push_back(v);
    }
    return true;
}

[[noreturn]] void differ(const std::string &what, const std::string &doc)
{
    std::fprintf(stderr, "edge and module disagree: %s\ncommand: %s\n", what.c_str(), doc.c_str());
    std::abort();
}

std::string listing(const std::vector<Value> &values)
{
    std::string out;
    for (const Value &v : values) {
        out += "  " + v.text() + "\n";
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    sf_fuzz::begin_run(sf_fuzz::Channels{});
    GW_CNTL_S *gw = get_gw_cntl();
    gw->cbs.dev_obj_dp_cb = record_obj;
    gw->cbs.dev_raw_dp_cb = record_raw;
    g_received.clear();
    g_raw_received = 0;
    const DP_CMD_TYPE_E tp = (data[0] & 1) != 0 ? DP_CMD_LAN : DP_CMD_MQ;
    const char *why = "";
    cJSON *doc = sf_wire::parse_bounded(reinterpret_cast<const char *>(data + 1), size - 1, MAX_BYTES, MAX_DEPTH, &why);
    if (doc == nullptr) {
        sf_fuzz::end_run();
        return 0;
    }
    std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
    sf_wire::Refusal refusal;
    const bool accepted = sf_wire::validate_command(sf_wire::CmdKind::Dp, doc, &refusal);
    std::vector<Value> expected;
    const bool known = accepted && carried(doc, &expected);
    (void)sf_wire::dispatch_command(sf_wire::CmdKind::Dp, doc, tp); /* consumes doc */
    sf_fuzz::end_run();

    if (!accepted) {
        if (!g_received.empty() || g_raw_received != 0) {
            differ(std::string("refused (") + refusal.code + ": " + refusal.text + ") yet the application got " +
                       std::to_string(g_received.size()) + " object and " + std::to_string(g_raw_received) +
                       " raw records",
                   text);
        }
        return 0;
    }
    /*
     * cJSON ends valuestring at an escaped NUL, so the bytes after it are
     * out of the oracle's sight as they are out of the module's: a string
     * the application can receive whole has no NUL, and the edge must
     * refuse one that has (the application would get it cut short).
     */
    for (size_t at = text.find("\\u"); at != std::string::npos; at = text.find("\\u", at + 1)) {
        if (text.compare(at + 2, 4, "0000") == 0 && (at == 0 || text[at - 1] != '\\')) {
            differ("accepted a text with an escaped NUL: the application gets the string cut at the NUL", text);
        }
    }
    if (!known) {
        return 0;
    }
    std::vector<Value> got;
    for (const std::vector<Value> &record : g_received) {
        got.insert(got.end(), record.begin(), record.end());
    }
    if (!(got == expected)) {
        differ("accepted; the command carried\n" + listing(expected) + "the application got\n" + listing(got), text);
    }
    return 0;
}
