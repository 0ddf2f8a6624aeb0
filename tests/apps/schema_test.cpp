#include "common/schema.h"

#include <gtest/gtest.h>

#include "common/description.h"
#include "gateway/edge/wire_validate.h"
#include "gateway/registry/gw_registry.h"

namespace {

apps::DpSchema dp(const char *prop)
{
    apps::DpSchema d;
    d.id = 7;
    d.name = "thing";
    d.prop = prop;
    return d;
}

std::string json_of(const apps::DpSchema &d, const std::string &text, std::string *why = nullptr)
{
    std::string json;
    std::string reason;
    const bool ok = apps::value_json_from_text(d, text, &json, &reason);
    if (why != nullptr) {
        *why = reason;
    }
    return ok ? json : "REFUSED";
}

TEST(SchemaValueText, BooleansTakeTrueFalseOnOffAndDigits)
{
    const apps::DpSchema b = dp("bool");
    EXPECT_EQ("true", json_of(b, "on"));
    EXPECT_EQ("true", json_of(b, "1"));
    EXPECT_EQ("false", json_of(b, "off"));
    EXPECT_EQ("false", json_of(b, "false"));
    std::string why;
    EXPECT_EQ("REFUSED", json_of(b, "yes", &why));
    EXPECT_EQ("expected true/false (or on/off, 1/0): yes", why);
}

TEST(SchemaValueText, ScaledValuesCountInTenthsAndKeepTheirRange)
{
    apps::DpSchema v = dp("value");
    v.min = 50;
    v.max = 350;
    v.scale = 1;
    EXPECT_EQ("215", json_of(v, "21.5"));
    EXPECT_EQ("50", json_of(v, "5"));
    std::string why;
    EXPECT_EQ("REFUSED", json_of(v, "35.1", &why));
    EXPECT_EQ("out of range (50..350): 351", why);
    EXPECT_EQ("REFUSED", json_of(v, "21.25", &why));
    EXPECT_EQ("more decimals than the DP has: 21.25", why);
    EXPECT_EQ("REFUSED", json_of(v, "warm", &why));
    EXPECT_EQ("expected a number: warm", why);
}

TEST(SchemaValueText, EnumsTakeANameOrItsIndex)
{
    apps::DpSchema e = dp("enum");
    e.range = {"white", "colour"};
    EXPECT_EQ("\"colour\"", json_of(e, "colour"));
    EXPECT_EQ("\"colour\"", json_of(e, "1"));
    std::string why;
    EXPECT_EQ("REFUSED", json_of(e, "2", &why));
    EXPECT_EQ("unknown value \"2\" (one of white, colour)", why);
}

TEST(SchemaValueText, TextsAreQuotedAndBoundedByMaxLen)
{
    apps::DpSchema s = dp("str");
    s.max_len = 3;
    EXPECT_EQ("\"a\\\"b\"", json_of(s, "a\"b"));
    std::string why;
    EXPECT_EQ("REFUSED", json_of(s, "abcd", &why));
    EXPECT_EQ("longer than 3 characters", why);
}

TEST(SchemaValueText, BitmapsStayWithinTheirBits)
{
    apps::DpSchema m = dp("bitmap");
    m.max_len = 8;
    EXPECT_EQ("255", json_of(m, "255"));
    std::string why;
    EXPECT_EQ("REFUSED", json_of(m, "256", &why));
    EXPECT_EQ("out of range (0..255): 256", why);
}

TEST(SchemaValueText, RawDpsTakeBase64Text)
{
    apps::DpSchema r = dp("");
    r.type = "raw";
    EXPECT_EQ("\"AQID\"", json_of(r, "AQID"));
    EXPECT_EQ("\"AQI=\"", json_of(r, "AQI="));
    EXPECT_EQ("\"AQ==\"", json_of(r, "AQ=="));
    std::string why;
    EXPECT_EQ("REFUSED", json_of(r, "AQI", &why));
    EXPECT_EQ("expected base64 text", why);
    EXPECT_EQ("REFUSED", json_of(r, "A=QI"));
    EXPECT_EQ("REFUSED", json_of(r, "not base64!!"));
}

TEST(SchemaDisplay, ScaledValuesShowTheirDecimalsAndSign)
{
    apps::DpSchema v = dp("value");
    v.scale = 1;
    cJSON *number = cJSON_CreateNumber(-45);
    EXPECT_EQ("-4.5", apps::display_value(&v, number));
    cJSON_SetNumberValue(number, 5);
    EXPECT_EQ("0.5", apps::display_value(&v, number));
    EXPECT_EQ("5", apps::display_value(nullptr, number));
    cJSON_Delete(number);
}

TEST(SchemaLookup, DpsAreFoundByNameOrNumber)
{
    apps::DeviceSchema device;
    device.dps = {dp("bool")};
    EXPECT_EQ(7, device.find("thing")->id);
    EXPECT_EQ(7, device.find("7")->id);
    EXPECT_EQ(nullptr, device.find("8"));
    EXPECT_EQ(nullptr, device.find("7x"));
    EXPECT_EQ("thing (7)", device.dps[0].label());
}

TEST(SchemaValueText, ValuesOffTheStepAreRefusedAsTheGatewayRefusesThem)
{
    apps::DpSchema v = dp("value");
    v.min = -10;
    v.max = 10;
    v.step = 4;
    std::string why;
    EXPECT_EQ("-2", json_of(v, "-2"));
    EXPECT_EQ("REFUSED", json_of(v, "0", &why));
    EXPECT_EQ("not on the step 4 from -10: 0", why);
}

/* One DP of each kind, loaded by the registry and read by the console from the same description. */
const char *const kEveryKind = R"({"gateway":{"id":"gw"},"devices":[{"id":"d1","dps":[
    {"id":1,"prop":"bool"},
    {"id":2,"prop":"value","min":-10,"max":10,"step":4},
    {"id":3,"prop":"str","max_len":3},
    {"id":4,"prop":"enum","range":["low","high"]},
    {"id":5,"prop":"bitmap","max_len":8},
    {"id":6,"prop":"bitmap"},
    {"id":7,"type":"raw"}]}]})";

struct Sample {
    int dp;
    const char *value; /* JSON */
    const char *code;  /* the edge's code, "" when it passes */
};

const Sample kSamples[] = {
    {1, "true", ""}, {1, "1", "bad_type"}, {1, "\"true\"", "bad_type"},
    {2, "-10", ""}, {2, "-2", ""}, {2, "10", ""}, {2, "0", "off_step"}, {2, "14", "out_of_range"},
    {2, "-14", "out_of_range"}, {2, "2.5", "bad_type"}, {2, "\"2\"", "bad_type"},
    {3, "\"abc\"", ""}, {3, "\"\"", ""}, {3, "\"abcd\"", "too_long"}, {3, "3", "bad_type"},
    {4, "\"high\"", ""}, {4, "\"HIGH\"", "unknown_enum"}, {4, "1", "bad_type"},
    {5, "255", ""}, {5, "256", "out_of_range"}, {5, "-1", "out_of_range"}, {5, "1.5", "bad_type"},
    {6, "0", ""}, {6, "2147483647", ""}, {6, "2147483648", "out_of_range"}, {6, "4294967295", "out_of_range"},
    {2, "1e308", "out_of_range"}, {6, "-1e308", "out_of_range"},
    {7, "\"AQID\"", ""}, {7, "\"AQI\"", "bad_base64"}, {7, "12", "bad_type"},
};

TEST(SchemaRules, TheConsoleAndTheGatewaysEdgeGiveTheSameVerdictOnEveryValue)
{
    apps::Description description;
    std::string why;
    ASSERT_TRUE(apps::read_description_text(kEveryKind, "gw.json", &description, &why)) << why;
    gw_registry::LoadError error;
    ASSERT_TRUE(gw_registry::load_layout(description.layout, "gw.json", &error)) << error.text();
    const apps::DeviceSchema &device = description.find("d1")->schema;
    for (const Sample &sample : kSamples) {
        const std::string command = R"({"devId":"d1","dps":{")" + std::to_string(sample.dp) + "\":" + sample.value + "}}";
        cJSON *doc = cJSON_Parse(command.c_str());
        sf_wire::Refusal refusal;
        const bool edge = sf_wire::validate_command(sf_wire::CmdKind::Dp, doc, &refusal);
        cJSON_Delete(doc);
        cJSON *value = cJSON_Parse(sample.value);
        std::string reason;
        const bool console = apps::value_fits(*device.find(sample.dp), value, &reason);
        cJSON_Delete(value);
        EXPECT_EQ(sample.code, std::string(edge ? "" : refusal.code)) << command;
        EXPECT_EQ(edge, console) << command << ": the console says \"" << reason << "\", the edge \"" << refusal.text
                                 << "\"";
    }
    gw_registry::unload();
}

} // namespace
