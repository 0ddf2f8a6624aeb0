/*
 * The gateway description loader: JSON in, a checked GatewayLayout out.
 * Every refusal names the file, the key path and the reason; nothing is
 * half-loaded. Unknown keys are refused too: a misspelt "max_lenght" would
 * otherwise silently fall back to a default.
 */
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <set>
#include <strings.h>

#include "registry_internal.h"

namespace gw_registry {
namespace detail {

bool fail(LoadError *error, const std::string &file, const std::string &path, const std::string &why)
{
    if (error != nullptr) {
        error->file = file;
        error->path = path;
        error->why = why;
    }
    return false;
}

namespace {

struct Choice {
    const char *name;
    int value;
};

const Choice kModes[] = {{"rw", DP_MODE_RW}, {"wr", DP_MODE_WR}, {"ro", DP_MODE_RO}};
const Choice kTypes[] = {{"obj", DP_TYPE_OBJ}, {"raw", DP_TYPE_RAW}, {"file", DP_TYPE_FILE}};
const Choice kProps[] = {
    {"bool", PROP_BOOL}, {"value", PROP_VALUE}, {"str", PROP_STR}, {"enum", PROP_ENUM}, {"bitmap", PROP_BITMAP}};
const Choice kTriggers[] = {{"on_change", TRIG_ON_CHANGE}, {"always", TRIG_ALWAYS}};

template <size_t N>
std::string choice_list(const Choice (&choices)[N])
{
    std::string list;
    for (const Choice &choice : choices) {
        list += list.empty() ? "" : ", ";
        list += choice.name;
    }
    return list;
}

/*
 * Typed access to the members of one JSON object. The first problem is
 * recorded and every later call becomes a no-op returning false, so a
 * parse reads as a list of fields followed by one check of ok().
 */
class Reader {
public:
    Reader(const cJSON *object, const Where &where, LoadError *error)
        : object_(object), file_(where.file), path_(where.path), error_(error)
    {
        if (!cJSON_IsObject(object)) {
            ok_ = fail(error_, file_, path_, "expected an object");
        }
    }

    bool ok() const { return ok_; }
    const std::string &path() const { return path_; }
    std::string at(const char *key) const { return path_.empty() ? key : path_ + "." + key; }

    bool refuse(const char *key, const std::string &why)
    {
        if (ok_) {
            ok_ = fail(error_, file_, key != nullptr ? at(key) : path_, why);
        }
        return false;
    }

    const cJSON *member(const char *key, bool required)
    {
        if (!ok_) {
            return nullptr;
        }
        known_.insert(key);
        const cJSON *item = cJSON_GetObjectItemCaseSensitive(object_, key);
        if (item == nullptr && required) {
            refuse(key, "missing key");
        }
        return item;
    }

    bool text(const char *key, bool required, size_t min_len, size_t max_len, std::string *out)
    {
        const cJSON *item = member(key, required);
        if (item == nullptr) {
            return false;
        }
        if (!cJSON_IsString(item) || item->valuestring == nullptr) {
            return refuse(key, "expected a string");
        }
        const size_t len = std::strlen(item->valuestring);
        if (len < min_len || len > max_len) {
            return refuse(key, "length " + std::to_string(len) + " outside " + std::to_string(min_len) + ".." +
                                   std::to_string(max_len));
        }
        *out = item->valuestring;
        return true;
    }

    bool integer(const char *key, bool required, long long min, long long max, long long *out,
                 const char *range_why = "out of range")
    {
        const cJSON *item = member(key, required);
        if (item == nullptr) {
            return false;
        }
        const double value = item->valuedouble;
        if (!cJSON_IsNumber(item) || std::floor(value) != value || std::fabs(value) > 9.0e15) {
            return refuse(key, "expected an integer");
        }
        const long long number = static_cast<long long>(value);
        if (number < min || number > max) {
            return refuse(key, std::string(range_why) + " (" + std::to_string(min) + ".." + std::to_string(max) +
                                   "): " + std::to_string(number));
        }
        *out = number;
        return true;
    }

    bool boolean(const char *key, bool *out)
    {
        const cJSON *item = member(key, false);
        if (item == nullptr) {
            return false;
        }
        if (!cJSON_IsBool(item)) {
            return refuse(key, "expected true or false");
        }
        *out = cJSON_IsTrue(item);
        return true;
    }

    template <size_t N>
    bool choice(const char *key, bool required, const Choice (&choices)[N], int *out)
    {
        std::string name;
        if (!text(key, required, 0, SIZE_MAX, &name)) {
            return false;
        }
        for (const Choice &choice : choices) {
            if (name == choice.name) {
                *out = choice.value;
                return true;
            }
        }
        return refuse(key, "unknown value \"" + name + "\" (one of " + choice_list(choices) + ")");
    }

    const cJSON *array(const char *key, bool required)
    {
        const cJSON *item = member(key, required);
        if (item != nullptr && !cJSON_IsArray(item)) {
            refuse(key, "expected an array");
            return nullptr;
        }
        return item;
    }

    /* Call last: refuses a member that no getter asked for. */
    bool no_unknown_keys()
    {
        if (!ok_) {
            return false;
        }
        for (const cJSON *item = object_->child; item != nullptr; item = item->next) {
            if (item->string != nullptr && known_.count(item->string) == 0) {
                return refuse(item->string, "unknown key");
            }
        }
        return true;
    }

private:
    const cJSON *object_;
    const std::string &file_;
    std::string path_;
    LoadError *error_;
    std::set<std::string> known_;
    bool ok_ = true;
};

std::string element(const std::string &path, const char *key, int index)
{
    return (path.empty() ? std::string(key) : path + "." + key) + "[" + std::to_string(index) + "]";
}

bool parse_limits(Reader &r, DpLayout *dp, const std::string &file, LoadError *error)
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
            const std::string at = element(r.path(), "range", i);
            if (!cJSON_IsString(name) || name->valuestring == nullptr) {
                return fail(error, file, at, "expected a string");
            }
            for (const std::string &seen : dp->enum_names) {
                if (seen == name->valuestring) {
                    return fail(error, file, at, "duplicate enum name \"" + seen + "\"");
                }
            }
            dp->enum_names.push_back(name->valuestring);
        }
        break;
    }
    default:
        break;
    }
    return r.ok();
}

bool parse_dp(const cJSON *node, const Where &where, DpLayout *dp, LoadError *error)
{
    Reader r(node, where, error);
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
    r.boolean("passive", &passive);
    dp->desc.passive = passive ? PSV_HOLD : PSV_NONE;
    dp->desc.stat = r.integer("stat", false, 0, UINT8_MAX, &number) ? static_cast<DP_STAT_TP_T>(number) : 0;
    if (typed && r.ok() && !parse_limits(r, dp, where.file, error)) {
        return false;
    }
    const cJSON *flow = r.member("flow", false);
    if (flow != nullptr && r.ok()) {
        Reader f(flow, Where{where.file, r.at("flow")}, error);
        dp->flow.cir_time = f.integer("window_s", true, 0, UINT16_MAX, &number) ? static_cast<USHORT_T>(number) : 0;
        dp->flow.cir_rept_item_lmt =
            f.integer("limit", true, 0, UINT16_MAX, &number) ? static_cast<USHORT_T>(number) : 0;
        if (!f.no_unknown_keys()) {
            return false;
        }
    }
    return r.no_unknown_keys();
}

} // namespace

bool parse_device(const cJSON *node, const Where &where, DeviceLayout *out, LoadError *error)
{
    Reader r(node, where, error);
    if (r.text("id", true, 1, DEV_ID_LEN, &out->id) && !id_fits_json(out->id)) {
        return r.refuse("id", "device id " + quoted_id(out->id) +
                                  " has a character that needs a JSON escape or is a control character");
    }
    r.text("sw_ver", false, 0, SW_VER_LEN, &out->sw_ver);
    r.text("schema_id", false, 0, SCHEMA_ID_LEN, &out->schema_id);
    r.text("product_key", false, 0, PRODUCT_KEY_LEN, &out->product_key);
    r.boolean("bind", &out->bind);
    r.boolean("preprocess", &out->preprocess);
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
            const std::string at = element(where.path, "dps", i);
            if (!parse_dp(item, Where{where.file, at}, &dp, error)) {
                return false;
            }
            for (size_t j = 0; j < out->dps.size(); ++j) {
                if (out->dps[j].desc.dp_id == dp.desc.dp_id) {
                    return fail(error, where.file, at + ".id",
                                "duplicate DP id " + std::to_string(dp.desc.dp_id) + " (also " +
                                    element(where.path, "dps", static_cast<int>(j)) + ")");
                }
            }
            out->dps.push_back(std::move(dp));
        }
    }
    return r.no_unknown_keys();
}

bool parse_gateway(const cJSON *root, const std::string &file, GatewayLayout *out, LoadError *error)
{
    Reader top(root, Where{file, ""}, error);
    const cJSON *gateway = top.member("gateway", true);
    const cJSON *devices = top.array("devices", false);
    if (!top.no_unknown_keys()) {
        return false;
    }
    {
        /* the gateway object describes the gateway's own node, plus the local key */
        Reader r(gateway, Where{file, "gateway"}, error);
        r.text("local_key", false, 0, 64, &out->local_key);
        if (!r.ok()) {
            return false;
        }
    }
    cJSON *own = cJSON_Duplicate(gateway, 1);
    if (own == nullptr) {
        return fail(error, file, "gateway", "out of memory");
    }
    cJSON_DeleteItemFromObjectCaseSensitive(own, "local_key");
    const bool own_ok = parse_device(own, Where{file, "gateway"}, &out->own, error);
    cJSON_Delete(own);
    if (!own_ok) {
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
        const std::string at = element("", "devices", i);
        if (!parse_device(item, Where{file, at}, &device, error)) {
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

} // namespace detail

std::string LoadError::text() const
{
    return path.empty() ? file + ": " + why : file + ": " + path + ": " + why;
}

} // namespace gw_registry
