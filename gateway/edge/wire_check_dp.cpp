/*
 * The rules of a DP command: its target device, its DP keys, and each
 * value against the DP's schema (docs/wire-protocol.md, sections 1 and 6).
 */
#include <cstring>

#include "gateway/rules/dp_rules.h"
#include "smart_frame/dp_lookup.h"
#include "wire_check.h"
#include "wire_json.h"

namespace sf_wire {
namespace check {

namespace {

/* "1".."255" written the one canonical way: digits only, no sign, no leading zero. */
bool canonical_dp_key(const char *key, int *dpid)
{
    const size_t len = key != nullptr ? std::strlen(key) : 0;
    if (len == 0 || len > 3 || key[0] == '0') {
        return false;
    }
    int value = 0;
    for (size_t i = 0; i < len; ++i) {
        if (key[i] < '0' || key[i] > '9') {
            return false;
        }
        value = value * 10 + (key[i] - '0');
    }
    *dpid = value;
    return value <= DEV_DP_MAX;
}

/* What a refusal of value by the DP's rule says after "DP <key> of <dev>: ". */
std::string reason(gw_rules::Verdict verdict, const DP_CNTL_S *dp, const cJSON *value)
{
    const DP_PROP_VALUE_U &prop = dp->prop;
    const auto got = [&](const char *expected) {
        return std::string(expected) + ", got " + (cJSON_IsNumber(value) ? printed(value) : type_name(value));
    };
    switch (verdict) {
    case gw_rules::Verdict::BadType:
        switch (dp->dp_desc.type == DP_TYPE_RAW ? PROP_STR : dp->dp_desc.prop_tp) {
        case PROP_BOOL: return std::string("expected true or false, got ") + type_name(value);
        case PROP_STR:
            return std::string(dp->dp_desc.type == DP_TYPE_RAW ? "expected base64 text" : "expected a string") +
                   ", got " + type_name(value);
        case PROP_ENUM: return std::string("expected the name of a value, got ") + type_name(value);
        default: return got("expected an integer");
        }
    case gw_rules::Verdict::OutOfRange: {
        const gw_rules::Range range = gw_rules::range_of(dp->dp_desc, prop);
        return printed(value) + " outside " + std::to_string(range.lo) + ".." + std::to_string(range.hi);
    }
    case gw_rules::Verdict::OffStep:
        return printed(value) + " not on the step " + std::to_string(prop.prop_value.step) + " from " +
               std::to_string(prop.prop_value.min);
    case gw_rules::Verdict::UnknownEnum: return "no value named " + printed(value);
    case gw_rules::Verdict::TooLong:
        return std::to_string(std::strlen(value->valuestring)) + " bytes, at most " +
               std::to_string(prop.prop_str.max_len);
    case gw_rules::Verdict::BadBase64: return "not well-formed base64";
    case gw_rules::Verdict::NulInString: return nul_reason(value);
    default: return "property type unknown to the gateway";
    }
}

/* The stable code of a verdict (docs/wire-protocol.md, "Refused commands"). */
const char *code_of(gw_rules::Verdict verdict)
{
    switch (verdict) {
    case gw_rules::Verdict::BadType: return "bad_type";
    case gw_rules::Verdict::OutOfRange: return "out_of_range";
    case gw_rules::Verdict::OffStep: return "off_step";
    case gw_rules::Verdict::UnknownEnum: return "unknown_enum";
    case gw_rules::Verdict::TooLong: return "too_long";
    case gw_rules::Verdict::BadBase64: return "bad_base64";
    case gw_rules::Verdict::NulInString: return "nul_in_string";
    default: return "not_writable";
    }
}

/* Whether value fits DP dp of dev (any DP type). Caller holds dev_mutex. */
bool check_dp_value(const DP_CNTL_S *dp, const cJSON *value, const std::string &dev, const std::string &key,
                    Refusal *why)
{
    const std::string where = "DP " + key + " of " + dev;
    const std::string dev_json = quote(dev.data(), dev.size());
    if (dp->dp_desc.mode == DP_MODE_RO) {
        return fail(why, "not_writable", where + " is read-only", dev_json, key);
    }
    if (dp->dp_desc.type == DP_TYPE_FILE) {
        return fail(why, "not_writable", where + " is a file DP, not commanded here", dev_json, key);
    }
    const gw_rules::Verdict verdict = gw_rules::check_value(dp->dp_desc, dp->prop, value);
    if (verdict == gw_rules::Verdict::Fits) {
        return true;
    }
    return fail(why, code_of(verdict), where + ": " + reason(verdict, dp, value), dev_json, key);
}

/* "devId" and "cid" of a DP command: strings naming known devices. *node: the target. */
bool check_target(const cJSON *doc, DEV_CNTL_N_S **node, std::string *dev, Refusal *why)
{
    const cJSON *dev_id = cJSON_GetObjectItem(doc, "devId");
    const cJSON *cid = cJSON_GetObjectItem(doc, "cid");
    for (const cJSON *id : {dev_id, cid}) {
        if (id != nullptr && !cJSON_IsNull(id) && !cJSON_IsString(id)) {
            return fail(why, "bad_device_id",
                        std::string("\"") + id->string + "\" must be a string, got " + printed(id), printed(id));
        }
    }
    /* the module takes "devId" when present (null included: the gateway), else "cid" */
    const cJSON *target = dev_id != nullptr ? dev_id : cid;
    if (target == nullptr || cJSON_IsNull(target)) {
        *node = get_gw_dev_cntl();
        *dev = get_gw_cntl()->gw_if.id;
    } else {
        *node = device_named(target->valuestring);
        *dev = target->valuestring;
    }
    if (*node == nullptr) {
        return fail(why, "unknown_device", "unknown device " + printed(target), printed(target));
    }
    if (target != nullptr && cid != nullptr && cJSON_IsString(cid) && target != cid &&
        device_named(cid->valuestring) == nullptr) {
        return fail(why, "unknown_device", "unknown device " + printed(cid), printed(cid));
    }
    return true;
}

} // namespace

bool dp_command(const cJSON *doc, Refusal *why)
{
    DEV_CNTL_N_S *node = nullptr;
    std::string dev;
    if (!check_target(doc, &node, &dev, why)) {
        return false;
    }
    const std::string dev_json = quote(dev.data(), dev.size());
    const cJSON *ctype = cJSON_GetObjectItem(doc, "ctype");
    long long tp = 0;
    if (ctype != nullptr && (!integral(ctype, &tp) || tp < 0 || tp > 3)) {
        return fail(why, "bad_shape", "\"ctype\" must be 0, 1, 2 or 3, got " + printed(ctype), dev_json);
    }
    const cJSON *mbid = cJSON_GetObjectItem(doc, "mbid");
    if ((mbid != nullptr || tp == DTT_MULTI) && !cJSON_IsString(mbid)) {
        return fail(why, "bad_shape", "\"mbid\" must be a string (required with \"ctype\" 2)", dev_json);
    }
    const cJSON *dps = cJSON_GetObjectItem(doc, "dps");
    if (!cJSON_IsObject(dps)) {
        return fail(why, "bad_shape", "\"dps\" must be an object of DP numbers to values", dev_json);
    }
    TableLock hold;
    for (const cJSON *member = dps->child; member != nullptr; member = member->next) {
        const std::string key = member->string != nullptr ? member->string : "";
        int dpid = 0;
        if (!canonical_dp_key(member->string, &dpid)) {
            return fail(why, "bad_dp_key", "DP key " + quote(key.data(), key.size()) + " of " + dev +
                                               " is no DP number (1..255 in decimal, no sign, space or leading zero)",
                        dev_json, key);
        }
        for (const cJSON *earlier = dps->child; earlier != member; earlier = earlier->next) {
            if (std::strcmp(earlier->string, member->string) == 0) {
                return fail(why, "duplicate_dp", "DP " + key + " of " + dev + " given twice", dev_json, key);
            }
        }
        const DP_CNTL_S *dp = __locate_dp_ctl_by_dpid(node, dpid);
        if (dp == nullptr) {
            return fail(why, "unknown_dp", "device " + dev + " has no DP " + key, dev_json, key);
        }
        if (!check_dp_value(dp, member, dev, key, why)) {
            return false;
        }
    }
    return true;
}

} // namespace check
} // namespace sf_wire
