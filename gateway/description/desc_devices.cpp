/*
 * The devices and DPs of a gateway description: JSON in, a checked
 * GatewayLayout out. Every refusal names the file, the key path and the
 * reason; nothing is half-read. Unknown keys are refused too: a misspelt
 * "max_lenght" would otherwise silently fall back to a default.
 */
#include <cstdint>
#include <set>
#include <strings.h>

#include "desc_model.h"

namespace gw_desc {

namespace {

const Choice kModes[] = {{"rw", DP_MODE_RW}, {"wr", DP_MODE_WR}, {"ro", DP_MODE_RO}};
const Choice kTypes[] = {{"obj", DP_TYPE_OBJ}, {"raw", DP_TYPE_RAW}, {"file", DP_TYPE_FILE}};
const Choice kProps[] = {
    {"bool", PROP_BOOL}, {"value", PROP_VALUE}, {"str", PROP_STR}, {"enum", PROP_ENUM}, {"bitmap", PROP_BITMAP}};
const Choice kTriggers[] = {{"on_change", TRIG_ON_CHANGE}, {"always", TRIG_ALWAYS}};

template <size_t N>
const char *name_of(const Choice (&choices)[N], int value)
{
    for (const Choice &choice : choices) {
        if (choice.value == value) {
            return choice.name;
        }
    }
    return "";
}

void skip_all(Reader &r, const std::vector<std::string> &keys)
{
    for (const std::string &key : keys) {
        r.skip(key);
    }
}

bool parse_limits(Reader &r, DpLayout *dp, LoadError *error)
{
    long long number = 0;
    switch (dp->desc.prop_tp) {
    case PROP_VALUE: {
        long long min = 0;
        long long max = 0;
        r.integer("min", true, INT32_MIN, INT32_MAX, &min);
        r.integer("max", true, INT32_MIN, INT32_MAX, &max);
        if (r.ok() && min > max) {
            return r.refuse("max", "below min");
        }
        dp->limits.prop_value.min = static_cast<INT_T>(min);
        dp->limits.prop_value.max = static_cast<INT_T>(max);
        dp->limits.prop_value.step = r.integer("step", false, 1, INT16_MAX, &number) ? static_cast<SHORT_T>(number) : 1;
        dp->limits.prop_value.scale = r.integer("scale", false, 0, UINT16_MAX, &number) ? static_cast<USHORT_T>(number) : 0;
        break;
    }
    case PROP_STR:
        r.integer("max_len", true, 0, UINT16_MAX, &number);
        dp->limits.prop_str.max_len = static_cast<INT_T>(number);
        break;
    case PROP_BITMAP:
        dp->limits.prop_bitmap.max_len = r.integer("max_len", false, 1, 32, &number) ? static_cast<UINT_T>(number) : 32;
        break;
    case PROP_ENUM: {
        const cJSON *range = r.array("range", true);
        if (range == nullptr) {
            return false;
        }
        if (cJSON_GetArraySize(range) == 0) {
            return r.refuse("range", "enum without names");
        }
        int i = 0;
        for (const cJSON *name = range->child; name != nullptr; name = name->next, ++i) {
            const std::string at = element_path(r.path(), "range", i);
            if (!cJSON_IsString(name) || name->valuestring == nullptr) {
                return fail(error, error->file, at, "expected a string");
            }
            for (const std::string &seen : dp->enum_names) {
                if (seen == name->valuestring) {
                    return fail(error, error->file, at, "duplicate enum name \"" + seen + "\"");
                }
            }
            dp->enum_names.push_back(name->valuestring);
        }
        dp->limits.prop_enum.cnt = static_cast<INT_T>(dp->enum_names.size());
        break;
    }
    default:
        break;
    }
    return r.ok();
}

bool parse_dp(const cJSON *node, const std::string &path, DpLayout *dp, LoadError *error)
{
    Reader r(node, path, error);
    long long number = 0;
    int choice = 0;
    if (r.integer("id", true, 1, DEV_DP_MAX, &number, "DP number out of range")) {
        dp->desc.dp_id = static_cast<BYTE_T>(number);
    }
    r.text("name", false, 0, 64, &dp->name);
    dp->desc.mode = r.choice("mode", false, kModes, &choice) ? static_cast<DP_MODE_E>(choice) : DP_MODE_RW;
    dp->desc.type = r.choice("type", false, kTypes, &choice) ? static_cast<DP_TYPE_E>(choice) : DP_TYPE_OBJ;
    /* raw and file DPs carry bytes: a property type means nothing for them */
    const bool typed = dp->desc.type == DP_TYPE_OBJ;
    dp->desc.prop_tp = typed && r.choice("prop", true, kProps, &choice) ? static_cast<DP_PROP_TP_E>(choice) : PROP_BOOL;
    dp->desc.trig_t =
        r.choice("trigger", false, kTriggers, &choice) ? static_cast<DP_TRIG_T_E>(choice) : TRIG_ON_CHANGE;
    bool passive = false;
    r.boolean("passive", false, &passive);
    dp->desc.passive = passive ? PSV_HOLD : PSV_NONE;
    dp->desc.stat = r.integer("stat", false, 0, UINT8_MAX, &number) ? static_cast<DP_STAT_TP_T>(number) : 0;
    if (typed && r.ok() && !parse_limits(r, dp, error)) {
        return false;
    }
    const cJSON *flow = r.member("flow", false);
    if (flow != nullptr && r.ok()) {
        Reader f(flow, r.at("flow"), error);
        dp->has_flow = true;
        dp->flow.cir_time = f.integer("window_s", true, 0, UINT16_MAX, &number) ? static_cast<USHORT_T>(number) : 0;
        dp->flow.cir_rept_item_lmt =
            f.integer("limit", true, 0, UINT16_MAX, &number) ? static_cast<USHORT_T>(number) : 0;
        if (!f.no_unknown_keys()) {
            return false;
        }
    }
    return r.no_unknown_keys();
}

/* parse_device and parse_gateway with error->file set: the readers record every refusal there. */
bool read_device(const cJSON *node, const std::string &path, const OtherSections &others, DeviceLayout *out,
                 LoadError *error)
{
    Reader r(node, path, error);
    skip_all(r, others.device);
    if (r.text("id", true, 1, DEV_ID_LEN, &out->id) && !id_fits_json(out->id)) {
        return r.refuse("id", "device id " + quoted_id(out->id) +
                                  " has a character that needs a JSON escape or is a control character");
    }
    r.text("sw_ver", false, 0, SW_VER_LEN, &out->sw_ver);
    r.text("schema_id", false, 0, SCHEMA_ID_LEN, &out->schema_id);
    r.text("product_key", false, 0, PRODUCT_KEY_LEN, &out->product_key);
    r.boolean("bind", false, &out->bind);
    r.boolean("preprocess", false, &out->preprocess);
    const cJSON *dps = r.array("dps", false);
    if (!r.ok()) {
        return false;
    }
    if (dps != nullptr) {
        if (cJSON_GetArraySize(dps) > DEV_DP_MAX) {
            return r.refuse("dps", "too many DPs (at most 255)");
        }
        int i = 0;
        for (const cJSON *item = dps->child; item != nullptr; item = item->next, ++i) {
            DpLayout dp;
            const std::string at = element_path(path, "dps", i);
            if (!parse_dp(item, at, &dp, error)) {
                return false;
            }
            for (size_t j = 0; j < out->dps.size(); ++j) {
                if (out->dps[j].desc.dp_id == dp.desc.dp_id) {
                    return fail(error, error->file, at + ".id",
                                "duplicate DP id " + std::to_string(dp.desc.dp_id) + " (also " +
                                    element_path(path, "dps", static_cast<int>(j)) + ")");
                }
            }
            out->dps.push_back(std::move(dp));
        }
    }
    return r.no_unknown_keys();
}

bool read_gateway(const cJSON *root, const OtherSections &others, GatewayLayout *out, LoadError *error)
{
    const std::string file = error->file;
    Reader top(root, "", error);
    skip_all(top, others.top);
    const cJSON *gateway = top.member("gateway", true);
    const cJSON *devices = top.array("devices", false);
    if (!top.no_unknown_keys()) {
        return false;
    }
    {
        /* the gateway object describes the gateway's own node, plus the local key */
        Reader r(gateway, "gateway", error);
        r.text("local_key", false, 0, 64, &out->local_key);
        if (!r.ok()) {
            return false;
        }
    }
    OtherSections own_others = others;
    own_others.device.push_back("local_key");
    if (!read_device(gateway, "gateway", own_others, &out->own, error)) {
        return false;
    }
    out->id = out->own.id;
    if (devices == nullptr) {
        return true;
    }
    std::set<std::string> ids;
    int i = 0;
    for (const cJSON *item = devices->child; item != nullptr; item = item->next, ++i) {
        DeviceLayout device;
        const std::string at = element_path("", "devices", i);
        if (!read_device(item, at, others, &device, error)) {
            return false;
        }
        /* commands name the gateway case-insensitively, so such a sub-device could never be reached */
        if (strcasecmp(device.id.c_str(), out->id.c_str()) == 0) {
            return fail(error, file, at + ".id", "device id \"" + device.id + "\" is the gateway's id");
        }
        if (!ids.insert(device.id).second) {
            return fail(error, file, at + ".id", "duplicate device id \"" + device.id + "\"");
        }
        out->devices.push_back(std::move(device));
    }
    return true;
}

} // namespace

bool parse_device(const cJSON *node, const std::string &file, const std::string &path, const OtherSections &others,
                  DeviceLayout *out, LoadError *error)
{
    LoadError found;
    found.file = file;
    if (read_device(node, path, others, out, &found)) {
        return true;
    }
    *error = found;
    return false;
}

bool parse_gateway(const cJSON *root, const std::string &file, const OtherSections &others, GatewayLayout *out,
                   LoadError *error)
{
    LoadError found;
    found.file = file;
    if (read_gateway(root, others, out, &found)) {
        return true;
    }
    *error = found;
    return false;
}

const char *mode_name(DP_MODE_E mode) { return name_of(kModes, mode); }
const char *type_name(DP_TYPE_E type) { return name_of(kTypes, type); }
const char *prop_name(DP_PROP_TP_E prop) { return name_of(kProps, prop); }

} // namespace gw_desc
