#include "schema.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "gateway/rules/dp_rules.h"
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

/* The registry's records of a DP as the DP rules read them, from the apps' view of it. */
struct RuleRecords {
    DP_DESC_IF_S desc{};
    DP_PROP_VALUE_U limits{};
    std::vector<CHAR_T *> names; /* into the DpSchema's range: valid while it lives */
};

int choice_of(const std::string &name, const char *(*name_of)(int), int count, int fallback)
{
    for (int value = 0; value < count; ++value) {
        if (name == name_of(value)) {
            return value;
        }
    }
    return fallback;
}

RuleRecords records_of(const DpSchema &dp)
{
    RuleRecords r;
    r.desc.dp_id = static_cast<BYTE_T>(dp.id);
    r.desc.type = static_cast<DP_TYPE_E>(choice_of(
        dp.type, [](int v) { return gw_desc::type_name(static_cast<DP_TYPE_E>(v)); }, 3, -1));
    r.desc.prop_tp = static_cast<DP_PROP_TP_E>(choice_of(
        dp.prop, [](int v) { return gw_desc::prop_name(static_cast<DP_PROP_TP_E>(v)); }, 5, -1));
    switch (r.desc.prop_tp) {
    case PROP_VALUE:
        r.limits.prop_value.min = static_cast<INT_T>(dp.min);
        r.limits.prop_value.max = static_cast<INT_T>(dp.max);
        r.limits.prop_value.step = static_cast<SHORT_T>(dp.step);
        r.limits.prop_value.scale = static_cast<USHORT_T>(dp.scale);
        break;
    case PROP_STR: r.limits.prop_str.max_len = static_cast<INT_T>(dp.max_len); break;
    case PROP_BITMAP: r.limits.prop_bitmap.max_len = static_cast<UINT_T>(dp.max_len); break;
    case PROP_ENUM:
        for (const std::string &name : dp.range) {
            r.names.push_back(const_cast<CHAR_T *>(name.c_str())); /* the rules only read them */
        }
        r.limits.prop_enum.cnt = static_cast<INT_T>(r.names.size());
        r.limits.prop_enum.pp_enum = r.names.data();
        break;
    default: break;
    }
    return r;
}

/* The integer of a JSON number for a reason text: exact when a long long holds it. */
std::string number_text(const cJSON *value)
{
    const double d = value->valuedouble;
    return d >= -9.0e18 && d <= 9.0e18 ? std::to_string(static_cast<long long>(d)) : json_text(value);
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
    const RuleRecords r = records_of(dp);
    const gw_rules::Verdict verdict = gw_rules::check_value(r.desc, r.limits, value);
    switch (verdict) {
    case gw_rules::Verdict::Fits: return true;
    case gw_rules::Verdict::BadType:
        *why = dp.type == "raw"    ? "expected base64 text"
               : dp.prop == "bool" ? "expected true or false"
               : dp.prop == "value" || dp.prop == "bitmap" ? "expected an integer"
                                                           : "expected a string";
        break;
    case gw_rules::Verdict::BadBase64: *why = "expected base64 text"; break;
    case gw_rules::Verdict::OutOfRange: {
        const gw_rules::Range range = gw_rules::range_of(r.desc, r.limits);
        *why = "out of range (" + std::to_string(range.lo) + ".." + std::to_string(range.hi) + "): " +
               number_text(value);
        break;
    }
    case gw_rules::Verdict::OffStep:
        *why = "not on the step " + std::to_string(dp.step) + " from " + std::to_string(dp.min) + ": " +
               number_text(value);
        break;
    case gw_rules::Verdict::UnknownEnum: {
        std::string names;
        for (const std::string &name : dp.range) {
            names += (names.empty() ? "" : ", ") + name;
        }
        *why = "unknown value \"" + std::string(value->valuestring) + "\" (one of " + names + ")";
        break;
    }
    case gw_rules::Verdict::TooLong: *why = "longer than " + std::to_string(dp.max_len) + " characters"; break;
    case gw_rules::Verdict::NulInString: *why = "the text holds a NUL (\\u0000)"; break;
    default: *why = "a " + dp.type + " DP takes no value"; break;
    }
    return false;
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
