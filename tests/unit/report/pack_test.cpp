#include <gtest/gtest.h>

#include <cstring>

#include "report_fixture.h"

using namespace fake::registry;
using report_test::bools;
using report_test::set_all_pv;

namespace {

class Pack : public SfStartedTest {
protected:
    /* sf_pack_local_obj_dp_data; the text freed, "<null>" for none */
    std::string pack(DEV_CNTL_N_S *dev, UINT_T max_len, BOOL_T add_dev_id, BOOL_T *all, BOOL_T reset = FALSE)
    {
        CHAR_T *out = sf_pack_local_obj_dp_data(dev, max_len, add_dev_id, all, reset);
        std::string text = out != nullptr ? out : "<null>";
        Free(out);
        return text;
    }
};

TEST_F(Pack, PendingValuesOfEveryTypeInArrayOrder)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_bool(1), dp_value(2, -9, 99), dp_str(3, 8),
                                              dp_enum(4, {"low", "high"}), dp_bitmap(5, 7)});
    dev->dp[0].prop.prop_bool.value = 5; /* any non-zero is true */
    dev->dp[1].prop.prop_value.value = -3;
    std::strcpy(dev->dp[2].prop.prop_str.value, "abc");
    dev->dp[3].prop.prop_enum.value = 1;
    dev->dp[4].prop.prop_bitmap.value = 4000000000u;
    set_all_pv(dev, PV_STAT_LOCAL);
    dev->dp[2].pv_stat = PV_STAT_SENDING;
    BOOL_T all = 7;
    EXPECT_EQ("{\"1\":true,\"2\":-3,\"3\":\"abc\",\"4\":\"high\",\"5\":4000000000}", pack(dev, 300, FALSE, &all));
    EXPECT_EQ(TRUE, all);
    EXPECT_EQ(PV_STAT_LOCAL, dev->dp[0].pv_stat) << "packing never changes pv_stat";
    EXPECT_EQ(PV_STAT_SENDING, dev->dp[2].pv_stat);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__sf_pack_local_obj_data", "Pack local dp values reset_flow_ctl:0"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "__sf_pack_local_obj_data", "addDevId:0"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__sf_pack_local_obj_data",
                               "final pack:{\"1\":true,\"2\":-3,\"3\":\"abc\",\"4\":\"high\",\"5\":4000000000}"));
}

TEST_F(Pack, NothingPendingYieldsNullAndLeavesTheFlag)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", bools(3));
    dev->dp[0].pv_stat = PV_STAT_CLOUD;
    dev->dp[1].pv_stat = PV_STAT_INVALID;
    dev->dp[2].pv_stat = PV_STAT_CLOUD;
    BOOL_T all = 7;
    EXPECT_EQ("<null>", pack(dev, 300, FALSE, &all));
    EXPECT_EQ(7, all);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__sf_pack_local_obj_data", "Nothing To Pack"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "__sf_pack_local_obj_data", "Skip DP ID 2"));
}

TEST_F(Pack, FortyPendingBooleansStopAtTheThirtiethWithBudgetThreeHundred)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", bools(40));
    set_all_pv(dev, PV_STAT_LOCAL);
    BOOL_T all = TRUE;
    EXPECT_EQ("{" + report_test::false_members(1, 30) + "}", pack(dev, 300, FALSE, &all));
    EXPECT_EQ(FALSE, all);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__sf_pack_local_obj_data", "reach MaxLen 300 300"));
}

TEST_F(Pack, LongStringIsPackedAloneAndStopsTheWalk)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_str(1, 400), dp_bool(2)});
    std::memset(dev->dp[0].prop.prop_str.value, 'x', 400);
    set_all_pv(dev, PV_STAT_SENDING);
    BOOL_T all = TRUE;
    EXPECT_EQ("{\"1\":\"" + std::string(400, 'x') + "\"}", pack(dev, 300, FALSE, &all));
    EXPECT_EQ(FALSE, all);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__sf_pack_local_obj_data", "reach MaxLen 410 300"));
}

TEST_F(Pack, BudgetReachedOnTheLastDpStillReportsNotAllPacked)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", bools(2));
    set_all_pv(dev, PV_STAT_LOCAL);
    BOOL_T all = TRUE;
    EXPECT_EQ("{" + report_test::false_members(1, 2) + "}", pack(dev, 20, FALSE, &all));
    EXPECT_EQ(FALSE, all);
}

TEST_F(Pack, HeldPassiveDpIsSkippedAndReleasedOneIsPacked)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_bool(1).passive(PSV_HOLD), dp_bool(2).passive(PSV_RELEASED)});
    dev->attr.preprocess = TRUE;
    set_all_pv(dev, PV_STAT_LOCAL);
    dev->dp[1].prop.prop_bool.value = TRUE;
    EXPECT_EQ("{\"2\":true}", pack(dev, 300, FALSE, nullptr));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "__sf_pack_local_obj_data", "Skip DP ID 1"));
    dev->attr.preprocess = FALSE;
    EXPECT_EQ("{\"1\":false,\"2\":true}", pack(dev, 300, FALSE, nullptr));
}

TEST_F(Pack, WriteOnlyRawFileAndStatisticDpsAreSkipped)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_bool(1).mode(DP_MODE_WR), dp_raw(2), dp_file(3), dp_bool(4).stat(1),
                                              dp_value(5, 0, 9)});
    set_all_pv(dev, PV_STAT_LOCAL);
    EXPECT_EQ("{\"5\":0}", pack(dev, 300, FALSE, nullptr));
    for (int id : {1, 2, 3, 4}) {
        EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "__sf_pack_local_obj_data", "Skip DP ID " + std::to_string(id)));
    }
}

TEST_F(Pack, EnumIsPackedAsTheTextOfItsIndex)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_enum(4, {"low", "mid", "high"})});
    dev->dp[0].prop.prop_enum.value = 2;
    dev->dp[0].pv_stat = PV_STAT_LOCAL;
    EXPECT_EQ("{\"4\":\"high\"}", pack(dev, 300, FALSE, nullptr));
}

TEST_F(Pack, InvalidPropertyTypeAddsNothing)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_bool(1).prop_tp(5), dp_bool(2)});
    set_all_pv(dev, PV_STAT_LOCAL);
    EXPECT_EQ("{\"2\":false}", pack(dev, 300, FALSE, nullptr));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_pack_local_obj_data", "unsupported dp type"));
    dev->dp[1].pv_stat = PV_STAT_CLOUD;
    EXPECT_EQ("<null>", pack(dev, 300, FALSE, nullptr));
}

TEST_F(Pack, ValuesWithoutTextAreSkippedWithAnError)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_str(1, 8).no_str_buffer(), dp_enum(2, {"a"}), dp_bool(3)});
    dev->dp[1].prop.prop_enum.value = 1;
    set_all_pv(dev, PV_STAT_LOCAL);
    EXPECT_EQ("{\"3\":false}", pack(dev, 300, FALSE, nullptr));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_pack_local_obj_data", "DP ID 1 no value to pack"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_pack_local_obj_data", "DP ID 2 no value to pack"));
}

TEST_F(Pack, ResetClearsTheReportCountOfPackedDpsOnly)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_bool(1).flow(60, 2), dp_bool(2).flow(60, 2)});
    dev->dp[0].rept_cntl.cir_rept_items = 2;
    dev->dp[0].pv_stat = PV_STAT_LOCAL;
    dev->dp[1].rept_cntl.cir_rept_items = 2;
    dev->dp[1].pv_stat = PV_STAT_CLOUD;
    pack(dev, 300, FALSE, nullptr, FALSE);
    EXPECT_EQ(2, dev->dp[0].rept_cntl.cir_rept_items);
    pack(dev, 300, FALSE, nullptr, TRUE);
    EXPECT_EQ(0, dev->dp[0].rept_cntl.cir_rept_items);
    EXPECT_EQ(2, dev->dp[1].rept_cntl.cir_rept_items);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__sf_pack_local_obj_data", "Pack local dp values reset_flow_ctl:1"));
}

TEST_F(Pack, WithDeviceIdTheObjectIsWrappedInTheEnvelope)
{
    DEV_CNTL_N_S *gw_node = set_gateway("gw0001", {dp_bool(1)});
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_bool(1)});
    gw_node->dp[0].pv_stat = PV_STAT_LOCAL;
    dev->dp[0].pv_stat = PV_STAT_LOCAL;
    EXPECT_EQ("{\"dps\":{\"1\":false},\"cid\":\"a1b2c3\"}", pack(dev, 300, TRUE, nullptr));
    EXPECT_EQ("{\"dps\":{\"1\":false}}", pack(gw_node, 300, TRUE, nullptr));
    EXPECT_EQ("{\"1\":false}", pack(dev, 300, 2, nullptr)) << "only 1 asks for the envelope";
}

TEST_F(Pack, PackingHoldsDevMutex)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", bools(1));
    const size_t before = fake::mutex::lock_count(gw()->dev_mutex);
    pack(dev, 300, FALSE, nullptr);
    EXPECT_EQ(before + 1, fake::mutex::lock_count(gw()->dev_mutex));
    EXPECT_FALSE(fake::mutex::held(gw()->dev_mutex));
}

TEST_F(Pack, NullDeviceIsRefused)
{
    EXPECT_EQ("<null>", pack(nullptr, 300, FALSE, nullptr));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_pack_local_obj_data", "Invalid Param"));
}

TEST_F(Pack, AllocationFailuresYieldNullAndLeakNothing)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_bool(1), dp_str(2, 8), dp_enum(3, {"a", "b"})});
    set_all_pv(dev, PV_STAT_LOCAL);
    for (size_t nth = 1;; ++nth) {
        fake::mem::fail_nth(nth);
        BOOL_T all = 7;
        CHAR_T *out = sf_pack_local_obj_dp_data(dev, 300, TRUE, &all, TRUE);
        const bool fired = fake::mem::failure_fired();
        fake::mem::fail_nth(0);
        const std::string text = out != nullptr ? out : "<null>";
        Free(out);
        EXPECT_EQ(0u, fake::mem::live_blocks()) << nth;
        if (!fired) {
            EXPECT_EQ("{\"dps\":{\"1\":false,\"2\":\"\",\"3\":\"a\"},\"cid\":\"a1b2c3\"}", text);
            break;
        }
        EXPECT_EQ("<null>", text) << nth;
    }
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_pack_local_obj_data", "cr json err"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_pack_local_obj_data", "Json Print fail"));
}

} // namespace
