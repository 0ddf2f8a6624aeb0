#include "gateway/rules/dp_rules.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using gw_rules::Verdict;

DP_DESC_IF_S object_dp(DP_PROP_TP_E prop)
{
    DP_DESC_IF_S desc{};
    desc.dp_id = 1;
    desc.type = DP_TYPE_OBJ;
    desc.prop_tp = prop;
    return desc;
}

Verdict verdict(const DP_DESC_IF_S &desc, const DP_PROP_VALUE_U &limits, const char *json)
{
    cJSON *value = cJSON_Parse(json);
    EXPECT_NE(nullptr, value) << json;
    const Verdict out = gw_rules::check_value(desc, limits, value);
    cJSON_Delete(value);
    return out;
}

TEST(DpRules, AValueIsAnIntegerWithinMinAndMaxOnTheStepFromMin)
{
    DP_PROP_VALUE_U limits{};
    limits.prop_value.min = -10;
    limits.prop_value.max = 10;
    limits.prop_value.step = 4;
    const DP_DESC_IF_S desc = object_dp(PROP_VALUE);
    EXPECT_EQ(Verdict::Fits, verdict(desc, limits, "-10"));
    EXPECT_EQ(Verdict::Fits, verdict(desc, limits, "-2"));
    EXPECT_EQ(Verdict::OffStep, verdict(desc, limits, "0"));
    EXPECT_EQ(Verdict::OutOfRange, verdict(desc, limits, "14"));
    EXPECT_EQ(Verdict::BadType, verdict(desc, limits, "2.5"));
    EXPECT_EQ(Verdict::BadType, verdict(desc, limits, "\"2\""));
    EXPECT_EQ(-10, gw_rules::range_of(desc, limits).lo);
    EXPECT_EQ(10, gw_rules::range_of(desc, limits).hi);
}

TEST(DpRules, AStringFitsUpToMaxLenBytes)
{
    DP_PROP_VALUE_U limits{};
    limits.prop_str.max_len = 3;
    const DP_DESC_IF_S desc = object_dp(PROP_STR);
    EXPECT_EQ(Verdict::Fits, verdict(desc, limits, "\"abc\""));
    EXPECT_EQ(Verdict::TooLong, verdict(desc, limits, "\"abcd\""));
    EXPECT_EQ(Verdict::BadType, verdict(desc, limits, "3"));
}

TEST(DpRules, AnEnumTakesOneOfItsNamesInExactCase)
{
    CHAR_T low[] = "low";
    CHAR_T high[] = "high";
    CHAR_T *names[] = {low, nullptr, high};
    DP_PROP_VALUE_U limits{};
    limits.prop_enum.cnt = 3;
    limits.prop_enum.pp_enum = names;
    const DP_DESC_IF_S desc = object_dp(PROP_ENUM);
    EXPECT_EQ(Verdict::Fits, verdict(desc, limits, "\"high\""));
    EXPECT_EQ(Verdict::UnknownEnum, verdict(desc, limits, "\"HIGH\""));
    EXPECT_EQ(Verdict::BadType, verdict(desc, limits, "0"));
    EXPECT_EQ(2, gw_rules::enum_index(limits.prop_enum, "high"));
    EXPECT_EQ(-1, gw_rules::enum_index(limits.prop_enum, "mid"));
}

TEST(DpRules, ABitmapStaysWithinItsBitsAndTakes32WithoutMaxLen)
{
    DP_PROP_VALUE_U limits{};
    limits.prop_bitmap.max_len = 8;
    const DP_DESC_IF_S desc = object_dp(PROP_BITMAP);
    EXPECT_EQ(Verdict::Fits, verdict(desc, limits, "255"));
    EXPECT_EQ(Verdict::OutOfRange, verdict(desc, limits, "256"));
    EXPECT_EQ(Verdict::OutOfRange, verdict(desc, limits, "-1"));
    limits.prop_bitmap.max_len = 0;
    EXPECT_EQ(32u, gw_rules::bitmap_bits(limits));
}

TEST(DpRules, ABoolIsTrueOrFalseOnly)
{
    const DP_PROP_VALUE_U limits{};
    const DP_DESC_IF_S desc = object_dp(PROP_BOOL);
    EXPECT_EQ(Verdict::Fits, verdict(desc, limits, "false"));
    EXPECT_EQ(Verdict::BadType, verdict(desc, limits, "1"));
    EXPECT_EQ(Verdict::BadType, verdict(desc, limits, "null"));
}

TEST(DpRules, ARawDpTakesWellFormedBase64AndAFileDpNoValue)
{
    const DP_PROP_VALUE_U limits{};
    DP_DESC_IF_S desc{};
    desc.type = DP_TYPE_RAW;
    EXPECT_EQ(Verdict::Fits, verdict(desc, limits, "\"AQI=\""));
    EXPECT_EQ(Verdict::BadBase64, verdict(desc, limits, "\"A=QI\""));
    EXPECT_EQ(Verdict::BadType, verdict(desc, limits, "[]"));
    desc.type = DP_TYPE_FILE;
    EXPECT_EQ(Verdict::NotValued, verdict(desc, limits, "\"AQI=\""));
    desc = object_dp(9);
    EXPECT_EQ(Verdict::NotValued, verdict(desc, limits, "true"));
}

} // namespace
