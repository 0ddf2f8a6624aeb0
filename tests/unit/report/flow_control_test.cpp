#include <gtest/gtest.h>

#include "report_fixture.h"

using namespace fake::registry;

namespace {

class FlowControl : public SfStartedTest {
protected:
    DP_CNTL_S dp_with(USHORT_T cir_time, USHORT_T limit, USHORT_T items, TIME_S first)
    {
        DP_CNTL_S dp{};
        dp.dp_desc.dp_id = 7;
        dp.rept_cntl.cir_time = cir_time;
        dp.rept_cntl.cir_rept_item_lmt = limit;
        dp.rept_cntl.cir_rept_items = items;
        dp.rept_cntl.fir_rept_timestamp = first;
        return dp;
    }
};

TEST_F(FlowControl, ZeroCycleTimeNeverLimits)
{
    DP_CNTL_S dp = dp_with(0, 1, 100, 1000);
    EXPECT_EQ(FALSE, __check_dp_flow_ctl(&dp, 1000));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "__check_dp_flow_ctl",
                               "Not Flow Ctrl. DP ID:7 flow check:0  curr_t:1000 first_t:1000 send:100 lmt:1 "));
}

TEST_F(FlowControl, FullCycleHoldsTheDpBackAndSaysSo)
{
    DP_CNTL_S dp = dp_with(60, 2, 2, 1000);
    EXPECT_EQ(TRUE, __check_dp_flow_ctl(&dp, 1059));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__check_dp_flow_ctl",
                               "Flow Ctrl. DP ID:7 flow check:1  curr_t:1059 first_t:1000 send:2 lmt:2 "));
    EXPECT_EQ(2, dp.rept_cntl.cir_rept_items) << "the test never writes the counters";
    EXPECT_EQ(1000u, dp.rept_cntl.fir_rept_timestamp);
}

TEST_F(FlowControl, CycleEndsExactlyAfterCycleTime)
{
    DP_CNTL_S dp = dp_with(60, 2, 2, 1000);
    EXPECT_EQ(FALSE, __check_dp_flow_ctl(&dp, 1060));
}

TEST_F(FlowControl, ReportsBelowTheLimitPass)
{
    DP_CNTL_S dp = dp_with(60, 2, 1, 1000);
    EXPECT_EQ(FALSE, __check_dp_flow_ctl(&dp, 1001));
}

TEST_F(FlowControl, ClockGoingBackwardsEndsTheCycle)
{
    DP_CNTL_S dp = dp_with(60, 2, 2, 1000);
    EXPECT_EQ(FALSE, __check_dp_flow_ctl(&dp, 999));
}

TEST_F(FlowControl, CycleNeverOpenedCountsAsExpired)
{
    DP_CNTL_S dp = dp_with(60, 0, 0, 0);
    EXPECT_EQ(FALSE, __check_dp_flow_ctl(&dp, 1700000000));
}

TEST_F(FlowControl, LimitZeroActsAsLimitOne)
{
    DP_CNTL_S dp = dp_with(60, 0, 0, 0);
    EXPECT_EQ(FALSE, __check_dp_flow_ctl(&dp, 1700000000));
    __set_dp_flow_ctl(&dp, 1700000000);
    EXPECT_EQ(1, dp.rept_cntl.cir_rept_items);
    EXPECT_EQ(TRUE, __check_dp_flow_ctl(&dp, 1700000001));
}

TEST_F(FlowControl, ConfirmedReportInsideTheCycleIsCounted)
{
    DP_CNTL_S dp = dp_with(60, 2, 1, 1000);
    __set_dp_flow_ctl(&dp, 1010);
    EXPECT_EQ(2, dp.rept_cntl.cir_rept_items);
    EXPECT_EQ(1000u, dp.rept_cntl.fir_rept_timestamp);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "__set_dp_flow_ctl", "update flow check send cnt 2 dpID:7"));
}

TEST_F(FlowControl, ConfirmedReportAfterTheCycleOpensANewOne)
{
    DP_CNTL_S dp = dp_with(60, 2, 2, 1000);
    __set_dp_flow_ctl(&dp, 1060);
    EXPECT_EQ(1, dp.rept_cntl.cir_rept_items);
    EXPECT_EQ(1060u, dp.rept_cntl.fir_rept_timestamp);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "__set_dp_flow_ctl", "new flow check timezone.curr_t:1060 dpID:7"));
}

TEST_F(FlowControl, CountWrapsAtSixteenBits)
{
    DP_CNTL_S dp = dp_with(60, 2, 65535, 1000);
    __set_dp_flow_ctl(&dp, 1001);
    EXPECT_EQ(0, dp.rept_cntl.cir_rept_items);
}

TEST_F(FlowControl, ZeroCycleTimeOpensANewCycleOnEveryConfirmation)
{
    DP_CNTL_S dp = dp_with(0, 2, 5, 1000);
    __set_dp_flow_ctl(&dp, 1000);
    EXPECT_EQ(1, dp.rept_cntl.cir_rept_items);
}

/* cir_time 60, limit 2: confirmed reports at t and t+10 fill the cycle, t+59 is held back, t+60 opens a new one */
TEST_F(FlowControl, CycleOfSixtySecondsWithLimitTwoOnTheReportRoad)
{
    const TIME_T t = 1700000000;
    add_device("a1b2c3", {dp_value(2, 0, 100).flow(60, 2)});
    fake::clock::set_posix(t);
    ASSERT_EQ(RC_OK, sf_obj_dp_report_async("a1b2c3", "{\"2\":1}", FALSE));
    fake::mqtt::complete(0, RC_OK);
    EXPECT_EQ(1, dp("a1b2c3", 2)->rept_cntl.cir_rept_items);
    EXPECT_EQ(t, dp("a1b2c3", 2)->rept_cntl.fir_rept_timestamp);

    fake::clock::set_posix(t + 10);
    ASSERT_EQ(RC_OK, sf_obj_dp_report_async("a1b2c3", "{\"2\":2}", FALSE));
    fake::mqtt::complete(1, RC_OK);
    EXPECT_EQ(2, dp("a1b2c3", 2)->rept_cntl.cir_rept_items);

    fake::clock::set_posix(t + 59);
    fake::log::clear();
    EXPECT_EQ(RC_OK, sf_obj_dp_report_async("a1b2c3", "{\"2\":3}", FALSE));
    EXPECT_EQ(2u, fake::mqtt::dp_reports().size()) << "held back: nothing published";
    EXPECT_EQ(2, dp("a1b2c3", 2)->prop.prop_value.value) << "a held-back value is not stored";
    EXPECT_EQ(PV_STAT_CLOUD, dp("a1b2c3", 2)->pv_stat);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__check_dp_flow_ctl",
                               "Flow Ctrl. DP ID:2 flow check:1  curr_t:1700000059 first_t:1700000000 send:2 lmt:2 "));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__dp_verify_flowctl_update", "Need NOT Send"));

    fake::clock::set_posix(t + 60);
    ASSERT_EQ(RC_OK, sf_obj_dp_report_async("a1b2c3", "{\"2\":3}", FALSE));
    ASSERT_EQ(3u, fake::mqtt::dp_reports().size());
    EXPECT_EQ("{\"dps\":{\"2\":3},\"cid\":\"a1b2c3\"}", fake::mqtt::dp_reports()[2].text);
    fake::mqtt::complete(2, RC_OK);
    EXPECT_EQ(1, dp("a1b2c3", 2)->rept_cntl.cir_rept_items);
    EXPECT_EQ(t + 60, dp("a1b2c3", 2)->rept_cntl.fir_rept_timestamp);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "__set_dp_flow_ctl",
                               "new flow check timezone.curr_t:1700000060 dpID:2"));
}

TEST_F(FlowControl, FailedPublicationsDoNotUseUpTheAllowance)
{
    add_device("a1b2c3", {dp_value(2, 0, 100).flow(60, 1)});
    ASSERT_EQ(RC_OK, sf_obj_dp_report_async("a1b2c3", "{\"2\":1}", FALSE));
    fake::mqtt::complete(0, -1);
    EXPECT_EQ(0, dp("a1b2c3", 2)->rept_cntl.cir_rept_items);
    ASSERT_EQ(RC_OK, sf_obj_dp_report_async("a1b2c3", "{\"2\":2}", FALSE));
    EXPECT_EQ(2u, fake::mqtt::dp_reports().size());
    fake::mqtt::complete(1, RC_OK);
}

} // namespace
