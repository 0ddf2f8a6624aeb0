/*
 * The edge check (wire_validate.h): its setting, the dispatch to the rules
 * of each kind, the pieces the rules share, and the refusal's text. Keys
 * are looked up the way their reader looks them up (the module:
 * cJSON_GetObjectItem, any letter case, first match; a query's keys: exact
 * case), so what is checked is exactly what will be used.
 */
#include "wire_validate.h"

#include <strings.h>

#include <atomic>
#include <cstring>

#include "wire_check.h"
#include "wire_json.h"

namespace {

std::atomic<bool> g_checks{true};

} // namespace

extern "C" void wire_set_command_checks(BOOL_T on) { g_checks.store(on != FALSE); }

extern "C" BOOL_T wire_command_checks(void) { return g_checks.load() ? TRUE : FALSE; }

namespace sf_wire {

namespace check {

bool fail(Refusal *why, const char *code, std::string text, std::string dev_json, std::string dp)
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
    if (cJSON_IsRaw(item)) {
        return "a string holding a NUL";
    }
    return "null";
}

std::string nul_reason(const cJSON *raw)
{
    return "the string holds a NUL (\\u0000), which would cut it short at the device: " + printed(raw);
}

namespace {

const cJSON *first_raw(const cJSON *node, const cJSON *skip)
{
    for (const cJSON *child = node->child; child != nullptr; child = child->next) {
        if (cJSON_IsRaw(child)) {
            return child;
        }
        const cJSON *inner = child != skip ? first_raw(child, skip) : nullptr;
        if (inner != nullptr) {
            return inner;
        }
    }
    return nullptr;
}

} // namespace

const cJSON *nul_string_outside_dps(const cJSON *doc, const char **key)
{
    /* the values in "dps" are the DP rules' to refuse, naming their DP */
    const cJSON *dps = cJSON_GetObjectItem(doc, "dps");
    for (const cJSON *member = doc->child; member != nullptr; member = member->next) {
        const cJSON *raw = cJSON_IsRaw(member) ? member : member != dps ? first_raw(member, dps) : nullptr;
        if (raw != nullptr) {
            *key = member->string != nullptr ? member->string : "";
            return raw;
        }
    }
    return nullptr;
}

DEV_CNTL_N_S *device_named(const char *id)
{
    if (strcasecmp(id, get_gw_cntl()->gw_if.id) == 0) {
        return get_gw_dev_cntl();
    }
    return get_dev_cntl(id);
}

} // namespace check

namespace {

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
        return check::fail(why, "bad_shape", "not a JSON object or unknown kind");
    }
    const char *key = "";
    const cJSON *nul = check::nul_string_outside_dps(doc, &key);
    if (nul != nullptr) {
        return check::fail(why, "nul_in_string", std::string("\"") + key + "\": " + check::nul_reason(nul),
                           std::strcmp(key, "devId") == 0 || std::strcmp(key, "cid") == 0 ? check::printed(nul) : "");
    }
    const cJSON *t = cJSON_GetObjectItemCaseSensitive(doc, "t");
    if (t != nullptr && !cJSON_IsNumber(t)) {
        return check::fail(why, "bad_shape", std::string("t is ") + check::type_name(t) +
                                                 ", expected the POSIX seconds at which the command was issued");
    }
    switch (kind) {
    case CmdKind::Dp: return check::dp_command(doc, why);
    case CmdKind::Group: return check::member_command(doc, false, why);
    case CmdKind::Scene: return check::member_command(doc, true, why);
    case CmdKind::Query: return check::query(doc, why);
    default: return check::fail(why, "bad_shape", "unknown kind");
    }
}

} // namespace sf_wire

