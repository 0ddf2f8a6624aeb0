#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "gateway/gateway_tunables.h"
#include "gateway/registry/gw_registry.h"

namespace {

/* Two devices of one schema and a third of another: what the nodes share and what each keeps alone. */
constexpr const char *kTwins = R"({
  "gateway": { "id": "gw0001", "local_key": "0123456789abcdef", "dps": [ { "id": 1, "name": "led", "prop": "bool" } ] },
  "devices": [
    { "id": "twin1", "dps": [ { "id": 1, "name": "label", "prop": "str", "max_len": 8 },
                              { "id": 2, "name": "mode", "prop": "enum", "range": ["low", "high"] } ] },
    { "id": "twin2", "dps": [ { "id": 1, "name": "label", "prop": "str", "max_len": 8 },
                              { "id": 2, "name": "mode", "prop": "enum", "range": ["low", "high"] } ] },
    { "id": "other", "dps": [ { "id": 1, "name": "title", "prop": "str", "max_len": 4 },
                              { "id": 2, "name": "mode", "prop": "enum", "range": ["off", "on", "auto"] } ] }
  ]
})";

class RegistryNode : public ::testing::Test {
protected:
    void SetUp() override
    {
        gw_registry::LoadError error;
        ASSERT_TRUE(gw_registry::load_text(kTwins, "gw.json", &error)) << error.text();
    }
    void TearDown() override
    {
        gw_registry::unload();
        gw_registry::set_grace_period(std::chrono::milliseconds(SF_REGISTRY_RETIRE_GRACE_MS));
    }
};

TEST_F(RegistryNode, DevicesOfOneSchemaShareTheirEnumNamesAndOthersKeepTheirOwn)
{
    const DEV_CNTL_N_S *twin1 = get_dev_cntl("twin1");
    const DEV_CNTL_N_S *twin2 = get_dev_cntl("twin2");
    const DEV_CNTL_N_S *other = get_dev_cntl("other");
    ASSERT_TRUE(twin1 != nullptr && twin2 != nullptr && other != nullptr);
    EXPECT_EQ(twin1->dp[1].prop.prop_enum.pp_enum, twin2->dp[1].prop.prop_enum.pp_enum);
    EXPECT_NE(twin1->dp[1].prop.prop_enum.pp_enum, other->dp[1].prop.prop_enum.pp_enum);
    ASSERT_EQ(2, twin2->dp[1].prop.prop_enum.cnt);
    EXPECT_STREQ("low", twin2->dp[1].prop.prop_enum.pp_enum[0]);
    EXPECT_STREQ("high", twin2->dp[1].prop.prop_enum.pp_enum[1]);
    ASSERT_EQ(3, other->dp[1].prop.prop_enum.cnt);
    EXPECT_STREQ("auto", other->dp[1].prop.prop_enum.pp_enum[2]);
}

TEST_F(RegistryNode, EveryDeviceKeepsItsOwnZeroedStringBufferOfItsLength)
{
    DEV_CNTL_N_S *twin1 = get_dev_cntl("twin1");
    DEV_CNTL_N_S *twin2 = get_dev_cntl("twin2");
    ASSERT_TRUE(twin1 != nullptr && twin2 != nullptr);
    CHAR_T *one = twin1->dp[0].prop.prop_str.value;
    CHAR_T *two = twin2->dp[0].prop.prop_str.value;
    ASSERT_TRUE(one != nullptr && two != nullptr);
    EXPECT_NE(one, two);
    EXPECT_EQ(8, twin1->dp[0].prop.prop_str.max_len);
    EXPECT_EQ(std::string(9, '\0'), std::string(one, 9));
    std::memcpy(one, "12345678", 9); /* the whole buffer: max_len characters and the terminator */
    EXPECT_STREQ("", two);
    EXPECT_STREQ("12345678", twin1->dp[0].prop.prop_str.value);
}

TEST_F(RegistryNode, DpNamesAreFoundPerDeviceThroughTheSharedTables)
{
    EXPECT_EQ("label", gw_registry::dp_name("twin1", 1));
    EXPECT_EQ("mode", gw_registry::dp_name("twin2", 2));
    EXPECT_EQ("title", gw_registry::dp_name("other", 1));
    EXPECT_EQ("", gw_registry::dp_name("other", 3));
}

TEST_F(RegistryNode, AFirstMembershipGivesTheDeviceItsOwnTableAndLeavesTheOthersEmpty)
{
    const DEV_CNTL_N_S *twin1 = get_dev_cntl("twin1");
    const DEV_CNTL_N_S *twin2 = get_dev_cntl("twin2");
    ASSERT_TRUE(twin1 != nullptr && twin2 != nullptr);
    EXPECT_EQ(twin1->attr.grp, twin2->attr.grp); /* both without groups: the shared empty record */
    ASSERT_EQ(RC_OK, dev_update_grp_info(GRP_ADD, "twin1", "7"));
    ASSERT_EQ(RC_OK, dev_update_scene_info(SCE_ADD, "twin1", "7", "01"));
    EXPECT_NE(twin1->attr.grp, twin2->attr.grp);
    EXPECT_NE(twin1->attr.scene, twin2->attr.scene);
    EXPECT_EQ(1, twin1->attr.grp->cnt);
    EXPECT_EQ(1, twin1->attr.scene->cnt);
    EXPECT_EQ(0, twin2->attr.grp->cnt);
    EXPECT_EQ(0, twin2->attr.scene->cnt);
    EXPECT_EQ(0, get_dev_cntl("other")->attr.grp->cnt);
}

TEST_F(RegistryNode, RemovingAMembershipADeviceNeverHadLeavesTheSharedRecordEmpty)
{
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_DEL, "twin2", "7"));
    EXPECT_EQ(RC_OK, dev_update_scene_info(SCE_DEL, "twin2", "7", "01"));
    EXPECT_EQ(0, get_dev_cntl("twin2")->attr.grp->cnt);
    EXPECT_EQ(0, get_dev_cntl("twin1")->attr.scene->cnt);
}

TEST_F(RegistryNode, AnEnumTableOutlivesTheRemovalOfOneOfTheDevicesSharingIt)
{
    gw_registry::set_grace_period(std::chrono::milliseconds(0));
    ASSERT_EQ(RC_OK, gw_registry::remove_device("twin1"));
    gw_registry::reclaim();
    ASSERT_EQ(0u, gw_registry::retired_count()); /* twin1's node is freed */
    const DEV_CNTL_N_S *twin2 = get_dev_cntl("twin2");
    ASSERT_NE(nullptr, twin2);
    EXPECT_STREQ("high", twin2->dp[1].prop.prop_enum.pp_enum[1]);
    EXPECT_EQ("mode", gw_registry::dp_name("twin2", 2));
}

} // namespace
