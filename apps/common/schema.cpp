#include "schema.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "json_reader.h"

namespace apps {

std::string DpSchema::label() const
{
    return name.empty() ? std::to_string(id) : name + " (" + std::to_string(id) + ")";
}

const DpSchema *DeviceSchema::find(int dpid) const
{
    for (const DpSchema &dp : dps) {
        if (dp.id == dpid) {
            return &dp;
        }
    }
    return nullptr;
}

const DpSchema *DeviceSchema::find(const std::string &name_or_id) const
{
    for (const DpSchema &dp : dps) {
        if (!dp.name.empty() && dp.name == name_or_id) {
            return &dp;
        }
    }
    char *end = nullptr;
    errno = 0;
    const long number = std::strtol(name_or_id.c_str(), &end, 10);
    if (name_or_id.empty() || *end != '\0' || errno != 0) {
        return nullptr;
    }
    return find(static_cast<int>(number));
}

namespace {

bool read_dp(const cJSON *node, const std::string &path, DpSchema *dp, std::string *error)
{
    JsonReader r(node, path, error);
    long long number = 0;
    if (r.integer("id", true, 1, 255, &number)) {
        dp->id = static_cast<int>(number);
    }
    r.text("name", false, &dp->name);
    r.text("mode", false, &dp->mode);
    r.text("type", false, &dp->type);
    r.text("prop", false, &dp->prop);
    r.integer("min", false, INT32_MIN, INT32_MAX, &dp->min);
    r.integer("max", false, INT32_MIN, INT32_MAX, &dp->max);
    if (r.integer("scale", false, 0, 65535, &number)) {
        dp->scale = static_cast<int>(number);
    }
    r.integer("max_len", false, 0, 65535, &dp->max_len);
    if (dp->prop == "bitmap" && r.member("max_len", false) == nullptr) {
        dp->max_len = 32;
    }
    r.boolean("passive", false, &dp->passive);
    dp->has_flow = r.member("flow", false) != nullptr;
    const cJSON *range = r.member("range", false);
    if (range != nullptr) {
        if (!cJSON_IsArray(range)) {
            return r.fail("range", "expected an array");
        }
        for (const cJSON *name = range->child; name != nullptr; name = name->next) {
            if (!cJSON_IsString(name)) {
                return r.fail("range", "expected names");
            }
            dp->range.emplace_back(name->valuestring);
        }
    }
    if (dp->type == "obj" && dp->prop.empty()) {
        return r.fail("prop", "missing key");
    }
    return r.ok();
}

bool read_device(const cJSON *node, const std::string &path, DeviceSchema *device, std::string *error)
{
    JsonReader r(node, path, error);
    r.text("id", true, &device->id);
    r.boolean("bind", false, &device->bind);
    r.boolean("preprocess", false, &device->preprocess);
    const cJSON *dps = r.member("dps", false);
    if (!r.ok()) {
        return false;
    }
    if (dps == nullptr) {
        return true;
    }
    if (!cJSON_IsArray(dps)) {
        return r.fail("dps", "expected an array");
    }
    int i = 0;
    for (const cJSON *item = dps->child; item != nullptr; item = item->next, ++i) {
        DpSchema dp;
        if (!read_dp(item, element_path(path, "dps", i), &dp, error)) {
            return false;
        }
        device->dps.push_back(dp);
    }
    return true;
}

long long pow10(int scale)
{
    long long factor = 1;
    for (int i = 0; i < scale && factor < 1000000000000LL; ++i) {
        factor *= 10;
    }
    return factor;
}

/* Standard alphabet, padded to a multiple of four: what the smart frame decodes. */
bool is_base64(const char *text)
{
    const size_t len = std::strlen(text);
    if (len % 4 != 0) {
        return false;
    }
    for (size_t i = 0; i < len; ++i) {
        const char c = text[i];
        const bool padding = c == '=' && i + 2 >= len && (i + 1 == len || text[i + 1] == '=');
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '/' && !padding) {
            return false;
        }
    }
    return true;
}

} // namespace

bool read_schemas(const cJSON *root, std::vector<DeviceSchema> *out, std::string *error)
{
    if (!cJSON_IsObject(root)) {
        *error = "document: expected an object";
        return false;
    }
    DeviceSchema gateway;
    if (!read_device(cJSON_GetObjectItemCaseSensitive(root, "gateway"), "gateway", &gateway, error)) {
        return false;
    }
    out->push_back(gateway);
    const cJSON *devices = cJSON_GetObjectItemCaseSensitive(root, "devices");
    if (devices == nullptr) {
        return true;
    }
    if (!cJSON_IsArray(devices)) {
        *error = "devices: expected an array";
        return false;
    }
    int i = 0;
    for (const cJSON *item = devices->child; item != nullptr; item = item->next, ++i) {
        DeviceSchema device;
        if (!read_device(item, element_path("", "devices", i), &device, error)) {
            return false;
        }
        out->push_back(device);
    }
    return true;
}

bool value_fits(const DpSchema &dp, const cJSON *value, std::string *why)
{
    if (dp.type == "raw") {
        if (!cJSON_IsString(value) || !is_base64(value->valuestring)) {
            *why = "expected base64 text";
            return false;
        }
        return true;
    }
    if (dp.type != "obj") {
        *why = "a " + dp.type + " DP takes no value";
        return false;
    }
    if (dp.prop == "bool") {
        if (!cJSON_IsBool(value)) {
            *why = "expected true or false";
            return false;
        }
        return true;
    }
    if (dp.prop == "value" || dp.prop == "bitmap") {
        if (!is_integer(value)) {
            *why = "expected an integer";
            return false;
        }
        const long long number = static_cast<long long>(value->valuedouble);
        const long long lo = dp.prop == "value" ? dp.min : 0;
        const long long hi = dp.prop == "value" ? dp.max : (dp.max_len >= 32 ? 0xFFFFFFFFLL : (1LL << dp.max_len) - 1);
        if (number < lo || number > hi) {
            *why = "out of range (" + std::to_string(lo) + ".." + std::to_string(hi) + "): " + std::to_string(number);
            return false;
        }
        return true;
    }
    if (!cJSON_IsString(value)) {
        *why = "expected a string";
        return false;
    }
    if (dp.prop == "enum") {
        for (const std::string &name : dp.range) {
            if (name == value->valuestring) {
                return true;
            }
        }
        std::string names;
        for (const std::string &name : dp.range) {
            names += (names.empty() ? "" : ", ") + name;
        }
        *why = "unknown value \"" + std::string(value->valuestring) + "\" (one of " + names + ")";
        return false;
    }
    if (dp.prop == "str" && static_cast<long long>(std::strlen(value->valuestring)) > dp.max_len) {
        *why = "longer than " + std::to_string(dp.max_len) + " characters";
        return false;
    }
    return true;
}

bool value_json_from_text(const DpSchema &dp, const std::string &text, std::string *json, std::string *why)
{
    std::string candidate;
    if (dp.type == "raw" || dp.prop == "str") {
        candidate = json_quote(text);
    } else if (dp.prop == "bool") {
        if (text == "true" || text == "on" || text == "1") {
            candidate = "true";
        } else if (text == "false" || text == "off" || text == "0") {
            candidate = "false";
        } else {
            *why = "expected true/false (or on/off, 1/0): " + text;
            return false;
        }
    } else if (dp.prop == "enum") {
        candidate = json_quote(text);
        char *end = nullptr;
        const long index = std::strtol(text.c_str(), &end, 10);
        if (!text.empty() && *end == '\0' && index >= 0 && index < static_cast<long>(dp.range.size())) {
            candidate = json_quote(dp.range[static_cast<size_t>(index)]);
        }
    } else if (dp.prop == "value" || dp.prop == "bitmap") {
        /* a DP with scale s counts in 10^-s: "21.5" with scale 1 is 215 */
        char *end = nullptr;
        errno = 0;
        const double number = std::strtod(text.c_str(), &end);
        if (text.empty() || *end != '\0' || errno != 0 || !std::isfinite(number)) {
            *why = "expected a number: " + text;
            return false;
        }
        const double scaled = number * static_cast<double>(dp.prop == "value" ? pow10(dp.scale) : 1);
        if (std::fabs(scaled - std::round(scaled)) > 1e-6 || std::fabs(scaled) > 9.0e15) {
            *why = "more decimals than the DP has: " + text;
            return false;
        }
        candidate = std::to_string(static_cast<long long>(std::llround(scaled)));
    } else {
        *why = "a " + dp.type + " DP cannot be set";
        return false;
    }
    cJSON *parsed = cJSON_Parse(candidate.c_str());
    const bool fits = parsed != nullptr && value_fits(dp, parsed, why);
    cJSON_Delete(parsed);
    if (fits) {
        *json = candidate;
    }
    return fits;
}

std::string display_value(const DpSchema *dp, const cJSON *value)
{
    if (dp != nullptr && dp->prop == "value" && dp->scale > 0 && is_integer(value)) {
        const long long number = static_cast<long long>(value->valuedouble);
        const long long factor = pow10(dp->scale);
        const long long whole = std::llabs(number) / factor;
        std::string fraction = std::to_string(std::llabs(number) % factor);
        fraction.insert(0, static_cast<size_t>(dp->scale) - fraction.size(), '0');
        return (number < 0 ? "-" : "") + std::to_string(whole) + "." + fraction;
    }
    if (cJSON_IsString(value)) {
        return value->valuestring;
    }
    return json_text(value);
}

bool json_equal(const cJSON *a, const cJSON *b)
{
    return a != nullptr && b != nullptr && cJSON_Compare(a, b, 1);
}

std::string json_text(const cJSON *node)
{
    if (node == nullptr) {
        return "null";
    }
    char *printed = cJSON_PrintUnformatted(node);
    if (printed == nullptr) {
        return "null";
    }
    std::string text(printed);
    cJSON_free(printed);
    return text;
}

std::string json_quote(const std::string &text)
{
    std::string out = "\"";
    for (const unsigned char c : text) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                out += escaped;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    return out + "\"";
}

} // namespace apps
