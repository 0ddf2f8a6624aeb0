#include <gtest/gtest.h>

#include <cstring>

#include "smart_frame/dp_lookup.h"
#include "tests/fakes/sf_fixture.h"

using namespace fake::registry;

namespace {

class DpLookup : public SfFakesTest {};

cJSON *parse(const char *text)
{
    return cJSON_Parse(text);
}

TEST_F(DpLookup, DeviceWithoutDpsFindsNothing)
{
    DEV_CNTL_N_S *dev = add_device("sub01", {});
    EXPECT_EQ(nullptr, __locate_dp_ctl_by_dpid(dev, 0));
    EXPECT_EQ(nullptr, __locate_dp_ctl_by_dpid(dev, 1));
    EXPECT_EQ(nullptr, __locate_dp_ctl_by_dpid(dev, 255));
}

TEST_F(DpLookup, FindsEachDpByNumberInTableOrder)
{
    DEV_CNTL_N_S *dev = add_device("sub01", {dp_bool(1), dp_value(2, 0, 100), dp_str(104, 8)});
    EXPECT_EQ(&dev->dp[0], __locate_dp_ctl_by_dpid(dev, 1));
    EXPECT_EQ(&dev->dp[1], __locate_dp_ctl_by_dpid(dev, 2));
    EXPECT_EQ(&dev->dp[2], __locate_dp_ctl_by_dpid(dev, 104));
    EXPECT_EQ(nullptr, __locate_dp_ctl_by_dpid(dev, 3));
    EXPECT_EQ(nullptr, __locate_dp_ctl_by_dpid(dev, 104 + 256)) << "no truncation of the number";
}

TEST_F(DpLookup, FirstOfTwoDpsWithTheSameNumberWins)
{
    DEV_CNTL_N_S *dev = add_device("sub01", {dp_bool(7), dp_value(7, 0, 9)});
    EXPECT_EQ(&dev->dp[0], __locate_dp_ctl_by_dpid(dev, 7));
}

TEST_F(DpLookup, LookupBoundedByDpNum)
{
    DEV_CNTL_N_S *dev = add_device("sub01", {dp_bool(1), dp_bool(2)});
    dev->dp_num = 1;
    EXPECT_EQ(nullptr, __locate_dp_ctl_by_dpid(dev, 2));
}

class DpEquality : public SfFakesTest {
protected:
    void SetUp() override
    {
        SfFakesTest::SetUp();
        dev = add_device("sub01", {dp_bool(1), dp_value(2, -100, 100), dp_str(3, 16), dp_enum(4, {"low", "mid", "high"}),
                                   dp_bitmap(5, 31), dp_str(6, 8).no_str_buffer()});
    }
    bool equal(BYTE_T id, const char *json)
    {
        cJSON *item = parse(json);
        const bool result = sf::dp_value_equal(__locate_dp_ctl_by_dpid(dev, id), item);
        cJSON_Delete(item);
        return result;
    }
    DEV_CNTL_N_S *dev = nullptr;
};

TEST_F(DpEquality, BoolKnownAsTrueEqualsTrueButNotTheNumberOne)
{
    dev->dp[0].pv_stat = PV_STAT_CLOUD;
    dev->dp[0].prop.prop_bool.value = 1;
    EXPECT_TRUE(equal(1, "true"));
    EXPECT_FALSE(equal(1, "false"));
    EXPECT_FALSE(equal(1, "1"));
}

TEST_F(DpEquality, BoolKnownAsFalseEqualsFalseOnly)
{
    dev->dp[0].pv_stat = PV_STAT_LOCAL;
    dev->dp[0].prop.prop_bool.value = 0;
    EXPECT_TRUE(equal(1, "false"));
    EXPECT_FALSE(equal(1, "true"));
    EXPECT_FALSE(equal(1, "0"));
    EXPECT_FALSE(equal(1, "null"));
}

TEST_F(DpEquality, NoKnownValueIsNeverEqual)
{
    dev->dp[0].prop.prop_bool.value = 1;
    dev->dp[1].prop.prop_value.value = 0;
    EXPECT_FALSE(equal(1, "true"));
    EXPECT_FALSE(equal(2, "0"));
}

TEST_F(DpEquality, ValueComparesTheIntegerOfANumberOnly)
{
    dev->dp[1].pv_stat = PV_STAT_SENDING;
    dev->dp[1].prop.prop_value.value = 10;
    EXPECT_TRUE(equal(2, "10"));
    EXPECT_FALSE(equal(2, "11"));
    EXPECT_FALSE(equal(2, "\"10\""));
}

TEST_F(DpEquality, StringComparesTextsByteForByte)
{
    dev->dp[2].pv_stat = PV_STAT_CLOUD;
    std::strcpy(dev->dp[2].prop.prop_str.value, "abc");
    EXPECT_TRUE(equal(3, "\"abc\""));
    EXPECT_FALSE(equal(3, "\"abcd\""));
    EXPECT_FALSE(equal(3, "\"ABC\""));
    EXPECT_FALSE(equal(3, "3"));
}

TEST_F(DpEquality, StringWithoutStoredTextIsNeverEqual)
{
    dev->dp[5].pv_stat = PV_STAT_CLOUD;
    EXPECT_FALSE(equal(6, "\"\""));
}

TEST_F(DpEquality, EnumComparesTheIndexOfTheNamedValue)
{
    dev->dp[3].pv_stat = PV_STAT_CLOUD;
    dev->dp[3].prop.prop_enum.value = 2;
    EXPECT_TRUE(equal(4, "\"high\""));
    EXPECT_FALSE(equal(4, "\"low\""));
    EXPECT_FALSE(equal(4, "\"HIGH\"")) << "an unknown name yields no index";
    EXPECT_FALSE(equal(4, "2"));
}

TEST_F(DpEquality, EnumIndexIsTheFirstExactMatch)
{
    EXPECT_EQ(0, sf::enum_index(&dev->dp[3], "low"));
    EXPECT_EQ(2, sf::enum_index(&dev->dp[3], "high"));
    EXPECT_EQ(-1, sf::enum_index(&dev->dp[3], "hig"));
}

TEST_F(DpEquality, BitmapComparesTheBitsOfANumber)
{
    dev->dp[4].pv_stat = PV_STAT_CLOUD;
    dev->dp[4].prop.prop_bitmap.value = 5;
    EXPECT_TRUE(equal(5, "5"));
    EXPECT_FALSE(equal(5, "4"));
    EXPECT_FALSE(equal(5, "true"));
}

TEST_F(DpEquality, InvalidPropertyTypeIsNeverEqual)
{
    dev->dp[1].pv_stat = PV_STAT_CLOUD;
    dev->dp[1].dp_desc.prop_tp = 5;
    dev->dp[1].prop.prop_value.value = 1;
    EXPECT_FALSE(equal(2, "1"));
}

} // namespace
