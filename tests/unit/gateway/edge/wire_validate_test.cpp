/*
 * The edge check's rules held against a loaded registry, without broker
 * or sockets: the corners the channel tests (tests/integration/wire_validation_test.cpp) do
 * not reach, and the refusal's text. The gateway's unit executable links
 * the module whole, whose DP model the check reads.
 */
#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <string>

#include "gateway/registry/gw_registry.h"
#include "gateway/edge/wire_json.h"
#include "gateway/edge/wire_validate.h"

namespace {

using sf_wire::CmdKind;

class WireValidate : public ::testing::Test {
protected:
    void SetUp() override
    {
        gw_registry::LoadError error;
        ASSERT_TRUE(gw_registry::load_text(
            R"({"gateway":{"id":"gw01","dps":[{"id":1,"prop":"bool"}]},)"
            R"("devices":[{"id":"d1","dps":[{"id":6,"prop":"bitmap"},{"id":7,"prop":"value","min":-10,"max":10,"step":4},)"
            R"({"id":8,"prop":"str","max_len":0},{"id":9,"mode":"wr","prop":"bool"}]}]})",
            "gw.json", &error))
            << error.text();
    }
    void TearDown() override
    {
        wire_set_command_checks(TRUE);
        gw_registry::unload();
    }

    /* "" when doc passes, else "<code>: <text>". */
    static std::string verdict(CmdKind kind, const std::string &doc)
    {
        return verdict_of(kind, cJSON_Parse(doc.c_str()));
    }

    /* The same for doc as a channel receives it (parsed by parse_bounded). */
    static std::string received(CmdKind kind, const std::string &doc)
    {
        const char *why = nullptr;
        return verdict_of(kind, sf_wire::parse_bounded(doc.data(), doc.size(), 4096, 32, &why));
    }

    static std::string verdict_of(CmdKind kind, cJSON *parsed)
    {
        sf_wire::Refusal why;
        const bool ok = sf_wire::validate_command(kind, parsed, &why);
        cJSON_Delete(parsed);
        return ok ? "" : std::string(why.code) + ": " + why.text;
    }
};

TEST_F(WireValidate, TheGatewayIsNamedByNoIdANullIdOrItsOwnIdInAnyCase)
{
    EXPECT_EQ("", verdict(CmdKind::Dp, R"({"dps":{"1":true}})"));
    EXPECT_EQ("", verdict(CmdKind::Dp, R"({"devId":null,"dps":{"1":true}})"));
    EXPECT_EQ("", verdict(CmdKind::Dp, R"({"devId":"GW01","dps":{"1":true}})"));
    EXPECT_EQ("unknown_dp: device gw01 has no DP 6", verdict(CmdKind::Dp, R"({"dps":{"6":1}})"));
}

TEST_F(WireValidate, DevIdIsTheTargetButAnUnknownCidBesideItIsStillRefused)
{
    EXPECT_EQ("", verdict(CmdKind::Dp, R"({"devId":"d1","cid":"d1","dps":{"6":1}})"));
    EXPECT_EQ("unknown_device: unknown device \"zz\"", verdict(CmdKind::Dp, R"({"devId":"d1","cid":"zz","dps":{"6":1}})"));
    EXPECT_EQ("unknown_dp: device d1 has no DP 1", verdict(CmdKind::Dp, R"({"DEVID":"d1","dps":{"1":true}})"));
}

TEST_F(WireValidate, ABitmapTakesNoMoreThanTheDevicesRecordReceives)
{
    /* the module hands a bitmap over through cJSON's valueint, which stops at 2147483647 */
    cJSON *top = cJSON_Parse("2147483647");
    cJSON *beyond = cJSON_Parse("2147483648");
    EXPECT_EQ(2147483647u, static_cast<UINT_T>(top->valueint));
    EXPECT_EQ(2147483647u, static_cast<UINT_T>(beyond->valueint));
    cJSON_Delete(top);
    cJSON_Delete(beyond);
    EXPECT_EQ("", verdict(CmdKind::Dp, R"({"devId":"d1","dps":{"6":2147483647}})"));
    EXPECT_EQ("out_of_range: DP 6 of d1: 2147483648 outside 0..2147483647",
              verdict(CmdKind::Dp, R"({"devId":"d1","dps":{"6":2147483648}})"));
    EXPECT_EQ("out_of_range: DP 6 of d1: 4294967295 outside 0..2147483647",
              verdict(CmdKind::Dp, R"({"devId":"d1","dps":{"6":4294967295}})"));
    EXPECT_EQ("out_of_range: DP 6 of d1: -1 outside 0..2147483647", verdict(CmdKind::Dp, R"({"devId":"d1","dps":{"6":-1}})"));
}

TEST_F(WireValidate, AnIntegerBeyondEveryRangeIsOutOfRangeAndAFractionABadType)
{
    EXPECT_EQ("out_of_range: DP 7 of d1: 1e+308 outside -10..10", verdict(CmdKind::Dp, R"({"devId":"d1","dps":{"7":1e308}})"));
    EXPECT_EQ("out_of_range: DP 7 of d1: -1e+19 outside -10..10", verdict(CmdKind::Dp, R"({"devId":"d1","dps":{"7":-1e19}})"));
    EXPECT_EQ("out_of_range: DP 6 of d1: 1e+308 outside 0..2147483647",
              verdict(CmdKind::Dp, R"({"devId":"d1","dps":{"6":1e308}})"));
    EXPECT_EQ("bad_type: DP 7 of d1: expected an integer, got 2.5", verdict(CmdKind::Dp, R"({"devId":"d1","dps":{"7":2.5}})"));
}

TEST_F(WireValidate, AStringHoldingANulIsRefusedWithACodeOfItsOwnWhereverItIs)
{
    EXPECT_EQ("nul_in_string: DP 8 of d1: the string holds a NUL (\\u0000), which would cut it short at the device: "
              "\"\\u0000\"",
              received(CmdKind::Dp, R"({"devId":"d1","dps":{"8":"\u0000"}})"));
    EXPECT_EQ("nul_in_string: DP 6 of d1: the string holds a NUL (\\u0000), which would cut it short at the device: "
              "\"1\\u0000\"",
              received(CmdKind::Dp, R"({"devId":"d1","dps":{"6":"1\u0000"}})"));
    EXPECT_EQ("nul_in_string: \"devId\": the string holds a NUL (\\u0000), which would cut it short at the device: "
              "\"d1\\u0000x\"",
              received(CmdKind::Dp, R"({"devId":"d1\u0000x","dps":{"6":1}})"));
    EXPECT_EQ("nul_in_string: \"cids\": the string holds a NUL (\\u0000), which would cut it short at the device: "
              "\"d1\\u0000\"",
              received(CmdKind::Query, R"({"cids":["d1\u0000"],"dpids":[6]})"));
    EXPECT_EQ("bad_dp_key: DP key \"6\\\\u0000\" of d1 is no DP number (1..255 in decimal, no sign, space or leading zero)",
              received(CmdKind::Dp, R"({"devId":"d1","dps":{"6\u0000":1}})"));
    /* an escaped backslash before "u0000" is six characters of text, no NUL */
    EXPECT_EQ("too_long: DP 8 of d1: 6 bytes, at most 0", received(CmdKind::Dp, R"({"devId":"d1","dps":{"8":"\\u0000"}})"));
}

TEST_F(WireValidate, TheStepCountsFromANegativeMinimum)
{
    EXPECT_EQ("", verdict(CmdKind::Dp, R"({"devId":"d1","dps":{"7":-2}})"));
    EXPECT_EQ("", verdict(CmdKind::Dp, R"({"devId":"d1","dps":{"7":10}})"));
    EXPECT_EQ("off_step: DP 7 of d1: 0 not on the step 4 from -10", verdict(CmdKind::Dp, R"({"devId":"d1","dps":{"7":0}})"));
}

TEST_F(WireValidate, AnEmptyStringFitsAStringDpOfLengthZeroAndWriteOnlyDpsAreCommanded)
{
    EXPECT_EQ("", verdict(CmdKind::Dp, R"({"devId":"d1","dps":{"8":"","9":true}})"));
    EXPECT_EQ("too_long: DP 8 of d1: 1 bytes, at most 0", verdict(CmdKind::Dp, R"({"devId":"d1","dps":{"8":"a"}})"));
}

TEST_F(WireValidate, MultiDpCommandsNeedAnMbidAndCtypeIsZeroToThree)
{
    EXPECT_EQ("", verdict(CmdKind::Dp, R"({"devId":"d1","ctype":2,"mbid":"m1","dps":{"6":1}})"));
    EXPECT_EQ("", verdict(CmdKind::Dp, R"({"devId":"d1","ctype":3,"dps":{"6":1}})"));
    EXPECT_EQ("bad_shape: \"ctype\" must be 0, 1, 2 or 3, got \"2\"",
              verdict(CmdKind::Dp, R"({"devId":"d1","ctype":"2","dps":{"6":1}})"));
    EXPECT_EQ("bad_shape: \"mbid\" must be a string (required with \"ctype\" 2)",
              verdict(CmdKind::Dp, R"({"devId":"d1","mbid":5,"dps":{"6":1}})"));
}

TEST_F(WireValidate, GroupAndSceneIdsAreNotCheckedAgainstTheRegistry)
{
    EXPECT_EQ("", verdict(CmdKind::Group, R"({"action":1,"cids":["nobody"],"gid":"12345"})"));
    EXPECT_EQ("", verdict(CmdKind::Scene, R"({"action":0,"cids":["nobody"],"sid":"123","gid":"1"})"));
}

TEST_F(WireValidate, QueryKeysAreReadInExactCaseAndEveryDpMustExistInEveryDevice)
{
    EXPECT_EQ("", verdict(CmdKind::Query, R"({"cids":["d1","gw01"],"dpids":[]})"));
    EXPECT_EQ("bad_shape: \"dpids\" must be an array and \"cids\" an array or null",
              verdict(CmdKind::Query, R"({"DPIDS":[1]})"));
    EXPECT_EQ("unknown_dp: device gw01 has no DP 6", verdict(CmdKind::Query, R"({"cids":["d1","gw01"],"dpids":[6]})"));
    EXPECT_EQ("bad_dp_key: every \"dpids\" entry must be a number from 1 to 255, got 1.5",
              verdict(CmdKind::Query, R"({"dpids":[1.5]})"));
}

TEST_F(WireValidate, TheRefusalCarriesSnAndMbidAsSentThenDeviceDpCodeAndReason)
{
    cJSON *doc = cJSON_Parse(R"({"mbid":"m-9","sn":"x-1","devId":"d1","ctype":2,"dps":{"6":true}})");
    sf_wire::Refusal why;
    ASSERT_FALSE(sf_wire::validate_command(CmdKind::Dp, doc, &why));
    EXPECT_EQ("{\"cmd\":\"dp\",\"sn\":\"x-1\",\"mbid\":\"m-9\",\"devId\":\"d1\",\"dp\":\"6\",\"code\":\"bad_type\","
              "\"reason\":\"DP 6 of d1: expected an integer, got a boolean\"}",
              sf_wire::refusal_text(CmdKind::Dp, doc, why));
    cJSON_Delete(doc);
}

TEST_F(WireValidate, WithTheChecksOffEveryCommandIsAdmitted)
{
    cJSON *doc = cJSON_Parse(R"({"devId":"nobody","dps":{"x":1}})");
    EXPECT_EQ(TRUE, wire_command_checks());
    wire_set_command_checks(FALSE);
    EXPECT_EQ(FALSE, wire_command_checks());
    EXPECT_TRUE(sf_wire::admit_command(CmdKind::Dp, doc, DP_CMD_MQ));
    cJSON_Delete(doc);
}

} // namespace
