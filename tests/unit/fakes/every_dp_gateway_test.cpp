#include <gtest/gtest.h>

#include <cstring>

#include "tests/fakes/every_dp_gateway.h"
#include "tests/fakes/sf_fixture.h"

using namespace fake::every_dp;

namespace {

class EveryDpGateway : public SfFakesTest {
protected:
    void SetUp() override
    {
        SfFakesTest::SetUp();
        build();
    }
};

TEST_F(EveryDpGateway, HoldsTheGatewayABoundAndAnUnboundSubDevice)
{
    ASSERT_NE(nullptr, get_gw_dev_cntl());
    EXPECT_STREQ(GW_ID, get_gw_dev_cntl()->dev_if.id);
    ASSERT_NE(nullptr, fake::registry::device(SUB_ID));
    EXPECT_EQ(TRUE, fake::registry::device(SUB_ID)->attr.preprocess);
    ASSERT_NE(nullptr, fake::registry::device(UNBOUND_ID));
    EXPECT_EQ(FALSE, fake::registry::device(UNBOUND_ID)->dev_if.bind);
    EXPECT_EQ(13, fake::registry::device(SUB_ID)->dp_num);
}

TEST_F(EveryDpGateway, KnowsItsValuesAsConfirmed)
{
    EXPECT_EQ(PV_STAT_CLOUD, fake::registry::dp(SUB_ID, DP_BOOL)->pv_stat);
    EXPECT_EQ(TRUE, fake::registry::dp(SUB_ID, DP_BOOL)->prop.prop_bool.value);
    EXPECT_STREQ("abc", fake::registry::dp(SUB_ID, DP_STR)->prop.prop_str.value);
    EXPECT_EQ(1, fake::registry::dp(SUB_ID, DP_ENUM)->prop.prop_enum.value);
    EXPECT_EQ(PV_STAT_LOCAL, fake::registry::dp(SUB_ID, DP_VALUE)->pv_stat); /* one for the DP sync */
    EXPECT_EQ(PV_STAT_INVALID, fake::registry::dp(SUB_ID, DP_RAW)->pv_stat);
    EXPECT_EQ(nullptr, fake::registry::dp(SUB_ID, DP_STR_UNSET)->prop.prop_str.value);
}

TEST_F(EveryDpGateway, SnapshotPutsValuesTextsAndStatesBack)
{
    Snapshot snapshot;
    snapshot.take();
    DP_CNTL_S *str = fake::registry::dp(SUB_ID, DP_STR);
    std::strcpy(str->prop.prop_str.value, "changed");
    str->pv_stat = PV_STAT_SENDING;
    fake::registry::dp(SUB_ID, DP_PASSIVE)->dp_desc.passive = PSV_RELEASED;
    fake::registry::device(SUB_ID)->attr.dosm = DOSM_REPORTED;

    snapshot.restore();

    EXPECT_STREQ("abc", str->prop.prop_str.value);
    EXPECT_EQ(PV_STAT_CLOUD, str->pv_stat);
    EXPECT_EQ(PSV_HOLD, fake::registry::dp(SUB_ID, DP_PASSIVE)->dp_desc.passive);
    EXPECT_EQ(DOSM_PENDING, fake::registry::device(SUB_ID)->attr.dosm);
}

TEST_F(EveryDpGateway, ForgettingHistoryKeepsTheWorkingState)
{
    ASSERT_EQ(RC_OK, smart_frame_init());
    fake::lan::set_result(RC_OK);
    ASSERT_EQ(RC_OK, sf_multi_dp_report_async("{}", 2, 5, nullptr));
    fake::mqtt::complete_all(RC_OK);
    fake::lan::release_held();
    ASSERT_EQ(1u, fake::mqtt::dp_reports().size());

    fake::forget_history();

    EXPECT_TRUE(fake::mqtt::dp_reports().empty());
    EXPECT_TRUE(fake::lan::reports().empty());
    EXPECT_TRUE(fake::log::entries().empty());
    /* handlers and results stay: the next report goes out and the LAN still takes it */
    ASSERT_EQ(RC_OK, sf_multi_dp_report_async("{}", 2, 5, nullptr));
    EXPECT_EQ(RC_OK, fake::lan::reports().back().result);
    fake::mqtt::complete_all(RC_OK);
}

TEST_F(EveryDpGateway, ForgettingHistoryWithAPublicationPendingIsAContractViolation)
{
    ASSERT_EQ(RC_OK, smart_frame_init());
    ASSERT_EQ(RC_OK, sf_multi_dp_report_async("{}", 2, 5, nullptr));

    fake::forget_history();

    EXPECT_EQ(1u, fake::mqtt::dp_reports().size());
    ASSERT_EQ(1u, fake::contract::violations().size());
    fake::contract::clear_violations();
    fake::mqtt::complete_all(RC_OK);
}

} // namespace
