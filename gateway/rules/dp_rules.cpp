/*
 * What a DP accepts (dp_rules.h).
 */
#include "dp_rules.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "services/kelo_base64.h"

namespace gw_rules {

namespace {

Verdict integer_value(const DP_DESC_IF_S &desc, const DP_PROP_VALUE_U &limits, const cJSON *value)
{
    if (!cJSON_IsNumber(value) || std::floor(value->valuedouble) != value->valuedouble) {
        return Verdict::BadType;
    }
    /* compared as doubles, which hold every bound exactly: 1e308 is out of range, not of the wrong type */
    const Range range = range_of(desc, limits);
    if (value->valuedouble < static_cast<double>(range.lo) || value->valuedouble > static_cast<double>(range.hi)) {
        return Verdict::OutOfRange;
    }
    const long long n = static_cast<long long>(value->valuedouble);
    const long long step = limits.prop_value.step;
    if (desc.prop_tp == PROP_VALUE && step > 1 && (n - range.lo) % step != 0) {
        return Verdict::OffStep;
    }
    return Verdict::Fits;
}

Verdict raw_value(const cJSON *value)
{
    if (!cJSON_IsString(value)) {
        return Verdict::BadType;
    }
    std::vector<BYTE_T> bytes(std::strlen(value->valuestring) * 3 / 4 + 3);
    return kelo_base64_decode(value->valuestring, bytes.data()) < 0 ? Verdict::BadBase64 : Verdict::Fits;
}

} // namespace

bool integral(const cJSON *value, long long *out)
{
    if (!cJSON_IsNumber(value)) {
        return false;
    }
    const double d = value->valuedouble;
    if (!(d >= -9.0e18 && d <= 9.0e18) || std::floor(d) != d) {
        return false;
    }
    *out = static_cast<long long>(d);
    return true;
}

unsigned bitmap_bits(const DP_PROP_VALUE_U &limits)
{
    const UINT_T bits = limits.prop_bitmap.max_len;
    return bits >= 1 && bits <= 32 ? bits : 32;
}

Range range_of(const DP_DESC_IF_S &desc, const DP_PROP_VALUE_U &limits)
{
    if (desc.prop_tp == PROP_BITMAP) {
        const long long bits_max = static_cast<long long>((1ULL << bitmap_bits(limits)) - 1);
        return {0, bits_max < INT32_MAX ? bits_max : INT32_MAX};
    }
    return {limits.prop_value.min, limits.prop_value.max};
}

int enum_index(const DP_PROP_ENUM_S &names, const char *name)
{
    for (INT_T i = 0; i < names.cnt; ++i) {
        if (names.pp_enum[i] != nullptr && std::strcmp(names.pp_enum[i], name) == 0) {
            return i;
        }
    }
    return -1;
}

Verdict check_value(const DP_DESC_IF_S &desc, const DP_PROP_VALUE_U &limits, const cJSON *value)
{
    if (desc.type != DP_TYPE_OBJ && desc.type != DP_TYPE_RAW) {
        return Verdict::NotValued;
    }
    if (cJSON_IsRaw(value)) {
        return Verdict::NulInString;
    }
    if (desc.type == DP_TYPE_RAW) {
        return raw_value(value);
    }
    switch (desc.prop_tp) {
    case PROP_BOOL:
        return cJSON_IsBool(value) ? Verdict::Fits : Verdict::BadType;
    case PROP_VALUE:
    case PROP_BITMAP:
        return integer_value(desc, limits, value);
    case PROP_STR:
        if (!cJSON_IsString(value)) {
            return Verdict::BadType;
        }
        return std::strlen(value->valuestring) > static_cast<size_t>(limits.prop_str.max_len) ? Verdict::TooLong
                                                                                              : Verdict::Fits;
    case PROP_ENUM:
        if (!cJSON_IsString(value)) {
            return Verdict::BadType;
        }
        return enum_index(limits.prop_enum, value->valuestring) >= 0 ? Verdict::Fits : Verdict::UnknownEnum;
    default:
        return Verdict::NotValued;
    }
}

} // namespace gw_rules
