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

DeviceSchema schema_of(const gw_desc::DeviceLayout &device)
{
    DeviceSchema out;
    out.id = device.id;
    out.bind = device.bind;
    out.preprocess = device.preprocess;
    for (const gw_desc::DpLayout &layout : device.dps) {
        DpSchema dp;
        const DP_DESC_IF_S &desc = layout.desc;
        dp.id = desc.dp_id;
        dp.name = layout.name;
        dp.mode = gw_desc::mode_name(desc.mode);
        dp.type = gw_desc::type_name(desc.type);
        dp.prop = desc.type == DP_TYPE_OBJ ? gw_desc::prop_name(desc.prop_tp) : "";
        if (desc.type == DP_TYPE_OBJ && desc.prop_tp == PROP_VALUE) {
            dp.min = layout.limits.prop_value.min;
            dp.max = layout.limits.prop_value.max;
            dp.step = layout.limits.prop_value.step;
            dp.scale = layout.limits.prop_value.scale;
        } else if (desc.type == DP_TYPE_OBJ && desc.prop_tp == PROP_STR) {
            dp.max_len = layout.limits.prop_str.max_len;
        } else if (desc.type == DP_TYPE_OBJ && desc.prop_tp == PROP_BITMAP) {
            dp.max_len = layout.limits.prop_bitmap.max_len;
        }
        dp.range = layout.enum_names;
        dp.passive = desc.passive != PSV_NONE;
        dp.has_flow = layout.has_flow;
        out.dps.push_back(dp);
    }
    return out;
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
