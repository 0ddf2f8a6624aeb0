#include <gtest/gtest.h>

#include "report_fixture.h"

using namespace fake::registry;
using report_test::pv;
using report_test::set_all_pv;

namespace {

class PvStat : public SfStartedTest {
protected:
    void SetUp() override
    {
        SfStartedTest::SetUp();
        gw_node = set_gateway("gw0001", {dp_bool(1), dp_value(2, 0, 9)});
        sub = add_device("a1b2c3", {dp_bool(1), dp_bool(2).flow(60, 5), dp_bool(3).mode(DP_MODE_WR)});
        set_all_pv(gw_node, PV_STAT_SENDING);
        set_all_pv(sub, PV_STAT_SENDING);
    }
    DEV_CNTL_N_S *gw_node = nullptr;
    DEV_CNTL_N_S *sub = nullptr;
};

TEST_F(PvStat, EnvelopeWithoutCidSetsTheGatewaysOwnDps)
{
    EXPECT_EQ(RC_OK, __sf_set_obj_dp_pv_stat("{\"dps\":{\"1\":true,\"2\":5},\"t\":1700000000}", PV_STAT_CLOUD, FALSE));
    EXPECT_EQ(PV_STAT_CLOUD, pv("gw0001", 1));
    EXPECT_EQ(PV_STAT_CLOUD, pv("gw0001", 2));
    EXPECT_EQ(PV_STAT_SENDING, pv("a1b2c3", 1));
    /* the line carries the device argument as a number: 0 for the gateway */
    EXPECT_EQ(2u, fake::log::count("DP ID 0 Set To 3"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "__dev_obj_dp_set_pv_stat", "DP ID 0 Set To 3"));
}

TEST_F(PvStat, EnvelopeWithCidSetsTheSubDevicesDps)
{
    EXPECT_EQ(RC_OK, __sf_set_obj_dp_pv_stat("{\"dps\":{\"1\":true},\"cid\":\"a1b2c3\"}", PV_STAT_LOCAL, FALSE));
    EXPECT_EQ(PV_STAT_LOCAL, pv("a1b2c3", 1));
    EXPECT_EQ(PV_STAT_SENDING, pv("gw0001", 1));
}

TEST_F(PvStat, EmptyDpsSucceedsAndChangesNothing)
{
    EXPECT_EQ(RC_OK, __sf_set_obj_dp_pv_stat("{\"dps\":{}}", PV_STAT_CLOUD, TRUE));
    EXPECT_EQ(PV_STAT_SENDING, pv("gw0001", 1));
}

TEST_F(PvStat, UnknownDpStopsTheWalkButTheResultIsStillOk)
{
    EXPECT_EQ(RC_OK, __sf_set_obj_dp_pv_stat("{\"dps\":{\"1\":true,\"99\":1,\"2\":false}}", PV_STAT_CLOUD, FALSE));
    EXPECT_EQ(PV_STAT_CLOUD, pv("gw0001", 1));
    EXPECT_EQ(PV_STAT_SENDING, pv("gw0001", 2));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__dev_obj_dp_set_pv_stat", "dp_cntl is null"));
}

TEST_F(PvStat, WriteOnlyDpKeepsItsState)
{
    EXPECT_EQ(RC_OK, __sf_set_obj_dp_pv_stat_by_dc("a1b2c3", "{\"3\":true,\"1\":true}", PV_STAT_CLOUD, TRUE));
    EXPECT_EQ(PV_STAT_SENDING, pv("a1b2c3", 3));
    EXPECT_EQ(0, dp("a1b2c3", 3)->rept_cntl.cir_rept_items);
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 1));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__dev_obj_dp_set_pv_stat", "DP ID 3 Skip"));
}

TEST_F(PvStat, ConfirmationOfAWokenPassiveDpHoldsItAgain)
{
    sub->attr.preprocess = TRUE;
    dp("a1b2c3", 1)->dp_desc.passive = PSV_RELEASED;
    __sf_set_obj_dp_pv_stat_by_dc("a1b2c3", "{\"1\":true}", PV_STAT_CLOUD, FALSE);
    EXPECT_EQ(PSV_HOLD, dp("a1b2c3", 1)->dp_desc.passive);
}

TEST_F(PvStat, OtherStatesOrNoPreprocessLeavePassiveAlone)
{
    sub->attr.preprocess = TRUE;
    dp("a1b2c3", 1)->dp_desc.passive = PSV_RELEASED;
    __sf_set_obj_dp_pv_stat_by_dc("a1b2c3", "{\"1\":true}", PV_STAT_LOCAL, FALSE);
    __sf_set_obj_dp_pv_stat_by_dc("a1b2c3", "{\"1\":true}", PV_STAT_SENDING, FALSE);
    EXPECT_EQ(PSV_RELEASED, dp("a1b2c3", 1)->dp_desc.passive);
    sub->attr.preprocess = FALSE;
    __sf_set_obj_dp_pv_stat_by_dc("a1b2c3", "{\"1\":true}", PV_STAT_CLOUD, FALSE);
    EXPECT_EQ(PSV_RELEASED, dp("a1b2c3", 1)->dp_desc.passive);
}

TEST_F(PvStat, FlowControlCountedOnlyWhenAsked)
{
    fake::clock::set_posix(1700000100);
    __sf_set_obj_dp_pv_stat_by_dc("a1b2c3", "{\"2\":true}", PV_STAT_CLOUD, FALSE);
    EXPECT_EQ(0, dp("a1b2c3", 2)->rept_cntl.cir_rept_items);
    EXPECT_EQ(0u, dp("a1b2c3", 2)->rept_cntl.fir_rept_timestamp);
    __sf_set_obj_dp_pv_stat_by_dc("a1b2c3", "{\"2\":true}", PV_STAT_CLOUD, TRUE);
    EXPECT_EQ(1, dp("a1b2c3", 2)->rept_cntl.cir_rept_items);
    EXPECT_EQ(1700000100u, dp("a1b2c3", 2)->rept_cntl.fir_rept_timestamp);
}

TEST_F(PvStat, NullIdMeansTheGateway)
{
    EXPECT_EQ(RC_OK, __sf_set_obj_dp_pv_stat_by_dc(nullptr, "{\"2\":1}", PV_STAT_INVALID, FALSE));
    EXPECT_EQ(PV_STAT_INVALID, pv("gw0001", 2));
}

TEST_F(PvStat, UnknownDeviceIsSilentAndOk)
{
    fake::log::clear();
    EXPECT_EQ(RC_OK, __sf_set_obj_dp_pv_stat("{\"dps\":{\"1\":true},\"cid\":\"nosuch\"}", PV_STAT_CLOUD, FALSE));
    EXPECT_TRUE(fake::log::find("dp_cntl is null").empty());
    EXPECT_EQ(PV_STAT_SENDING, pv("gw0001", 1));
}

TEST_F(PvStat, MemberNameThatIsNotANumberStopsTheWalk)
{
    __sf_set_obj_dp_pv_stat_by_dc("a1b2c3", "{\"x\":1,\"1\":true}", PV_STAT_CLOUD, FALSE);
    EXPECT_EQ(PV_STAT_SENDING, pv("a1b2c3", 1));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__dev_obj_dp_set_pv_stat", "dp_cntl is null"));
}

TEST_F(PvStat, BadTextsAreRefused)
{
    EXPECT_EQ(RC_BAD_PARAM, __sf_set_obj_dp_pv_stat(nullptr, PV_STAT_CLOUD, FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_set_obj_dp_pv_stat", "Invalid Param"));
    EXPECT_EQ(RC_JSON_PARSE, __sf_set_obj_dp_pv_stat("{\"dps\":", PV_STAT_CLOUD, FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_set_obj_dp_pv_stat", "json parse fail {\"dps\":"));
    EXPECT_EQ(RC_FAIL, __sf_set_obj_dp_pv_stat("{\"DPS\":{\"1\":true}}", PV_STAT_CLOUD, FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_set_obj_dp_pv_stat", "json fail {\"DPS\":{\"1\":true}}"));
    EXPECT_EQ(RC_JSON_PARSE, __sf_set_obj_dp_pv_stat_by_dc("a1b2c3", "nope", PV_STAT_CLOUD, FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_set_obj_dp_pv_stat_by_dc", "json parse fail nope"));
    EXPECT_EQ(RC_JSON_PARSE, __sf_set_obj_dp_pv_stat_by_dc("a1b2c3", nullptr, PV_STAT_CLOUD, FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_set_obj_dp_pv_stat_by_dc", "json parse fail (null)"));
    EXPECT_EQ(PV_STAT_SENDING, pv("gw0001", 1));
    EXPECT_EQ(PV_STAT_SENDING, pv("a1b2c3", 1));
}

TEST_F(PvStat, StatesAreWrittenUnderDevMutexAfterParsing)
{
    const size_t before = fake::mutex::lock_count(gw()->dev_mutex);
    __sf_set_obj_dp_pv_stat("{\"dps\":{\"1\":true}}", PV_STAT_CLOUD, FALSE);
    __sf_set_obj_dp_pv_stat("broken", PV_STAT_CLOUD, FALSE);
    EXPECT_EQ(before + 1, fake::mutex::lock_count(gw()->dev_mutex)) << "no lock for a text that does not parse";
    EXPECT_FALSE(fake::mutex::held(gw()->dev_mutex));
}

TEST_F(PvStat, AllocationFailuresChangeNothingAndLeakNothing)
{
    for (size_t nth = 1;; ++nth) {
        set_all_pv(sub, PV_STAT_SENDING);
        fake::mem::fail_nth(nth);
        const OPERATE_RET code = __sf_set_obj_dp_pv_stat("{\"dps\":{\"1\":true},\"cid\":\"a1b2c3\"}", PV_STAT_CLOUD, FALSE);
        const bool fired = fake::mem::failure_fired();
        fake::mem::fail_nth(0);
        EXPECT_EQ(0u, fake::mem::live_blocks());
        if (!fired) {
            EXPECT_EQ(RC_OK, code);
            EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 1));
            break;
        }
        EXPECT_EQ(RC_JSON_PARSE, code) << nth;
        EXPECT_EQ(PV_STAT_SENDING, pv("a1b2c3", 1)) << nth;
    }
}

} // namespace
