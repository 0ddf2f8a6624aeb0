#include <gtest/gtest.h>

#include <cstring>

#include "app_callbacks.h"
#include "smart_frame/frame_cntl.h"
#include "smart_frame/inbound/inbound.h"
#include "smart_frame/report/report.h"
#include "tests/fakes/sf_fixture.h"

using namespace fake::registry;
using fake::msgq::Call;

namespace {

const char *const FN = "__sf_gw_dev_cmd_cb";

class DevCmd : public SfStartedTest {
protected:
    void SetUp() override
    {
        SfStartedTest::SetUp();
        set_gateway("gw0001", {dp_bool(1)});
        add_device("sub01", {dp_bool(1), dp_value(2, 0, 100), dp_raw(6)});
        add_device("sub02", {dp_bool(1)});
        app::install();
    }
    /* queue a command the way a receive path does: the envelope lives on the caller's stack */
    OPERATE_RET send(const char *text, DP_CMD_TYPE_E tp = DP_CMD_MQ)
    {
        SF_GW_DEV_CMD_S cmd{tp, cJSON_Parse(text)};
        EXPECT_NE(nullptr, cmd.cmd_js) << text;
        const OPERATE_RET rc = sf_send_gw_dev_cmd(&cmd);
        if (rc != RC_OK) {
            cJSON_Delete(cmd.cmd_js); /* a refused post leaves the tree with the caller */
        }
        return rc;
    }
    void deliver(const char *text, DP_CMD_TYPE_E tp = DP_CMD_MQ)
    {
        ASSERT_EQ(RC_OK, send(text, tp));
        EXPECT_EQ(1u, fake::msgq::run_all());
    }
    const app::ObjCmd &only_obj()
    {
        EXPECT_EQ(1u, app::obj_cmds().size());
        static const app::ObjCmd none{};
        return app::obj_cmds().empty() ? none : app::obj_cmds()[0];
    }
};

TEST_F(DevCmd, SendingPostsACopyOfTheEnvelope)
{
    cJSON *tree = cJSON_Parse("{\"devId\":\"sub01\",\"dps\":{\"1\":true}}");
    SF_GW_DEV_CMD_S cmd{DP_CMD_LAN, tree};

    EXPECT_EQ(RC_OK, sf_send_gw_dev_cmd(&cmd));

    ASSERT_EQ(1u, fake::msgq::posts().size());
    const fake::msgq::Post &post = fake::msgq::posts()[0];
    EXPECT_EQ(sf::sf_cntl.mid_gw_dev_cmd, post.mid);
    ASSERT_EQ(sizeof(SF_GW_DEV_CMD_S), post.data.size());
    EXPECT_EQ(0, std::memcmp(&cmd, post.data.data(), sizeof cmd));
    EXPECT_TRUE(app::obj_cmds().empty()); /* nothing happens before the dispatch thread runs */
    fake::msgq::run_all();
    EXPECT_EQ(1u, app::obj_cmds().size());
}

TEST_F(DevCmd, RefusedPostIsReturnedAndTheTreeStaysWithTheCaller)
{
    fake::msgq::fail(Call::post_msg_malloc, -12);

    EXPECT_EQ(-12, send("{\"devId\":\"sub01\",\"dps\":{\"1\":true}}"));

    EXPECT_EQ(0u, fake::msgq::pending());
}

TEST_F(DevCmd, MissingEnvelopeIsRefused)
{
    EXPECT_EQ(RC_BAD_PARAM, sf_send_gw_dev_cmd(nullptr));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "sf_send_gw_dev_cmd", "Invalid Param"));
}

TEST_F(DevCmd, TheWholeInboundRoadEchoesAndDelivers)
{
    app::known_bool("sub01", 1, TRUE);
    app::known_value("sub01", 2, 40);

    ASSERT_EQ(RC_OK, send("{\"devId\":\"sub01\",\"ctype\":0,\"dps\":{\"1\":true,\"2\":40,\"6\":\"AQI=\"}}"));
    EXPECT_EQ(1u, fake::msgq::run_all());

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, FN, "Rev Cmd 1"));
    ASSERT_EQ(1u, app::raw_cmds().size());
    EXPECT_EQ((std::vector<uint8_t>{1, 2}), app::raw_cmds()[0].data);
    EXPECT_EQ(0u, app::raw_cmds()[0].answers_before);
    ASSERT_EQ(1u, fake::mqtt::queries().size());
    EXPECT_EQ("{\"dps\":{\"1\":true,\"2\":40},\"cid\":\"sub01\"}", fake::mqtt::queries()[0].text);
    ASSERT_EQ(1u, fake::lan::reports().size());
    const app::ObjCmd &c = only_obj();
    EXPECT_EQ(1u, c.answers_before);
    EXPECT_EQ("sub01", c.cid);
    EXPECT_EQ(DP_CMD_MQ, c.cmd_tp);
    ASSERT_EQ(2u, c.dps_cnt);
    EXPECT_EQ(1, c.dps[0].value.dp_bool);
    EXPECT_EQ(40, c.dps[1].value.dp_value);
    /* envelope copy, tree, records and the answer block are all released (checked at tear-down) */
}

TEST_F(DevCmd, ChannelIsCarriedIntoTheRecords)
{
    deliver("{\"cid\":\"sub01\",\"dps\":{\"1\":true}}", DP_CMD_LAN);

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, FN, "Rev Cmd 0"));
    EXPECT_EQ(DP_CMD_LAN, only_obj().cmd_tp);
}

TEST_F(DevCmd, GatewayIdInAnotherCaseMeansTheGatewayItself)
{
    app::known_bool("gw0001", 1, TRUE);

    deliver("{\"devId\":\"GW0001\",\"dps\":{\"1\":true}}");

    EXPECT_FALSE(only_obj().has_cid);
    ASSERT_EQ(1u, fake::mqtt::queries().size());
    EXPECT_EQ("{\"dps\":{\"1\":true}}", fake::mqtt::queries()[0].text);
}

TEST_F(DevCmd, NoTargetMeansTheGateway)
{
    deliver("{\"dps\":{\"1\":false}}");

    EXPECT_FALSE(only_obj().has_cid);
}

TEST_F(DevCmd, DevIdWinsOverCid)
{
    deliver("{\"devId\":\"sub02\",\"cid\":\"sub01\",\"dps\":{\"1\":true}}");

    EXPECT_EQ("sub02", only_obj().cid);
}

TEST_F(DevCmd, CidIsUsedWhenDevIdIsAbsent)
{
    deliver("{\"cid\":\"sub02\",\"dps\":{\"1\":true}}");

    EXPECT_EQ("sub02", only_obj().cid);
}

TEST_F(DevCmd, NullDevIdMeansTheGatewayWithoutFallingBackToCid)
{
    deliver("{\"devId\":null,\"cid\":\"sub01\",\"dps\":{\"1\":true}}");

    EXPECT_FALSE(only_obj().has_cid);
}

TEST_F(DevCmd, UnknownTransferTypeIsLoggedAndHandledAsZero)
{
    app::known_bool("sub01", 1, TRUE);

    deliver("{\"devId\":\"sub01\",\"ctype\":7,\"dps\":{\"1\":true}}");

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "dp transfer type error type is :7"));
    EXPECT_EQ(DTT_CTYPE_0, only_obj().dtt_tp);
    EXPECT_EQ(1u, only_obj().answers_before); /* echoed first, as type 0 */
}

TEST_F(DevCmd, TransferTypeIsCutToOneByte)
{
    deliver("{\"devId\":\"sub01\",\"ctype\":259,\"dps\":{\"1\":true}}");

    EXPECT_EQ(DTT_CTYPE_3, only_obj().dtt_tp);
}

TEST_F(DevCmd, MultiDpCommandIsForwardedAsItStandsAndNotEchoed)
{
    app::known_bool("sub01", 1, TRUE);
    const char *text = "{\"devId\":\"sub01\",\"ctype\":2,\"mbid\":\"m42\",\"dps\":{\"1\":true}}";

    deliver(text);

    ASSERT_EQ(1u, fake::mqtt::dp_reports().size());
    EXPECT_EQ(text, fake::mqtt::dp_reports()[0].text);
    EXPECT_EQ(0u, fake::mqtt::dp_reports()[0].timeout);
    EXPECT_EQ(&__sf_multi_dp_report_async, fake::mqtt::dp_reports()[0].cb);
    EXPECT_TRUE(fake::mqtt::queries().empty());
    EXPECT_EQ("m42", only_obj().mb_id);
    EXPECT_EQ(DTT_MULTI, only_obj().dtt_tp);
    fake::mqtt::complete(0, RC_OK);
}

TEST_F(DevCmd, MultiDpCommandWithoutMbidIsForwardedWithNullMessageId)
{
    deliver("{\"devId\":\"sub01\",\"ctype\":2,\"dps\":{\"1\":true}}");

    ASSERT_EQ(1u, fake::mqtt::dp_reports().size());
    EXPECT_FALSE(only_obj().has_mb_id);
    fake::mqtt::complete(0, RC_OK);
}

TEST_F(DevCmd, MbidIsIgnoredForOtherTransferTypes)
{
    deliver("{\"devId\":\"sub01\",\"ctype\":0,\"mbid\":\"m1\",\"dps\":{\"1\":true}}");

    EXPECT_FALSE(only_obj().has_mb_id);
    EXPECT_TRUE(fake::mqtt::dp_reports().empty());
}

TEST_F(DevCmd, RefusedMultiDpForwardIsLoggedAndTheCommandStillDelivered)
{
    fake::mqtt::push_dp_report_result(-9);

    deliver("{\"devId\":\"sub01\",\"ctype\":2,\"dps\":{\"1\":true}}");

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "mqc_prot_data_rept fails -9"));
    EXPECT_EQ(1u, app::obj_cmds().size());
}

TEST_F(DevCmd, UnknownDeviceIsLoggedAndEverythingReleased)
{
    deliver("{\"devId\":\"ghost\",\"dps\":{\"1\":true}}");

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_handle_recv_dp", "can't find device"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "__smt_frm_cmd_prep error:-1"));
    EXPECT_TRUE(app::obj_cmds().empty());
}

TEST_F(DevCmd, CommandWithoutDpsIsDroppedAndReleased)
{
    deliver("{\"devId\":\"sub01\",\"ctype\":7}");

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "dp transfer type error type is :7"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "cmd has no dps object"));
    EXPECT_TRUE(app::obj_cmds().empty());
    EXPECT_TRUE(fake::mqtt::dp_reports().empty());
}

TEST_F(DevCmd, MultiCommandWithoutDpsIsStillAnsweredThenDropped)
{
    deliver("{\"devId\":\"sub01\",\"ctype\":2,\"mbid\":\"m7\"}");

    ASSERT_EQ(1u, fake::mqtt::dp_reports().size());
    EXPECT_EQ("{\"devId\":\"sub01\",\"ctype\":2,\"mbid\":\"m7\"}", fake::mqtt::dp_reports()[0].text);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "cmd has no dps object"));
    EXPECT_TRUE(app::obj_cmds().empty());
    fake::mqtt::complete(0, RC_OK);
}

TEST_F(DevCmd, CommandWhoseDpsIsNotAnObjectIsDroppedAndReleased)
{
    deliver("{\"devId\":\"sub01\",\"dps\":[1,2]}");

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "cmd has no dps object"));
    EXPECT_TRUE(app::obj_cmds().empty());
}

TEST_F(DevCmd, CommandsAreHandledInArrivalOrder)
{
    ASSERT_EQ(RC_OK, send("{\"devId\":\"sub01\",\"dps\":{\"2\":1}}"));
    ASSERT_EQ(RC_OK, send("{\"devId\":\"sub01\",\"dps\":{\"2\":2}}"));

    EXPECT_EQ(2u, fake::msgq::run_all());

    ASSERT_EQ(2u, app::obj_cmds().size());
    EXPECT_EQ(1, app::obj_cmds()[0].dps[0].value.dp_value);
    EXPECT_EQ(2, app::obj_cmds()[1].dps[0].value.dp_value);
}

/* Fail the 1st, 2nd, ... allocation of the handler, with a fresh command each run. */
void sweep_handler(const char *text)
{
    size_t n = 1;
    for (; n < 200; ++n) {
        app::install();
        SF_GW_DEV_CMD_S cmd{DP_CMD_MQ, cJSON_Parse(text)};
        ASSERT_EQ(RC_OK, sf_send_gw_dev_cmd(&cmd));
        fake::mem::fail_nth(n);
        fake::msgq::run_all();
        const bool fired = fake::mem::failure_fired();
        fake::mem::fail_nth(0);
        fake::mqtt::complete_all(RC_OK);
        fake::lan::release_held();
        EXPECT_EQ(0u, fake::mem::live_blocks()) << "failing allocation " << n << "\n" << fake::mem::leak_report();
        EXPECT_EQ(0u, fake::rfc::live()) << "failing allocation " << n;
        if (!fired) {
            EXPECT_EQ(1u, app::obj_cmds().size());
            break;
        }
    }
    EXPECT_GT(n, 3u);
    EXPECT_LT(n, 200u);
}

TEST_F(DevCmd, AllocationFailuresOnTheEchoRoadCrashAndLeakNothing)
{
    app::known_bool("sub01", 1, TRUE);
    app::known_value("sub01", 2, 40);
    fake::lan::set_result(RC_OK);

    sweep_handler("{\"devId\":\"sub01\",\"dps\":{\"1\":true,\"2\":40,\"6\":\"AQI=\",\"99\":1}}");

    EXPECT_EQ(1u, app::raw_cmds().size());
    EXPECT_FALSE(fake::mqtt::queries().empty());
}

TEST_F(DevCmd, AllocationFailuresOnTheMultiDpRoadCrashAndLeakNothing)
{
    fake::lan::set_result(RC_OK);

    sweep_handler("{\"devId\":\"sub01\",\"ctype\":2,\"mbid\":\"m1\",\"dps\":{\"1\":true,\"6\":\"AQI=\"}}");

    EXPECT_EQ(1u, app::raw_cmds().size());
    EXPECT_FALSE(fake::mqtt::dp_reports().empty());
}

} // namespace
