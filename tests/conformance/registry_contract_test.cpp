/*
 * The gateway registry's contract (cloud_defs/gw_intf.h), the same for
 * every backend: lookups, the gateway's own node, the DP tables, the list
 * as a walker without dev_mutex sees it, the network state as the cloud
 * connection comes and goes, and membership updates.
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
 */
TEST_F(RegistryContract, TheGatewaysOwnNodeStartsOnlineReportedAndNeverTimesOut)
{
    const DEV_CNTL_N_S *own = get_gw_dev_cntl();
    ASSERT_NE(nullptr, own);
    EXPECT_EQ(TRUE, own->dev_if.bind);
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

/* The host has a network, but the cloud counts as reachable only once the MQTT client is connected. */
TEST_F(RegistryContract, TheNetworkStartsAtLanUntilTheCloudConnectionComesUp)
{
    EXPECT_EQ(GW_NW_LAN, get_gw_nw_status()) << conformance::backend_name();
}

TEST_F(RegistryContract, TheNetworkIsTheCloudExactlyWhileConnected)
{
    conformance::set_cloud_connected(true);
    EXPECT_EQ(GW_NW_CLOUD, get_gw_nw_status()) << conformance::backend_name();
    conformance::set_cloud_connected(false);
    EXPECT_LT(get_gw_nw_status(), GW_NW_CLOUD) << conformance::backend_name();
    EXPECT_NE(GW_NW_NONE, get_gw_nw_status()) << conformance::backend_name(); /* the host's network stays */
    conformance::set_cloud_connected(true);
    EXPECT_EQ(GW_NW_CLOUD, get_gw_nw_status()) << conformance::backend_name();
}

TEST_F(RegistryContract, GroupAndSceneUpdatesOfAKnownDeviceSucceed)
{
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_ADD, "sub01", "5"));
    EXPECT_EQ(RC_OK, dev_update_scene_info(SCE_ADD, "sub01", "5", "01"));
    EXPECT_EQ(RC_OK, dev_update_scene_info(SCE_DEL, "sub01", "5", "01"));
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_DEL, "sub01", "5"));
}

TEST_F(RegistryContract, MembershipsAreKeptInTheDevicesTablesInOrder)
{
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_ADD, "sub01", "5"));
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_ADD, "sub01", "12345"));
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_ADD, "sub01", "7"));
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_ADD, "sub01", "5")); /* already a member */
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_DEL, "sub01", "12345"));
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_DEL, "sub01", "9")); /* never was one */
    EXPECT_EQ(RC_OK, dev_update_scene_info(SCE_ADD, "sub01", "5", "01"));
    EXPECT_EQ(RC_OK, dev_update_scene_info(SCE_ADD, "sub01", "6", "01"));
    EXPECT_EQ(RC_OK, dev_update_scene_info(SCE_DEL, "sub01", "5", "01"));

    const DEV_CNTL_N_S *sub = get_dev_cntl("sub01");
    ASSERT_EQ(2, sub->attr.grp->cnt) << conformance::backend_name();
    EXPECT_STREQ("5", sub->attr.grp->g_rec[0].gid);
    EXPECT_STREQ("7", sub->attr.grp->g_rec[1].gid);
    ASSERT_EQ(1, sub->attr.scene->cnt) << conformance::backend_name();
    EXPECT_STREQ("01", sub->attr.scene->s_rec[0].s_id);
    EXPECT_STREQ("6", sub->attr.scene->s_rec[0].g_id);
    EXPECT_EQ(0, get_dev_cntl("sub02")->attr.grp->cnt);
}

TEST_F(RegistryContract, UpdatesOfADeviceTheRegistryDoesNotHoldAreRefused)
{
    EXPECT_EQ(RC_DEV_NOT_FOUND, dev_update_grp_info(GRP_ADD, "sub03", "5")) << conformance::backend_name();
    EXPECT_EQ(RC_DEV_NOT_FOUND, dev_update_grp_info(GRP_DEL, "sub03", "5")) << conformance::backend_name();
    EXPECT_EQ(RC_DEV_NOT_FOUND, dev_update_scene_info(SCE_ADD, "sub03", "5", "01")) << conformance::backend_name();
    EXPECT_EQ(RC_DEV_NOT_FOUND, dev_update_scene_info(SCE_DEL, "sub03", "5", "01")) << conformance::backend_name();
}

TEST_F(RegistryContract, UpdatesWithAnUnknownActionOrAnIdOfTheWrongLengthAreRefused)
{
    EXPECT_EQ(RC_BAD_PARAM, dev_update_grp_info(2, "sub01", "5"));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_grp_info(GRP_ADD, nullptr, "5"));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_grp_info(GRP_ADD, "sub01", nullptr));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_grp_info(GRP_ADD, "sub01", ""));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_grp_info(GRP_ADD, "sub01", "123456"));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_scene_info(SCE_EXEC, "sub01", "5", "01"));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_scene_info(SCE_ADD, "sub01", "5", "0123"));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_scene_info(SCE_ADD, "sub01", "123456", "01"));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_scene_info(SCE_ADD, "sub01", "5", nullptr));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_scene_info(SCE_ADD, nullptr, "5", "01"));
    EXPECT_EQ(0, get_dev_cntl("sub01")->attr.grp->cnt) << conformance::backend_name();
    EXPECT_EQ(0, get_dev_cntl("sub01")->attr.scene->cnt) << conformance::backend_name();
}

TEST_F(RegistryContract, AFullTableRefusesANewMemberButNotAnExistingOne)
{
    for (int i = 0; i < GRP_SCENE_MAX; ++i) {
        const std::string id = std::to_string(i);
        ASSERT_EQ(RC_OK, dev_update_grp_info(GRP_ADD, "sub01", id.c_str())) << i;
        ASSERT_EQ(RC_OK, dev_update_scene_info(SCE_ADD, "sub02", "1", id.c_str())) << i;
    }
    EXPECT_EQ(RC_MEMBERSHIP_FULL, dev_update_grp_info(GRP_ADD, "sub01", "99")) << conformance::backend_name();
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_ADD, "sub01", "7"));
    EXPECT_EQ(RC_MEMBERSHIP_FULL, dev_update_scene_info(SCE_ADD, "sub02", "2", "0")) << conformance::backend_name();
    EXPECT_EQ(RC_OK, dev_update_scene_info(SCE_ADD, "sub02", "1", "7"));
    /* a removal makes room again */
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_DEL, "sub01", "0"));
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_ADD, "sub01", "99"));
    EXPECT_EQ(GRP_SCENE_MAX, get_dev_cntl("sub01")->attr.grp->cnt);
}

} // namespace
