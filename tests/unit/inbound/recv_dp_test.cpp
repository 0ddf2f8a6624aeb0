#include <gtest/gtest.h>

#include "app_callbacks.h"
#include "smart_frame/inbound/inbound.h"
#include "tests/fakes/sf_fixture.h"

using namespace fake::registry;

namespace {

constexpr TIME_T NOW = 1700000000;
const char *const FN = "__sf_handle_recv_dp";

class RecvDp : public SfStartedTest {
protected:
    void SetUp() override
    {
        SfStartedTest::SetUp();
        set_gateway("gw0001", {dp_bool(1)});
        sub = add_device("sub01", {dp_bool(1), dp_value(2, -100, 100), dp_enum(3, {"low", "mid", "high"}),
                                   dp_str(4, 16), dp_bitmap(5, 32), dp_raw(6), dp_raw(7), dp_file(9)});
        app::install();
        fake::clock::set_posix(NOW);
    }
    void TearDown() override
    {
        cJSON_Delete(dps);
        SfStartedTest::TearDown();
    }
    OPERATE_RET handle(const char *text, DP_TRANS_TYPE_T dt_tp = DTT_CTYPE_0, const char *cid = "sub01",
                       const char *mb_id = nullptr)
    {
        cJSON_Delete(dps);
        dps = cJSON_Parse(text);
        EXPECT_NE(nullptr, dps) << text;
        return __sf_handle_recv_dp(DP_CMD_MQ, dt_tp, mb_id, cid, dps);
    }
    const app::ObjCmd &only_obj()
    {
        EXPECT_EQ(1u, app::obj_cmds().size());
        static const app::ObjCmd none{};
        return app::obj_cmds().empty() ? none : app::obj_cmds()[0];
    }
    DEV_CNTL_N_S *sub = nullptr;
    cJSON *dps = nullptr;
};

TEST_F(RecvDp, UnknownDpIsDroppedAndTheRestDelivered)
{
    EXPECT_EQ(RC_OK, handle("{\"1\":true,\"99\":true}"));

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "DP ID 99 Invalid")) << fake::log::dump();
    const app::ObjCmd &c = only_obj();
    EXPECT_EQ(1u, c.dps_cnt);
    ASSERT_EQ(1u, c.dps.size());
    EXPECT_EQ(1, c.dps[0].dpid);
    EXPECT_EQ(nullptr, cJSON_GetObjectItem(dps, "99"));
    EXPECT_NE(nullptr, cJSON_GetObjectItem(dps, "1"));
}

TEST_F(RecvDp, SeveralUnknownDpsAreAllDroppedInOrder)
{
    EXPECT_EQ(RC_OK, handle("{\"98\":1,\"2\":5,\"abc\":1,\"300\":1}"));

    const std::vector<fake::log::Entry> &log = fake::log::entries();
    std::vector<std::string> dropped;
    for (const fake::log::Entry &e : log) {
        if (e.func == FN) {
            dropped.push_back(e.text);
        }
    }
    EXPECT_EQ((std::vector<std::string>{"DP ID 98 Invalid", "DP ID 0 Invalid", "DP ID 300 Invalid"}), dropped);
    EXPECT_EQ(1, cJSON_GetArraySize(dps));
    EXPECT_EQ(1u, only_obj().dps_cnt);
}

TEST_F(RecvDp, UnchangedBoolIsEchoedBeforeTheCallbackForCtype0)
{
    app::known_bool("sub01", 1, TRUE);

    EXPECT_EQ(RC_OK, handle("{\"1\":true}", DTT_CTYPE_0));

    ASSERT_EQ(1u, fake::mqtt::queries().size());
    EXPECT_EQ("{\"dps\":{\"1\":true},\"cid\":\"sub01\"}", fake::mqtt::queries()[0].text);
    const app::ObjCmd &c = only_obj();
    EXPECT_EQ(1u, c.answers_before); /* the echo went first */
    EXPECT_EQ(DP_CMD_MQ, c.cmd_tp);
    EXPECT_EQ(DTT_CTYPE_0, c.dtt_tp);
    EXPECT_TRUE(c.has_cid);
    EXPECT_EQ("sub01", c.cid);
    EXPECT_FALSE(c.has_mb_id);
    ASSERT_EQ(1u, c.dps_cnt);
    EXPECT_EQ(1, c.dps[0].dpid);
    EXPECT_EQ(PROP_BOOL, c.dps[0].type);
    EXPECT_EQ(1, c.dps[0].value.dp_bool);
    EXPECT_EQ(NOW, c.dps[0].time_stamp);
}

TEST_F(RecvDp, Ctype1BehavesLikeCtype0)
{
    app::known_bool("sub01", 1, TRUE);

    EXPECT_EQ(RC_OK, handle("{\"1\":true}", DTT_CTYPE_1));

    ASSERT_EQ(1u, fake::mqtt::queries().size());
    EXPECT_EQ(1u, only_obj().answers_before);
    EXPECT_EQ(DTT_CTYPE_1, only_obj().dtt_tp);
}

TEST_F(RecvDp, UnchangedBoolIsEchoedAfterTheCallbackForCtype3)
{
    app::known_bool("sub01", 1, TRUE);

    EXPECT_EQ(RC_OK, handle("{\"1\":true}", DTT_CTYPE_3));

    EXPECT_EQ(0u, only_obj().answers_before); /* the callback went first */
    ASSERT_EQ(1u, fake::mqtt::queries().size());
    EXPECT_EQ("{\"dps\":{\"1\":true},\"cid\":\"sub01\"}", fake::mqtt::queries()[0].text);
}

TEST_F(RecvDp, ChangedBoolIsNotEchoed)
{
    app::known_bool("sub01", 1, TRUE);

    EXPECT_EQ(RC_OK, handle("{\"1\":false}"));

    EXPECT_TRUE(fake::mqtt::queries().empty());
    EXPECT_EQ(0, only_obj().dps[0].value.dp_bool);
}

TEST_F(RecvDp, MixOfChangedAndUnchangedIsNotEchoed)
{
    app::known_bool("sub01", 1, TRUE);
    app::known_value("sub01", 2, 5);

    EXPECT_EQ(RC_OK, handle("{\"1\":true,\"2\":6}"));

    EXPECT_TRUE(fake::mqtt::queries().empty());
    EXPECT_EQ(2u, only_obj().dps_cnt);
}

TEST_F(RecvDp, AllUnchangedOfSeveralTypesAreEchoedTogether)
{
    app::known_bool("sub01", 1, FALSE);
    app::known_value("sub01", 2, 5);
    app::known_enum("sub01", 3, 1);
    app::known_str("sub01", 4, "hi");
    app::known_bitmap("sub01", 5, 9);

    EXPECT_EQ(RC_OK, handle("{\"5\":9,\"4\":\"hi\",\"3\":\"mid\",\"2\":5,\"1\":false}"));

    ASSERT_EQ(1u, fake::mqtt::queries().size());
    EXPECT_EQ("{\"dps\":{\"5\":9,\"4\":\"hi\",\"3\":\"mid\",\"2\":5,\"1\":false},\"cid\":\"sub01\"}",
              fake::mqtt::queries()[0].text);
    EXPECT_EQ(5u, only_obj().dps_cnt);
}

TEST_F(RecvDp, DpWithoutKnownValueIsNeverEqual)
{
    app::known_bool("sub01", 1, FALSE, PV_STAT_INVALID);

    EXPECT_EQ(RC_OK, handle("{\"1\":false}"));

    EXPECT_TRUE(fake::mqtt::queries().empty());
    EXPECT_EQ(1u, only_obj().dps_cnt);
}

TEST_F(RecvDp, UnknownEnumNameIsLoggedAndDeliveredAsIndexZero)
{
    app::known_enum("sub01", 3, 0);

    EXPECT_EQ(RC_OK, handle("{\"3\":\"huge\"}"));

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "dp enum value[huge] invalid"));
    const app::ObjCmd &c = only_obj();
    ASSERT_EQ(1u, c.dps_cnt);
    EXPECT_EQ(3, c.dps[0].dpid);
    EXPECT_EQ(PROP_ENUM, c.dps[0].type);
    EXPECT_EQ(0u, c.dps[0].value.dp_enum);
    EXPECT_TRUE(fake::mqtt::queries().empty()); /* index 0 is held, but an unknown name is not equal */
}

TEST_F(RecvDp, KnownEnumNameIsDeliveredAsItsIndex)
{
    EXPECT_EQ(RC_OK, handle("{\"3\":\"high\"}"));

    EXPECT_EQ(2u, only_obj().dps[0].value.dp_enum);
}

TEST_F(RecvDp, ValuesAreDecodedByTheirPropertyType)
{
    EXPECT_EQ(RC_OK, handle("{\"1\":1,\"2\":-42,\"4\":\"text\",\"5\":4096}"));

    const app::ObjCmd &c = only_obj();
    ASSERT_EQ(4u, c.dps_cnt);
    EXPECT_EQ(0, c.dps[0].value.dp_bool); /* only JSON true is true */
    EXPECT_EQ(-42, c.dps[1].value.dp_value);
    EXPECT_EQ(PROP_VALUE, c.dps[1].type);
    EXPECT_EQ("text", c.dps[2].str);
    EXPECT_EQ(PROP_STR, c.dps[2].type);
    EXPECT_EQ(4096u, c.dps[3].value.dp_bitmap);
    EXPECT_EQ(PROP_BITMAP, c.dps[3].type);
}

TEST_F(RecvDp, ValuesOfTheWrongJsonTypeLeaveTheirDefaults)
{
    EXPECT_EQ(RC_OK, handle("{\"2\":\"10\",\"4\":7,\"3\":2}"));

    const app::ObjCmd &c = only_obj();
    ASSERT_EQ(3u, c.dps_cnt);
    EXPECT_EQ(0, c.dps[0].value.dp_value);
    EXPECT_EQ(nullptr, c.dps[1].value.dp_str);
    EXPECT_EQ(0u, c.dps[2].value.dp_enum);
}

TEST_F(RecvDp, RawOnlyCommandReachesTheRawCallbackOnly)
{
    EXPECT_EQ(RC_OK, handle("{\"6\":\"AQIDBA==\",\"7\":\"\"}", DTT_CTYPE_0, "sub01"));

    EXPECT_TRUE(app::obj_cmds().empty());
    ASSERT_EQ(2u, app::raw_cmds().size());
    const app::RawCmd &r = app::raw_cmds()[0];
    EXPECT_EQ(6, r.dpid);
    EXPECT_EQ((std::vector<uint8_t>{1, 2, 3, 4}), r.data);
    EXPECT_EQ(DP_CMD_MQ, r.cmd_tp);
    EXPECT_EQ(DTT_CTYPE_0, r.dtt_tp);
    EXPECT_EQ("sub01", r.cid);
    EXPECT_FALSE(r.has_mb_id);
    EXPECT_EQ(7, app::raw_cmds()[1].dpid);
    EXPECT_TRUE(app::raw_cmds()[1].data.empty());
    EXPECT_TRUE(fake::mqtt::queries().empty());
}

TEST_F(RecvDp, RawDpsArriveAtOnceAndObjectDpsAtTheEnd)
{
    EXPECT_EQ(RC_OK, handle("{\"1\":true,\"6\":\"AQ==\",\"2\":3}", DTT_MULTI, "sub01", "m7"));

    ASSERT_EQ(1u, app::raw_cmds().size());
    EXPECT_EQ("m7", app::raw_cmds()[0].mb_id);
    EXPECT_EQ(DTT_MULTI, app::raw_cmds()[0].dtt_tp);
    const app::ObjCmd &c = only_obj();
    EXPECT_EQ("m7", c.mb_id);
    ASSERT_EQ(2u, c.dps_cnt);
    EXPECT_EQ(1, c.dps[0].dpid);
    EXPECT_EQ(2, c.dps[1].dpid);
}

TEST_F(RecvDp, MalformedBase64IsRejectedAndTheRestDelivered)
{
    EXPECT_EQ(RC_OK, handle("{\"6\":\"!!not base64\",\"1\":true}"));

    EXPECT_TRUE(app::raw_cmds().empty());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "raw dp 6 base64 invalid"));
    EXPECT_EQ(1u, only_obj().dps_cnt);
}

TEST_F(RecvDp, MultiDpCommandWithAllValuesUnchangedIsNotEchoed)
{
    app::known_bool("sub01", 1, TRUE);

    EXPECT_EQ(RC_OK, handle("{\"1\":true}", DTT_MULTI, "sub01", "m1"));

    EXPECT_TRUE(fake::mqtt::queries().empty());
    EXPECT_EQ("m1", only_obj().mb_id);
    EXPECT_EQ(DTT_MULTI, only_obj().dtt_tp);
}

TEST_F(RecvDp, UnknownDeviceCallsNothing)
{
    EXPECT_EQ(RC_FAIL, handle("{\"1\":true}", DTT_CTYPE_0, "nobody"));

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "can't find device"));
    EXPECT_TRUE(app::obj_cmds().empty());
}

TEST_F(RecvDp, NoTargetMeansTheGatewaysOwnDevice)
{
    app::known_bool("gw0001", 1, TRUE);

    EXPECT_EQ(RC_OK, handle("{\"1\":true}", DTT_CTYPE_0, nullptr));

    EXPECT_FALSE(only_obj().has_cid);
    ASSERT_EQ(1u, fake::mqtt::queries().size());
    EXPECT_EQ("{\"dps\":{\"1\":true}}", fake::mqtt::queries()[0].text);
}

TEST_F(RecvDp, CommandedPassiveDpsAreReleasedOnPreprocessingDevice)
{
    add_device("pas01", {dp_bool(1).passive(PSV_HOLD), dp_raw(6).passive(PSV_HOLD), dp_bool(2).passive(PSV_HOLD)});
    device("pas01")->attr.preprocess = TRUE;

    EXPECT_EQ(RC_OK, handle("{\"1\":true,\"6\":\"AQ==\"}", DTT_CTYPE_0, "pas01"));

    EXPECT_EQ(PSV_RELEASED, dp("pas01", 1)->dp_desc.passive);
    EXPECT_EQ(PSV_RELEASED, dp("pas01", 6)->dp_desc.passive);
    EXPECT_EQ(PSV_HOLD, dp("pas01", 2)->dp_desc.passive); /* not commanded */
}

TEST_F(RecvDp, PassiveDpsStayHeldWithoutPreprocessing)
{
    add_device("pas02", {dp_bool(1).passive(PSV_HOLD)});

    EXPECT_EQ(RC_OK, handle("{\"1\":true}", DTT_CTYPE_0, "pas02"));

    EXPECT_EQ(PSV_HOLD, dp("pas02", 1)->dp_desc.passive);
}

TEST_F(RecvDp, FileDpAndRawDpWithoutTextTakeNoObjectSlot)
{
    app::known_bool("sub01", 1, TRUE);

    EXPECT_EQ(RC_OK, handle("{\"9\":true,\"1\":true,\"7\":5}"));

    const app::ObjCmd &c = only_obj();
    ASSERT_EQ(1u, c.dps_cnt);
    EXPECT_EQ(1, c.dps[0].dpid);
    EXPECT_TRUE(app::raw_cmds().empty());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "dp id 9 type 2 not accepted"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "dp id 7 type 1 not accepted"));
    EXPECT_EQ(1u, fake::mqtt::queries().size()); /* skipped members do not spoil the echo */
}

TEST_F(RecvDp, EchoFailureIsLoggedAndTheCommandStillDelivered)
{
    app::known_bool("sub01", 1, TRUE);
    fake::mqtt::set_query_result(-7);

    EXPECT_EQ(RC_OK, handle("{\"1\":true}"));

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "sf_obj_dp_qry_dpid error:-7  1 1"));
    EXPECT_EQ(1u, only_obj().dps_cnt);
}

TEST_F(RecvDp, NothingIsCalledWithoutCallbacks)
{
    gw()->cbs.dev_obj_dp_cb = nullptr;
    gw()->cbs.dev_raw_dp_cb = nullptr;

    EXPECT_EQ(RC_OK, handle("{\"1\":true,\"6\":\"AQ==\"}"));

    EXPECT_TRUE(app::obj_cmds().empty());
    EXPECT_TRUE(app::raw_cmds().empty());
}

TEST_F(RecvDp, DpsThatAreNotAnObjectAreRefused)
{
    EXPECT_EQ(RC_BAD_PARAM, handle("[1,2]"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "dps is not an object"));
    EXPECT_TRUE(app::obj_cmds().empty());
}

TEST_F(RecvDp, WorkingListAllocationFailureReturnsNoMemory)
{
    dps = cJSON_Parse("{\"1\":true}");
    fake::mem::fail_nth(1);

    EXPECT_EQ(RC_NO_MEMORY, __sf_handle_recv_dp(DP_CMD_MQ, DTT_CTYPE_0, nullptr, "sub01", dps));

    EXPECT_TRUE(fake::mem::failure_fired());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "malloc fail 64"));
    EXPECT_TRUE(app::obj_cmds().empty());
}

TEST_F(RecvDp, ObjectRecordAllocationFailureCallsNothing)
{
    cJSON_Delete(dps);
    dps = cJSON_Parse("{\"6\":\"AQ==\",\"1\":true,\"2\":1}");
    fake::mem::fail_nth(2);

    EXPECT_EQ(RC_NO_MEMORY, __sf_handle_recv_dp(DP_CMD_LAN, DTT_CTYPE_0, nullptr, "sub01", dps));

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "malloc error obj_dp_cnt:2"));
    EXPECT_TRUE(app::obj_cmds().empty());
    EXPECT_TRUE(app::raw_cmds().empty());
}

TEST_F(RecvDp, RawRecordAllocationFailureEndsTheCommandQuietly)
{
    cJSON_Delete(dps);
    dps = cJSON_Parse("{\"6\":\"AQ==\",\"1\":true}");
    fake::log::clear();
    fake::mem::fail_nth(3);

    EXPECT_EQ(RC_OK, __sf_handle_recv_dp(DP_CMD_LAN, DTT_CTYPE_0, nullptr, "sub01", dps));

    EXPECT_TRUE(fake::mem::failure_fired());
    EXPECT_TRUE(app::obj_cmds().empty());
    EXPECT_TRUE(app::raw_cmds().empty());
    for (const fake::log::Entry &e : fake::log::entries()) {
        EXPECT_NE(LOG_LEVEL_ERROR, e.level) << e.text;
    }
}

class RecvDpMany : public SfStartedTest {
protected:
    /* a device with count bool DPs 1..count, all known true, and a command setting each true */
    std::string all_true(int count)
    {
        std::vector<DpSpec> specs;
        for (int i = 1; i <= count; ++i) {
            specs.push_back(dp_bool(static_cast<BYTE_T>(i)));
        }
        add_device("big01", specs);
        std::string cmd = "{";
        for (int i = 1; i <= count; ++i) {
            app::known_bool("big01", static_cast<BYTE_T>(i), TRUE);
            cmd += (i > 1 ? ",\"" : "\"") + std::to_string(i) + "\":true";
        }
        return cmd + "}";
    }
    void run(const std::string &cmd)
    {
        app::install();
        cJSON *dps = cJSON_Parse(cmd.c_str());
        EXPECT_EQ(RC_OK, __sf_handle_recv_dp(DP_CMD_MQ, DTT_CTYPE_0, nullptr, "big01", dps));
        cJSON_Delete(dps);
    }
};

TEST_F(RecvDpMany, SixtyFourUnchangedDpsAreEchoed)
{
    run(all_true(64));

    ASSERT_EQ(1u, fake::mqtt::queries().size());
    EXPECT_NE(std::string::npos, fake::mqtt::queries()[0].text.find("\"64\":true"));
    ASSERT_EQ(1u, app::obj_cmds().size());
    EXPECT_EQ(64u, app::obj_cmds()[0].dps_cnt);
}

TEST_F(RecvDpMany, MoreThanSixtyFourUnchangedDpsAreNotEchoed)
{
    run(all_true(65));

    EXPECT_TRUE(fake::mqtt::queries().empty());
    ASSERT_EQ(1u, app::obj_cmds().size());
    EXPECT_EQ(65u, app::obj_cmds()[0].dps_cnt);
    EXPECT_EQ(65, app::obj_cmds()[0].dps[64].dpid);
}

} // namespace
