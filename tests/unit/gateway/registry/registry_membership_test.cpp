#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "gateway/registry/gw_registry.h"

namespace {

using Groups = std::vector<std::string>;
using Scenes = std::vector<std::pair<std::string, std::string>>;

class RegistryMembership : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(gw_registry::load_text(R"({"gateway":{"id":"gw"},"devices":[{"id":"a"},{"id":"b"}]})", "gw.json",
                                           nullptr));
    }
    void TearDown() override { gw_registry::unload(); }
};

TEST_F(RegistryMembership, GroupsAreAddedInOrderAndAnExistingOneIsIdempotent)
{
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_ADD, "a", "5"));
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_ADD, "a", "12345"));
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_ADD, "a", "5"));
    EXPECT_EQ((Groups{"5", "12345"}), gw_registry::groups_of("a"));
    EXPECT_EQ(2, get_dev_cntl("a")->attr.grp->cnt);
    EXPECT_TRUE(gw_registry::groups_of("b").empty());
}

TEST_F(RegistryMembership, RemovingAGroupClosesTheGapAndRemovingAnAbsentOneSucceeds)
{
    for (const char *gid : {"1", "2", "3"}) {
        ASSERT_EQ(RC_OK, dev_update_grp_info(GRP_ADD, "a", gid));
    }
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_DEL, "a", "2"));
    EXPECT_EQ((Groups{"1", "3"}), gw_registry::groups_of("a"));
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_DEL, "a", "9"));
    EXPECT_EQ((Groups{"1", "3"}), gw_registry::groups_of("a"));
}

TEST_F(RegistryMembership, AFullGroupTableRefusesTheFiftySeventh)
{
    for (int i = 0; i < GRP_SCENE_MAX; ++i) {
        ASSERT_EQ(RC_OK, dev_update_grp_info(GRP_ADD, "a", std::to_string(i).c_str()));
    }
    EXPECT_EQ(RC_MEMBERSHIP_FULL, dev_update_grp_info(GRP_ADD, "a", "99"));
    EXPECT_EQ(-1007, dev_update_grp_info(GRP_ADD, "a", "100"));
    EXPECT_EQ(RC_OK, dev_update_grp_info(GRP_ADD, "a", "7")); /* already a member: still fine */
    EXPECT_EQ(static_cast<size_t>(GRP_SCENE_MAX), gw_registry::groups_of("a").size());
}

TEST_F(RegistryMembership, GroupUpdatesCheckDeviceActionAndId)
{
    EXPECT_EQ(RC_DEV_NOT_FOUND, dev_update_grp_info(GRP_ADD, "zz", "5"));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_grp_info(GRP_ADD, nullptr, "5"));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_grp_info(GRP_ADD, "a", nullptr));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_grp_info(GRP_ADD, "a", ""));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_grp_info(GRP_ADD, "a", "123456"));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_grp_info(2, "a", "5"));
    EXPECT_TRUE(gw_registry::groups_of("a").empty());
}

TEST_F(RegistryMembership, ScenesAreKeyedBySceneAndGroup)
{
    EXPECT_EQ(RC_OK, dev_update_scene_info(SCE_ADD, "a", "5", "01"));
    EXPECT_EQ(RC_OK, dev_update_scene_info(SCE_ADD, "a", "6", "01"));
    EXPECT_EQ(RC_OK, dev_update_scene_info(SCE_ADD, "a", "5", "01"));
    EXPECT_EQ((Scenes{{"01", "5"}, {"01", "6"}}), gw_registry::scenes_of("a"));
    EXPECT_EQ(RC_OK, dev_update_scene_info(SCE_DEL, "a", "5", "01"));
    EXPECT_EQ((Scenes{{"01", "6"}}), gw_registry::scenes_of("a"));
    EXPECT_EQ(RC_OK, dev_update_scene_info(SCE_DEL, "a", "5", "01"));
    EXPECT_STREQ("01", get_dev_cntl("a")->attr.scene->s_rec[0].s_id);
    EXPECT_STREQ("6", get_dev_cntl("a")->attr.scene->s_rec[0].g_id);
}

TEST_F(RegistryMembership, AFullSceneTableRefusesTheFiftySeventh)
{
    for (int i = 0; i < GRP_SCENE_MAX; ++i) {
        ASSERT_EQ(RC_OK, dev_update_scene_info(SCE_ADD, "b", "1", std::to_string(i).c_str()));
    }
    EXPECT_EQ(RC_MEMBERSHIP_FULL, dev_update_scene_info(SCE_ADD, "b", "2", "0"));
    EXPECT_EQ(RC_OK, dev_update_scene_info(SCE_DEL, "b", "1", "0"));
    EXPECT_EQ(RC_OK, dev_update_scene_info(SCE_ADD, "b", "2", "0"));
}

TEST_F(RegistryMembership, SceneUpdatesCheckDeviceActionAndIds)
{
    EXPECT_EQ(RC_DEV_NOT_FOUND, dev_update_scene_info(SCE_ADD, "zz", "5", "01"));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_scene_info(SCE_EXEC, "a", "5", "01"));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_scene_info(SCE_ADD, "a", "5", "0123"));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_scene_info(SCE_ADD, "a", "123456", "01"));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_scene_info(SCE_ADD, "a", "5", nullptr));
    EXPECT_EQ(RC_BAD_PARAM, dev_update_scene_info(SCE_ADD, nullptr, "5", "01"));
    EXPECT_TRUE(gw_registry::scenes_of("a").empty());
}

} // namespace
