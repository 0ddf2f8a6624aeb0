/*
 * The rules of the edge check (wire_validate.h): every command kind held
 * against the registry's DP schemas. Keys are looked up the way their
 * reader looks them up (the module: cJSON_GetObjectItem, any letter case,
 * first match; a query's keys: exact case), so what is checked here is
 * exactly what will be used.
 */
#include "wire_validate.h"

#include <strings.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <vector>

#include "../../services/kelo_base64.h"
#include "../../services/uni_mutex.h"
#include "../../smart_frame/dp_lookup.h"
#include "../../smart_frame/inbound/member_oper.h"
#include "../../cloud_defs/gw_intf.h"
#include "wire_json.h"

namespace {

std::atomic<bool> g_checks{true};

} // namespace

extern "C" void wire_set_command_checks(BOOL_T on) { g_checks.store(on != FALSE); }

extern "C" BOOL_T wire_command_checks(void) { return g_checks.load() ? TRUE : FALSE; }

namespace sf_wire {

namespace {

/* Longest "gid" and "sid": the registry's group and scene tables hold no more. */
constexpr size_t GID_MAX = GRP_ID_LEN;
constexpr size_t SID_MAX = SCENE_ID_LEN;
/* Most ids in a query's "cids" and "dpids": the module's bound for groups and scenes, and the DP numbers. */
constexpr int QUERY_MAX_IDS = sf::MEMBER_OPER_MAX_IDS;
constexpr int QUERY_MAX_DPIDS = DEV_DP_MAX;

bool fail(Refusal *why, const char *code, std::string text, std::string dev_json = "", std::string dp = "")
{
    why->code = code;
    why->text = std::move(text);
    why->dev_json = std::move(dev_json);
    why->dp = std::move(dp);
    return false;
}

std::string printed(const cJSON *item)
{
    char *text = cJSON_PrintUnformatted(item);
    std::string out = text != nullptr ? text : "null";
    cJSON_free(text);
    return out;
}

const char *type_name(const cJSON *item)
{
    if (cJSON_IsBool(item)) {
        return "a boolean";
    }
    if (cJSON_IsNumber(item)) {
        return "a number";
    }
    if (cJSON_IsString(item)) {
        return "a string";
    }
    if (cJSON_IsArray(item)) {
        return "an array";
    }
    if (cJSON_IsObject(item)) {
        return "an object";
    }
    return "null";
}

/* A JSON number without fraction, within long long; *out its value. */
bool integral(const cJSON *item, long long *out)
{
    if (!cJSON_IsNumber(item)) {
        return false;
    }
    const double d = item->valuedouble;
    if (!(d >= -9.0e18 && d <= 9.0e18) || std::floor(d) != d) {
        return false;
    }
    *out = static_cast<long long>(d);
    return true;
}

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

/* The node a device id names, resolved as the module resolves it (the gateway's id in any case). */
DEV_CNTL_N_S *device_named(const char *id)
{
    if (strcasecmp(id, get_gw_cntl()->gw_if.id) == 0) {
        return get_gw_dev_cntl();
    }
    return get_dev_cntl(id);
}

/* dev_mutex held for the DP table reads of one check. */
class TableLock {
public:
    TableLock() { MutexLock(get_gw_cntl()->dev_mutex); }
    ~TableLock() { MutexUnLock(get_gw_cntl()->dev_mutex); }
    TableLock(const TableLock &) = delete;
    TableLock &operator=(const TableLock &) = delete;
};

/* Whether value fits the object DP dp; dev and key only word the refusal. */
bool check_object_value(const DP_CNTL_S *dp, const cJSON *value, const std::string &dev, const std::string &key,
                        Refusal *why)
{
    const std::string where = "DP " + key + " of " + dev;
    const std::string dev_json = quote(dev.data(), dev.size());
    auto refuse = [&](const char *code, const std::string &text) { return fail(why, code, where + ": " + text, dev_json, key); };
    const DP_PROP_VALUE_U &prop = dp->prop;
    long long n = 0;
    switch (dp->dp_desc.prop_tp) {
    case PROP_BOOL:
        return cJSON_IsBool(value) ? true : refuse("bad_type", std::string("expected true or false, got ") + type_name(value));
    case PROP_VALUE: {
        if (!integral(value, &n)) {
            return refuse("bad_type", std::string("expected an integer, got ") + (cJSON_IsNumber(value) ? printed(value) : type_name(value)));
        }
        const DP_PROP_VAL_S &v = prop.prop_value;
        if (n < v.min || n > v.max) {
            return refuse("out_of_range", printed(value) + " outside " + std::to_string(v.min) + ".." + std::to_string(v.max));
        }
        if (v.step > 1 && (n - v.min) % v.step != 0) {
            return refuse("off_step", printed(value) + " not on the step " + std::to_string(v.step) + " from " +
                                          std::to_string(v.min));
        }
        return true;
    }
    case PROP_STR: {
        if (!cJSON_IsString(value)) {
            return refuse("bad_type", std::string("expected a string, got ") + type_name(value));
        }
        const size_t len = std::strlen(value->valuestring);
        if (len > static_cast<size_t>(prop.prop_str.max_len)) {
            return refuse("too_long", std::to_string(len) + " bytes, at most " + std::to_string(prop.prop_str.max_len));
        }
        return true;
    }
    case PROP_ENUM:
        if (!cJSON_IsString(value)) {
            return refuse("bad_type", std::string("expected the name of a value, got ") + type_name(value));
        }
        return sf::enum_index(dp, value->valuestring) >= 0 ? true : refuse("unknown_enum", "no value named " + printed(value));
    case PROP_BITMAP: {
        const unsigned bits = prop.prop_bitmap.max_len >= 1 && prop.prop_bitmap.max_len <= 32 ? prop.prop_bitmap.max_len : 32;
        const long long top = (1LL << bits) - 1;
        if (!integral(value, &n)) {
            return refuse("bad_type", std::string("expected an integer, got ") + (cJSON_IsNumber(value) ? printed(value) : type_name(value)));
        }
        if (n < 0 || n > top) {
            return refuse("out_of_range", printed(value) + " outside 0.." + std::to_string(top));
        }
        return true;
    }
    default:
        return refuse("not_writable", "property type unknown to the gateway");
    }
}

/* Whether value fits DP dp of dev (any DP type). Caller holds dev_mutex. */
bool check_dp_value(const DP_CNTL_S *dp, const cJSON *value, const std::string &dev, const std::string &key,
                    Refusal *why)
{
    const std::string dev_json = quote(dev.data(), dev.size());
    if (dp->dp_desc.mode == DP_MODE_RO) {
        return fail(why, "not_writable", "DP " + key + " of " + dev + " is read-only", dev_json, key);
    }
    if (dp->dp_desc.type == DP_TYPE_FILE) {
        return fail(why, "not_writable", "DP " + key + " of " + dev + " is a file DP, not commanded here", dev_json, key);
    }
    if (dp->dp_desc.type == DP_TYPE_RAW) {
        if (!cJSON_IsString(value)) {
            return fail(why, "bad_type", "DP " + key + " of " + dev + ": expected base64 text, got " + type_name(value),
                        dev_json, key);
        }
        std::vector<BYTE_T> bytes(std::strlen(value->valuestring) * 3 / 4 + 3);
        if (kelo_base64_decode(value->valuestring, bytes.data()) < 0) {
            return fail(why, "bad_base64", "DP " + key + " of " + dev + ": not well-formed base64", dev_json, key);
        }
        return true;
    }
    return check_object_value(dp, value, dev, key, why);
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

bool check_dp_command(const cJSON *doc, Refusal *why)
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

/* A non-empty string of at most max bytes under key; what names it in the refusal. */
bool check_id_text(const cJSON *doc, const char *key, size_t max, Refusal *why)
{
    const cJSON *item = cJSON_GetObjectItem(doc, key);
    if (!cJSON_IsString(item) || item->valuestring[0] == '\0') {
        return fail(why, "bad_shape", std::string("\"") + key + "\" must be a non-empty string");
    }
    if (std::strlen(item->valuestring) > max) {
        return fail(why, "too_long", std::string("\"") + key + "\" " + printed(item) + " is longer than " +
                                         std::to_string(max) + " characters");
    }
    return true;
}

/* An array of 1..QUERY_MAX_IDS strings (the module's bound for groups and scenes). */
bool check_id_list(const cJSON *cids, Refusal *why)
{
    if (!cJSON_IsArray(cids)) {
        return fail(why, "bad_shape", "\"cids\" must be an array of device ids");
    }
    const int count = cJSON_GetArraySize(cids);
    if (count < 1) {
        return fail(why, "bad_shape", "\"cids\" must list at least one device");
    }
    if (count > sf::MEMBER_OPER_MAX_IDS) {
        return fail(why, "too_many_ids", "\"cids\" lists " + std::to_string(count) + " devices, at most " +
                                             std::to_string(sf::MEMBER_OPER_MAX_IDS));
    }
    for (const cJSON *id = cids->child; id != nullptr; id = id->next) {
        if (!cJSON_IsString(id)) {
            return fail(why, "bad_device_id", "every \"cids\" entry must be a string, got " + printed(id), printed(id));
        }
    }
    return true;
}

bool check_member_command(const cJSON *doc, bool scene, Refusal *why)
{
    const cJSON *action = cJSON_GetObjectItem(doc, "action");
    long long value = -1;
    if (!integral(action, &value) || (value != 0 && value != 1)) {
        return fail(why, "bad_shape", "\"action\" must be 0 (add) or 1 (remove), got " +
                                          (action != nullptr ? printed(action) : std::string("nothing")));
    }
    return check_id_list(cJSON_GetObjectItem(doc, "cids"), why) && check_id_text(doc, "gid", GID_MAX, why) &&
           (!scene || check_id_text(doc, "sid", SID_MAX, why));
}

bool check_query(const cJSON *doc, Refusal *why)
{
    /* the channels read a query's keys in exact case (wire_commands.cpp), unlike the module's commands */
    const cJSON *cids = cJSON_GetObjectItemCaseSensitive(doc, "cids");
    const cJSON *dpids = cJSON_GetObjectItemCaseSensitive(doc, "dpids");
    if (!cJSON_IsArray(dpids) || (cids != nullptr && !cJSON_IsNull(cids) && !cJSON_IsArray(cids))) {
        return fail(why, "bad_shape", "\"dpids\" must be an array and \"cids\" an array or null");
    }
    if (cJSON_GetArraySize(dpids) > QUERY_MAX_DPIDS) {
        return fail(why, "too_many_ids", "\"dpids\" lists " + std::to_string(cJSON_GetArraySize(dpids)) +
                                             " DPs, at most " + std::to_string(QUERY_MAX_DPIDS));
    }
    for (const cJSON *dp = dpids->child; dp != nullptr; dp = dp->next) {
        long long n = 0;
        if (!integral(dp, &n) || n < 1 || n > DEV_DP_MAX) {
            return fail(why, "bad_dp_key", "every \"dpids\" entry must be a number from 1 to 255, got " + printed(dp), "",
                        cJSON_IsString(dp) ? dp->valuestring : printed(dp));
        }
    }
    std::vector<std::pair<DEV_CNTL_N_S *, std::string>> devices;
    if (cids == nullptr || cJSON_IsNull(cids)) {
        devices.emplace_back(get_gw_dev_cntl(), get_gw_cntl()->gw_if.id);
    } else {
        if (cJSON_GetArraySize(cids) > QUERY_MAX_IDS) {
            return fail(why, "too_many_ids", "\"cids\" lists " + std::to_string(cJSON_GetArraySize(cids)) +
                                                 " devices, at most " + std::to_string(QUERY_MAX_IDS));
        }
        if (cJSON_GetArraySize(cids) == 0) {
            return fail(why, "bad_shape", "\"cids\" must list at least one device (or be null for the gateway)");
        }
        for (const cJSON *id = cids->child; id != nullptr; id = id->next) {
            if (!cJSON_IsString(id)) {
                return fail(why, "bad_device_id", "every \"cids\" entry must be a string, got " + printed(id),
                            printed(id));
            }
            DEV_CNTL_N_S *node = device_named(id->valuestring);
            if (node == nullptr) {
                return fail(why, "unknown_device", "unknown device " + printed(id), printed(id));
            }
            devices.emplace_back(node, id->valuestring);
        }
    }
    TableLock hold;
    for (const auto &device : devices) {
        if (device.first == nullptr) {
            return fail(why, "unknown_device", "the gateway has no device of its own");
        }
        for (const cJSON *dp = dpids->child; dp != nullptr; dp = dp->next) {
            if (__locate_dp_ctl_by_dpid(device.first, dp->valueint) == nullptr) {
                return fail(why, "unknown_dp", "device " + device.second + " has no DP " + printed(dp),
                            quote(device.second.data(), device.second.size()), printed(dp));
            }
        }
    }
    return true;
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

} // namespace

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

bool validate_command(CmdKind kind, const cJSON *doc, Refusal *why)
{
    if (!cJSON_IsObject(doc) || kind == CmdKind::Unknown) {
        return fail(why, "bad_shape", "not a JSON object or unknown kind");
    }
    switch (kind) {
    case CmdKind::Dp: return check_dp_command(doc, why);
    case CmdKind::Group: return check_member_command(doc, false, why);
    case CmdKind::Scene: return check_member_command(doc, true, why);
    case CmdKind::Query: return check_query(doc, why);
    default: return fail(why, "bad_shape", "unknown kind");
    }
}

} // namespace sf_wire
