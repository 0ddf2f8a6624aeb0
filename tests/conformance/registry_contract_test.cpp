/*
 * The gateway registry's contract (cloud_defs/gw_intf.h), the same for
 * every backend: lookups, the gateway's own node, the DP tables, the list
 * as a walker without dev_mutex sees it, and membership updates.
 */
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "backend.h"
#include "cloud_defs/gw_intf.h"
#include "services/uni_mutex.h"

namespace {

class RegistryContract : public ::testing::Test {
protected:
    void SetUp() override { conformance::load_gateway("gw0001", {"sub01", "sub02"}); }
    void TearDown() override { conformance::tear_down(); }
};

TEST_F(RegistryContract, TheGatewayRecordNamesTheGatewayAndHasItsLock)
{
    GW_CNTL_S *gw = get_gw_cntl();
    ASSERT_NE(nullptr, gw) << conformance::backend_name();
    EXPECT_STREQ("gw0001", gw->gw_if.id);
    EXPECT_NE(nullptr, gw->dev_mutex);
    EXPECT_EQ(gw, get_gw_cntl());
}

TEST_F(RegistryContract, LookupsFindEachDeviceByItsExactIdAndNothingElse)
{
    DEV_CNTL_N_S *sub = get_dev_cntl("sub01");
    ASSERT_NE(nullptr, sub);
    EXPECT_STREQ("sub01", sub->dev_if.id);
    EXPECT_EQ(nullptr, get_dev_cntl("sub03"));
    EXPECT_EQ(nullptr, get_dev_cntl("sub0"));
    EXPECT_EQ(nullptr, get_dev_cntl(nullptr));
    MutexLock(get_gw_cntl()->dev_mutex);
    EXPECT_EQ(sub, get_dev_cntl_unlock("sub01"));
    EXPECT_EQ(nullptr, get_dev_cntl_unlock("sub03"));
    MutexUnLock(get_gw_cntl()->dev_mutex);
}

TEST_F(RegistryContract, TheGatewaysOwnNodeHeadsTheListAndIsFoundByTheGatewayId)
{
    DEV_CNTL_N_S *own = get_gw_dev_cntl();
    ASSERT_NE(nullptr, own);
    EXPECT_STREQ("gw0001", own->dev_if.id);
    EXPECT_EQ(own, get_gw_cntl()->dev);
    EXPECT_EQ(own, get_dev_cntl("gw0001"));
}

/*
 * The gateway is no sub-device: presence batches and heartbeat passes must
 * leave it alone, so it starts online and reported and never times out.
 * The fakes differ, as documented in backend.h; both are pinned here.
 */
TEST_F(RegistryContract, TheGatewaysOwnNodeStartsOnlineReportedAndNeverTimesOut)
{
    const DEV_CNTL_N_S *own = get_gw_dev_cntl();
    ASSERT_NE(nullptr, own);
    EXPECT_EQ(TRUE, own->dev_if.bind);
    if (conformance::gateway_node_is_a_plain_device()) {
        EXPECT_EQ(DOS_OFFLINE, own->attr.stat) << conformance::backend_name();
        EXPECT_EQ(DOSM_PENDING, own->attr.dosm) << conformance::backend_name();
        EXPECT_EQ(0u, own->attr.hb_timeout_time) << conformance::backend_name();
        return;
    }
    EXPECT_EQ(DOS_ONLINE, own->attr.stat) << conformance::backend_name();
    EXPECT_EQ(DOSM_REPORTED, own->attr.dosm) << conformance::backend_name();
    EXPECT_EQ(0xFFFFFFFFu, own->attr.hb_timeout_time) << conformance::backend_name();
}

TEST_F(RegistryContract, ASubDeviceStartsOfflineAndPendingWithNoHeartbeatSettings)
{
    const DEV_CNTL_N_S *sub = get_dev_cntl("sub02");
    ASSERT_NE(nullptr, sub);
    EXPECT_EQ(DOS_OFFLINE, sub->attr.stat);
    EXPECT_EQ(DOSM_PENDING, sub->attr.dosm);
    EXPECT_EQ(0u, sub->attr.hb_timeout_time);
    EXPECT_EQ(0u, sub->attr.last_ol_time);
    EXPECT_EQ(0, sub->dev_delete);
    EXPECT_EQ(TRUE, sub->dev_if.bind);
}

TEST_F(RegistryContract, AWalkWithAcquireLoadsSeesTheGatewayThenTheDevicesInOrder)
{
    std::vector<std::string> ids;
    for (DEV_CNTL_N_S *dev = __atomic_load_n(&get_gw_cntl()->dev, __ATOMIC_ACQUIRE); dev != nullptr;
         dev = __atomic_load_n(&dev->next, __ATOMIC_ACQUIRE)) {
        EXPECT_EQ(0, __atomic_load_n(&dev->dev_delete, __ATOMIC_ACQUIRE));
        ids.push_back(dev->dev_if.id);
    }
    EXPECT_EQ((std::vector<std::string>{"gw0001", "sub01", "sub02"}), ids);
    EXPECT_EQ(3u, get_gw_cntl()->dev_num) << conformance::backend_name();
}

TEST_F(RegistryContract, DpTablesHoldTheSchemaWithoutAValue)
{
    DP_CNTL_S *dp = get_dev_dp_cntl("sub01", 2);
    ASSERT_NE(nullptr, dp);
    EXPECT_EQ(2, dp->dp_desc.dp_id);
    EXPECT_EQ(DP_TYPE_OBJ, dp->dp_desc.type);
    EXPECT_EQ(PROP_BOOL, dp->dp_desc.prop_tp);
    EXPECT_EQ(PV_STAT_INVALID, dp->pv_stat);
    const DEV_CNTL_N_S *sub = get_dev_cntl("sub01");
    ASSERT_EQ(2, sub->dp_num);
    EXPECT_EQ(&sub->dp[1], dp);
    EXPECT_NE(nullptr, get_dev_dp_cntl("gw0001", 1));
    EXPECT_EQ(nullptr, get_dev_dp_cntl("sub01", 3));
    EXPECT_EQ(nullptr, get_dev_dp_cntl("sub03", 1));
}

TEST_F(RegistryContract, TheNetworkStateIsOneOfTheThreeStates)
{
    const GW_BASE_NW_STAT_T status = get_gw_nw_status();
    EXPECT_LE(status, GW_NW_CLOUD);
}

TEST_F(RegistryContract, GroupAndSceneUpdatesOfAKnownDeviceSucceed)
{
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_ADD, "sub01", "5"));
    EXPECT_EQ(RC_OK, dev_update_scene_info(SCE_ADD, "sub01", "5", "01"));
    EXPECT_EQ(RC_OK, dev_update_scene_info(SCE_DEL, "sub01", "5", "01"));
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_DEL, "sub01", "5"));
}

} // namespace
