#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "gateway/registry/gw_registry.h"
#include "registry_test_data.h"

namespace {

class RegistryStore : public ::testing::Test {
protected:
    void SetUp() override
    {
        gw_registry::LoadError error;
        ASSERT_TRUE(gw_registry::load_text(registry_test::kGateway, "gw.json", &error)) << error.text();
    }
    void TearDown() override { gw_registry::unload(); }
};

TEST_F(RegistryStore, LoadsTheGatewayRecordAndItsOwnNodeFirstInTheList)
{
    GW_CNTL_S *gw = get_gw_cntl();
    ASSERT_NE(nullptr, gw);
    EXPECT_STREQ("gw0001", gw->gw_if.id);
    EXPECT_STREQ("1.2.0", gw->gw_if.sw_ver);
    EXPECT_STREQ("gwpk", gw->gw_if.product_key);
    EXPECT_NE(nullptr, gw->dev_mutex);
    EXPECT_EQ(3u, gw->dev_num);
    DEV_CNTL_N_S *own = get_gw_dev_cntl();
    ASSERT_NE(nullptr, own);
    EXPECT_EQ(own, gw->dev);
    EXPECT_STREQ("gw0001", own->dev_if.id);
    EXPECT_EQ(TRUE, own->dev_if.bind);
    EXPECT_EQ(1, own->dp_num);
    /* the gateway is no sub-device: presence and heartbeat leave it alone */
    EXPECT_EQ(DOS_ONLINE, own->attr.stat);
    EXPECT_EQ(DOSM_REPORTED, own->attr.dosm);
    EXPECT_EQ(0xFFFFFFFFu, own->attr.hb_timeout_time);
    EXPECT_EQ("0123456789abcdef", gw_registry::local_key());
    EXPECT_STREQ("0123456789abcdef", gw_registry_local_key());
    EXPECT_TRUE(gw_registry::loaded());
}

TEST_F(RegistryStore, DevicesFollowInDescriptionOrderWithTheirIdentity)
{
    DEV_CNTL_N_S *own = get_gw_cntl()->dev;
    ASSERT_NE(nullptr, own->next);
    DEV_CNTL_N_S *plug = own->next;
    ASSERT_NE(nullptr, plug->next);
    DEV_CNTL_N_S *unbound = plug->next;
    EXPECT_EQ(nullptr, unbound->next);
    EXPECT_STREQ("a1b2c3", plug->dev_if.id);
    EXPECT_STREQ("2.0.1", plug->dev_if.sw_ver);
    EXPECT_STREQ("plugpk", plug->dev_if.product_key);
    EXPECT_EQ(TRUE, plug->dev_if.bind);
    EXPECT_EQ(TRUE, plug->attr.preprocess);
    EXPECT_EQ(DOS_OFFLINE, plug->attr.stat);
    EXPECT_EQ(DOSM_PENDING, plug->attr.dosm);
    EXPECT_EQ(0, plug->dev_delete);
    ASSERT_NE(nullptr, plug->attr.grp);
    ASSERT_NE(nullptr, plug->attr.scene);
    EXPECT_EQ(0, plug->attr.grp->cnt);
    EXPECT_STREQ("d4e5f6", unbound->dev_if.id);
    EXPECT_EQ(FALSE, unbound->dev_if.bind);
    EXPECT_EQ(0, unbound->dp_num);
}

TEST_F(RegistryStore, DpTablesHoldTheSchemaAndStartWithoutValues)
{
    DEV_CNTL_N_S *plug = get_dev_cntl("a1b2c3");
    ASSERT_NE(nullptr, plug);
    ASSERT_EQ(7, plug->dp_num);
    for (BYTE_T i = 0; i < plug->dp_num; ++i) {
        EXPECT_EQ(i + 1, plug->dp[i].dp_desc.dp_id);
        EXPECT_EQ(PV_STAT_INVALID, plug->dp[i].pv_stat);
    }
    const DP_CNTL_S &sw = plug->dp[0];
    EXPECT_EQ(PROP_BOOL, sw.dp_desc.prop_tp);
    EXPECT_EQ(PSV_HOLD, sw.dp_desc.passive);
    EXPECT_EQ(DP_MODE_RW, sw.dp_desc.mode);
    EXPECT_EQ(TRIG_ON_CHANGE, sw.dp_desc.trig_t);

    const DP_CNTL_S &power = plug->dp[1];
    EXPECT_EQ(PROP_VALUE, power.dp_desc.prop_tp);
    EXPECT_EQ(DP_MODE_RO, power.dp_desc.mode);
    EXPECT_EQ(TRIG_ALWAYS, power.dp_desc.trig_t);
    EXPECT_EQ(-10, power.prop.prop_value.min);
    EXPECT_EQ(1000, power.prop.prop_value.max);
    EXPECT_EQ(5, power.prop.prop_value.step);
    EXPECT_EQ(1, power.prop.prop_value.scale);
    EXPECT_EQ(0, power.prop.prop_value.value);
    EXPECT_EQ(60, power.rept_cntl.cir_time);
    EXPECT_EQ(3, power.rept_cntl.cir_rept_item_lmt);
    EXPECT_EQ(0, power.rept_cntl.cir_rept_items);

    const DP_CNTL_S &label = plug->dp[2];
    EXPECT_EQ(16, label.prop.prop_str.max_len);
    ASSERT_NE(nullptr, label.prop.prop_str.value);
    EXPECT_STREQ("", label.prop.prop_str.value);
    std::memset(label.prop.prop_str.value, 'x', 16); /* max_len + 1 bytes: ASan proves the room */
    label.prop.prop_str.value[16] = '\0';

    const DP_CNTL_S &mode = plug->dp[3];
    EXPECT_EQ(DP_MODE_WR, mode.dp_desc.mode);
    ASSERT_EQ(3, mode.prop.prop_enum.cnt);
    EXPECT_STREQ("low", mode.prop.prop_enum.pp_enum[0]);
    EXPECT_STREQ("mid", mode.prop.prop_enum.pp_enum[1]);
    EXPECT_STREQ("high", mode.prop.prop_enum.pp_enum[2]);

    const DP_CNTL_S &fault = plug->dp[4];
    EXPECT_EQ(PROP_BITMAP, fault.dp_desc.prop_tp);
    EXPECT_EQ(8u, fault.prop.prop_bitmap.max_len);
    EXPECT_EQ(2, fault.dp_desc.stat);

    EXPECT_EQ(DP_TYPE_RAW, plug->dp[5].dp_desc.type);
    EXPECT_EQ(DP_TYPE_FILE, plug->dp[6].dp_desc.type);
    EXPECT_EQ("power", gw_registry::dp_name("a1b2c3", 2));
    EXPECT_EQ("", gw_registry::dp_name("a1b2c3", 99));
    EXPECT_EQ("", gw_registry::dp_name("nobody", 1));
}

TEST_F(RegistryStore, LookupsFindExactIdsOnly)
{
    EXPECT_NE(nullptr, get_dev_cntl("a1b2c3"));
    EXPECT_EQ(get_dev_cntl("a1b2c3"), get_dev_cntl_unlock("a1b2c3"));
    EXPECT_EQ(nullptr, get_dev_cntl("A1B2C3"));
    EXPECT_EQ(nullptr, get_dev_cntl("a1b2c"));
    EXPECT_EQ(nullptr, get_dev_cntl(nullptr));
    EXPECT_EQ(get_gw_dev_cntl(), get_dev_cntl("gw0001"));
}

TEST_F(RegistryStore, DpLookupFindsOneDpOfADeviceAndNullMeansTheGateway)
{
    DP_CNTL_S *power = get_dev_dp_cntl("a1b2c3", 2);
    ASSERT_NE(nullptr, power);
    EXPECT_EQ(&get_dev_cntl("a1b2c3")->dp[1], power);
    EXPECT_EQ(nullptr, get_dev_dp_cntl("a1b2c3", 9));
    EXPECT_EQ(nullptr, get_dev_dp_cntl("nobody", 1));
    EXPECT_EQ(&get_gw_dev_cntl()->dp[0], get_dev_dp_cntl(nullptr, 1));
}

TEST_F(RegistryStore, ASecondLoadIsRefusedAndChangesNothing)
{
    gw_registry::LoadError error;
    EXPECT_FALSE(gw_registry::load_text(registry_test::kGateway, "again.json", &error));
    EXPECT_EQ("again.json: a gateway is already loaded", error.text());
    EXPECT_EQ(3u, get_gw_cntl()->dev_num);
}

TEST_F(RegistryStore, AddedDeviceJoinsTheEndOfTheListAndTheIndex)
{
    gw_registry::LoadError error;
    ASSERT_EQ(RC_OK, gw_registry::add_device(R"({"id":"new1","dps":[{"id":9,"prop":"bool"}]})", &error))
        << error.text();
    DEV_CNTL_N_S *added = get_dev_cntl("new1");
    ASSERT_NE(nullptr, added);
    EXPECT_EQ(nullptr, added->next);
    EXPECT_EQ(added, get_dev_cntl("d4e5f6")->next);
    EXPECT_EQ(4u, get_gw_cntl()->dev_num);
    EXPECT_EQ(4u, gw_registry::device_count());
    EXPECT_NE(nullptr, get_dev_dp_cntl("new1", 9));
}

TEST_F(RegistryStore, AddingATakenIdOrTheGatewaysIdIsRefused)
{
    gw_registry::LoadError error;
    EXPECT_EQ(RC_BAD_PARAM, gw_registry::add_device(R"({"id":"a1b2c3"})", &error));
    EXPECT_EQ("device: id: device id \"a1b2c3\" is taken", error.text());
    EXPECT_EQ(RC_BAD_PARAM, gw_registry::add_device(R"({"id":"GW0001"})", &error));
    EXPECT_EQ(RC_BAD_PARAM, gw_registry::add_device(R"({"id":"x","dps":[{"id":0}]})", &error));
    EXPECT_EQ("device: dps[0].id: DP number out of range (1..255): 0", error.text());
    EXPECT_EQ(RC_BAD_PARAM, gw_registry::add_device("{", &error));
    EXPECT_EQ(3u, get_gw_cntl()->dev_num);
}

TEST_F(RegistryStore, AddingAnIdThatWouldNeedAJsonEscapeIsRefused)
{
    gw_registry::LoadError error;
    EXPECT_EQ(RC_BAD_PARAM, gw_registry::add_device(R"({"id":"x\"y"})", &error));
    EXPECT_EQ(R"(device: id: device id "x\"y" has a character that needs a JSON escape or is a control character)",
              error.text());
    EXPECT_EQ(RC_BAD_PARAM, gw_registry::add_device(R"({"id":"x\u0001"})", &error));
    EXPECT_EQ(R"(device: id: device id "x\u0001" has a character that needs a JSON escape or is a control character)",
              error.text());
    EXPECT_EQ(3u, get_gw_cntl()->dev_num);
    EXPECT_EQ(nullptr, get_dev_cntl("x\"y"));
}

TEST_F(RegistryStore, RemovedDeviceIsFlaggedUnlinkedAndFreedOnlyAfterTheGracePeriod)
{
    DEV_CNTL_N_S *plug = get_dev_cntl("a1b2c3");
    DEV_CNTL_N_S *after = plug->next;
    gw_registry::set_grace_period(std::chrono::milliseconds(200));
    ASSERT_EQ(RC_OK, gw_registry::remove_device("a1b2c3"));
    EXPECT_EQ(nullptr, get_dev_cntl("a1b2c3"));
    EXPECT_EQ(2u, get_gw_cntl()->dev_num);
    EXPECT_EQ(after, get_gw_dev_cntl()->next);
    /* a holder from before the removal still reads a whole node */
    EXPECT_EQ(1, plug->dev_delete);
    EXPECT_STREQ("a1b2c3", plug->dev_if.id);
    EXPECT_EQ(after, plug->next);
    EXPECT_EQ(7, plug->dp_num);
    EXPECT_EQ(1u, gw_registry::retired_count());
    EXPECT_EQ(0u, gw_registry::reclaim());
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    EXPECT_EQ(1u, gw_registry::reclaim());
    EXPECT_EQ(0u, gw_registry::retired_count());
}

TEST_F(RegistryStore, RemovingTheLastDeviceLetsAnAddFollowIt)
{
    ASSERT_EQ(RC_OK, gw_registry::remove_device("d4e5f6"));
    ASSERT_EQ(RC_OK, gw_registry::add_device(R"({"id":"d4e5f6"})", nullptr));
    EXPECT_EQ(get_dev_cntl("d4e5f6"), get_dev_cntl("a1b2c3")->next);
    EXPECT_EQ(3u, get_gw_cntl()->dev_num);
}

TEST_F(RegistryStore, RemovingAnUnknownDeviceOrTheGatewayIsRefused)
{
    EXPECT_EQ(RC_DEV_NOT_FOUND, gw_registry::remove_device("nobody"));
    EXPECT_EQ(RC_BAD_PARAM, gw_registry::remove_device("gw0001"));
    EXPECT_EQ(3u, get_gw_cntl()->dev_num);
}

TEST_F(RegistryStore, UnloadFreesEverythingAndAllowsANewLoad)
{
    ASSERT_EQ(RC_OK, gw_registry::remove_device("a1b2c3")); /* retired nodes go too */
    gw_registry::unload();
    EXPECT_FALSE(gw_registry::loaded());
    EXPECT_EQ(nullptr, get_gw_cntl()->dev);
    EXPECT_EQ(nullptr, get_gw_dev_cntl());
    EXPECT_EQ(0u, gw_registry::retired_count());
    EXPECT_EQ(RC_FAIL, gw_registry::add_device(R"({"id":"x"})", nullptr));
    gw_registry::LoadError error;
    EXPECT_TRUE(gw_registry::load_text(registry_test::kGateway, "gw.json", &error)) << error.text();
}

TEST_F(RegistryStore, LoadsFromAFile)
{
    gw_registry::unload();
    char path[] = "/tmp/gw_registry_test_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    FILE *file = fdopen(fd, "w");
    std::fputs(registry_test::kGateway, file);
    std::fclose(file);
    gw_registry::LoadError error;
    EXPECT_TRUE(gw_registry::load_file(path, &error)) << error.text();
    std::remove(path);
    EXPECT_NE(nullptr, get_dev_cntl("a1b2c3"));
}

TEST(RegistryBeforeLoad, GatewayRecordExistsEmptyAndLookupsFindNothing)
{
    GW_CNTL_S *gw = get_gw_cntl();
    ASSERT_NE(nullptr, gw);
    EXPECT_NE(nullptr, gw->dev_mutex);
    EXPECT_EQ(nullptr, gw->dev);
    EXPECT_EQ(nullptr, get_gw_dev_cntl());
    EXPECT_EQ(nullptr, get_dev_cntl("a1b2c3"));
    EXPECT_FALSE(gw_registry::loaded());
    EXPECT_STREQ("", gw_registry_local_key());
}

TEST(RegistryNetwork, StatusStartsWithNetworkWithoutCloudAndFollowsTheSetter)
{
    EXPECT_EQ(GW_NW_LAN, get_gw_nw_status());
    gw_registry_set_nw_status(GW_NW_CLOUD);
    EXPECT_EQ(GW_NW_CLOUD, get_gw_nw_status());
    gw_registry_set_nw_status(GW_NW_NONE);
    EXPECT_EQ(GW_NW_NONE, get_gw_nw_status());
    gw_registry_set_nw_status(7); /* not a state: ignored */
    EXPECT_EQ(GW_NW_NONE, get_gw_nw_status());
}

} // namespace

namespace {

/*
 * The sample also carries the gateway daemon's own sections ("connection",
 * and "sim" in device objects), which the daemon takes out before the
 * registry sees the document; the test does the same.
 */
std::string registry_part_of_sample()
{
    std::FILE *file = std::fopen(SF_SOURCE_DIR "/examples/gateway.json", "rb");
    std::string text;
    char chunk[4096];
    for (size_t n; file != nullptr && (n = std::fread(chunk, 1, sizeof chunk, file)) > 0;) {
        text.append(chunk, n);
    }
    if (file != nullptr) {
        std::fclose(file);
    }
    cJSON *root = cJSON_Parse(text.c_str());
    cJSON_DeleteItemFromObjectCaseSensitive(root, "connection");
    cJSON_DeleteItemFromObjectCaseSensitive(cJSON_GetObjectItemCaseSensitive(root, "gateway"), "sim");
    cJSON *device = nullptr;
    cJSON_ArrayForEach(device, cJSON_GetObjectItemCaseSensitive(root, "devices"))
    {
        cJSON_DeleteItemFromObjectCaseSensitive(device, "sim");
    }
    char *printed = cJSON_PrintUnformatted(root);
    const std::string plain = printed != nullptr ? printed : "";
    cJSON_free(printed);
    cJSON_Delete(root);
    return plain;
}

TEST(RegistryExample, TheSampleDescriptionLoads)
{
    gw_registry::LoadError error;
    ASSERT_TRUE(gw_registry::load_text(registry_part_of_sample(), "gateway.json", &error)) << error.text();
    EXPECT_STREQ("gw0001", get_gw_cntl()->gw_if.id);
    EXPECT_EQ(5u, get_gw_cntl()->dev_num);
    EXPECT_EQ("colour_data", gw_registry::dp_name("bulb01", 24));
    gw_registry::unload();
}

} // namespace
