#include <gtest/gtest.h>

#include "report_fixture.h"

using namespace fake::registry;

namespace {

class DpCheck : public SfStartedTest {
protected:
    void SetUp() override
    {
        SfStartedTest::SetUp();
        dev = add_device("a1b2c3", {dp_bool(1), dp_value(2, -10, 100), dp_str(3, 5), dp_enum(4, {"low", "high"}),
                                    dp_bitmap(5, 3), dp_raw(101), dp_file(102), dp_bool(6).mode(DP_MODE_WR),
                                    dp_bool(7).prop_tp(5)});
    }
    /* __check_dp_type of DP dpid with the JSON value text */
    OPERATE_RET check(BYTE_T dpid, const char *value, INT_T filter_type = SF_FILTER_OBJ)
    {
        sf::JsonPtr node(cJSON_Parse(value));
        EXPECT_NE(nullptr, node) << value;
        return __check_dp_type(dp("a1b2c3", dpid), node.get(), dev, filter_type);
    }
    bool logged(const std::string &text) { return fake::log::has(LOG_LEVEL_ERROR, "__check_dp_type", text); }
    DEV_CNTL_N_S *dev = nullptr;
};

TEST_F(DpCheck, BoolTakesOnlyFalseAndTrue)
{
    EXPECT_EQ(1, check(1, "true"));
    EXPECT_EQ(1, check(1, "false"));
    EXPECT_EQ(0, check(1, "1"));
    EXPECT_TRUE(logged("bool check fail 3"));
    EXPECT_EQ(0, check(1, "\"true\""));
    EXPECT_TRUE(logged("bool check fail 4"));
}

TEST_F(DpCheck, ValueBoundsAreInclusive)
{
    EXPECT_EQ(1, check(2, "-10"));
    EXPECT_EQ(1, check(2, "100"));
    EXPECT_EQ(1, check(2, "7"));
    EXPECT_EQ(0, check(2, "101"));
    EXPECT_TRUE(logged("value check fail 3 101 -10 100"));
    EXPECT_EQ(0, check(2, "-11"));
    EXPECT_TRUE(logged("value check fail 3 -11 -10 100"));
}

TEST_F(DpCheck, ValueSentAsStringIsRefused)
{
    EXPECT_EQ(0, check(2, "\"5\""));
    EXPECT_TRUE(logged("value check fail 4 0 -10 100"));
}

TEST_F(DpCheck, StringUpToMaxLenIsAdmitted)
{
    EXPECT_EQ(1, check(3, "\"abcde\""));
    EXPECT_EQ(1, check(3, "\"\""));
    EXPECT_EQ(0, check(3, "\"abcdef\""));
    EXPECT_TRUE(logged("str check fail 4 abcdef 6"));
}

TEST_F(DpCheck, StringDpRefusesANumber)
{
    EXPECT_EQ(0, check(3, "12"));
    EXPECT_TRUE(logged("str check fail 3 (null) 0"));
}

TEST_F(DpCheck, EnumTakesOnlyItsNames)
{
    EXPECT_EQ(1, check(4, "\"low\""));
    EXPECT_EQ(1, check(4, "\"high\""));
    EXPECT_EQ(0, check(4, "\"mid\""));
    EXPECT_TRUE(logged("enum check fail mid"));
    EXPECT_EQ(0, check(4, "1"));
    EXPECT_TRUE(logged("enum check fail 3"));
}

TEST_F(DpCheck, BitmapBeyondMaxLenIsAdmitted)
{
    EXPECT_EQ(1, check(5, "4096"));
    EXPECT_EQ(0, check(5, "true"));
    EXPECT_TRUE(logged("bitmap check fail 1 1 3"));
}

TEST_F(DpCheck, InvalidPropertyTypeIsNeverAdmissible)
{
    EXPECT_EQ(0, check(7, "true"));
    EXPECT_TRUE(logged("dp_cntl->dp_desc.prop_tp 5"));
}

TEST_F(DpCheck, WriteOnlyDpIsNeverReported)
{
    EXPECT_EQ(0, check(6, "true"));
    EXPECT_TRUE(logged("DP ID:6 Verify Fails 1 0 0 0"));
    EXPECT_EQ(0, check(6, "true", SF_FILTER_STAT));
    EXPECT_TRUE(logged("DP ID:6 Verify Fails 1 0 2 0"));
}

TEST_F(DpCheck, RawDpInAnObjectReportIsRefused)
{
    EXPECT_EQ(0, check(101, "\"AQID\""));
    EXPECT_TRUE(logged("DP ID:101 Verify Fails 0 0 0 1"));
}

TEST_F(DpCheck, ObjectDpInARawReportIsRefused)
{
    EXPECT_EQ(0, check(1, "true", SF_FILTER_RAW));
    EXPECT_TRUE(logged("DP ID:1 Verify Fails 0 0 1 0"));
}

TEST_F(DpCheck, RawDpInARawReportIsAdmittedWhateverItsValue)
{
    EXPECT_EQ(1, check(101, "\"AQID\"", SF_FILTER_RAW));
}

TEST_F(DpCheck, RawDpInAStatusReportIsRefused)
{
    EXPECT_EQ(0, check(101, "\"AQID\"", SF_FILTER_STAT));
    EXPECT_TRUE(logged("raw filter invalid 2"));
}

TEST_F(DpCheck, FileDpIsNotSupported)
{
    EXPECT_EQ(0, check(102, "true", SF_FILTER_STAT));
    EXPECT_TRUE(logged("file not support"));
    EXPECT_EQ(0, check(102, "true", SF_FILTER_OBJ));
    EXPECT_TRUE(logged("DP ID:102 Verify Fails 0 0 0 2"));
}

TEST_F(DpCheck, UnknownDpKindIsRefused)
{
    dp("a1b2c3", 1)->dp_desc.type = 3;
    EXPECT_EQ(0, check(1, "true", SF_FILTER_STAT));
    EXPECT_TRUE(logged("dp_cntl->dp_desc.type 3"));
}

TEST_F(DpCheck, ObjectDpWithAnUnknownFilterIsRefused)
{
    EXPECT_EQ(0, check(1, "true", 7));
    EXPECT_TRUE(logged("obj filter type invalid 7"));
}

TEST_F(DpCheck, StatusReportChecksValuesLikeAnObjectReport)
{
    EXPECT_EQ(1, check(2, "50", SF_FILTER_STAT));
    EXPECT_EQ(0, check(2, "500", SF_FILTER_STAT));
    EXPECT_TRUE(logged("value check fail 3 500 -10 100"));
}

} // namespace
