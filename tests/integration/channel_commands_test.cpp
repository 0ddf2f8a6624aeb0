/*
 * Group, scene, query, echo and multi-DP commands from the cloud and from
 * LAN clients, and the answers each channel carries back.
 */
#include "gateway/edge/wire_validate.h"
#include "support/channel_fixture.h"
#include "support/lan_peer.h"

#include "smart_frame/smart_frame.h"

namespace it {
namespace {

class ChannelCommands : public ChannelTest {
protected:
    /* The next LAN frame of the given type, skipping others. */
    std::string next_lan_frame(const std::string &type_prefix)
    {
        std::string frame;
        while (lan_.read_line(&frame, seconds(10))) {
            if (frame.rfind(type_prefix, 0) == 0) {
                return frame;
            }
        }
        return "";
    }
};

TEST_F(ChannelCommands, MqttGroupCommandIsAnsweredUnderProtocol203)
{
    start({{"sub01", 1, 1}, {"sub02", 1, 1}});

    ASSERT_TRUE(cloud_.publish(topic("cmd/group"), "{\"action\":0,\"cids\":[\"sub01\",\"sub02\"],\"gid\":\"5\"}"));

    EXPECT_TRUE(cloud_.wait_until(
        [](const std::vector<Received> &all) {
            return has_uplink(all, MQC_PRO_GROUP, "{\"action\":0,\"rets\":[0,0],\"gid\":\"5\"}");
        },
        seconds(10)));
    EXPECT_EQ((std::vector<std::string>{"group 0 sub01 5", "group 0 sub02 5"}), app_calls());
}

TEST_F(ChannelCommands, LanGroupCommandIsAnsweredOnTheLanWithFrame208)
{
    start({{"sub01", 1, 1}});
    start_lan_client();

    ASSERT_TRUE(lan_.send_line("{\"cmd\":\"group\",\"data\":{\"action\":1,\"cids\":[\"sub01\"],\"gid\":\"7\"}}"));

    EXPECT_EQ("{\"type\":208,\"flag\":0,\"data\":{\"action\":1,\"rets\":[0],\"gid\":\"7\"}}",
              next_lan_frame("{\"type\":208"));
    EXPECT_EQ(std::vector<std::string>{"group 1 sub01 7"}, app_calls());
}

TEST_F(ChannelCommands, MalformedLanGroupCommandGetsTheFailureFrame)
{
    // The module's own answer, behind the edge check (which would refuse this first: wire_validation_test).
    wire_set_command_checks(FALSE);
    start({{"sub01", 1, 1}});
    start_lan_client();

    ASSERT_TRUE(lan_.send_line("{\"cmd\":\"group\",\"data\":{\"action\":1,\"cids\":[],\"gid\":\"7\"}}"));

    EXPECT_EQ("{\"type\":208,\"flag\":1,\"data\":\"scene oper failed\"}", next_lan_frame("{\"type\":208"));
}

TEST_F(ChannelCommands, SceneCommandFromTheLanIsAnsweredOverMqttUnderProtocol205)
{
    start({{"sub01", 1, 1}});
    start_lan_client();

    ASSERT_TRUE(lan_.send_line(
        "{\"cmd\":\"scene\",\"data\":{\"action\":0,\"cids\":[\"sub01\"],\"sid\":\"01\",\"gid\":\"5\"}}"));

    EXPECT_TRUE(cloud_.wait_until(
        [](const std::vector<Received> &all) {
            return has_uplink(all, MQC_PRO_SCENE,
                              "{\"action\":0,\"cids\":[\"sub01\"],\"rets\":[0],\"sid\":\"01\",\"gid\":\"5\"}");
        },
        seconds(10)));
}

TEST_F(ChannelCommands, CloudQueryReachesTheApplicationOncePerDevice)
{
    start({{"sub01", 1, 1}, {"sub02", 1, 1}});

    ASSERT_TRUE(cloud_.publish(topic("cmd/query"), "{\"cids\":[\"sub01\",\"sub02\"],\"dpids\":[1,2]}"));
    ASSERT_TRUE(cloud_.publish(topic("cmd/query"), "{\"dpids\":[2]}"));

    ASSERT_TRUE(wait_app_calls(3, seconds(10)));
    EXPECT_EQ((std::vector<std::string>{"query sub01 1 2", "query sub02 1 2", std::string("query ") + GW_ID + " 2"}),
              app_calls());
}

TEST_F(ChannelCommands, QueryCallbackMayReportSynchronouslyBecauseItRunsOffTheNetworkThread)
{
    start({{"sub01", 1, 1}});
    std::atomic<int> sync_result{1};
    set_query_hook([&](const std::string &cid) {
        sync_result = sf_stat_dp_report_sync(cid.c_str(), "{\"2\":77}", nullptr, 5, FALSE);
    });

    ASSERT_TRUE(cloud_.publish(topic("cmd/query"), "{\"cids\":[\"sub01\"],\"dpids\":[2]}"));

    ASSERT_TRUE(wait_app_calls(1, seconds(15)));
    EXPECT_EQ(RC_OK, sync_result.load());
    EXPECT_EQ(PV_STAT_CLOUD, pv_stat("sub01", 2));
    EXPECT_TRUE(cloud_.wait_until(
        [](const std::vector<Received> &all) {
            return has_uplink(all, MQC_PRO_DP_REPORT, "{\"dps\":{\"2\":77},\"cid\":\"sub01\"}");
        },
        seconds(10)));
}

TEST_F(ChannelCommands, CommandThatChangesNothingIsEchoedUnderProtocol16AndToTheLan)
{
    start({{"sub01", 1, 1}});
    start_lan_client();
    ASSERT_EQ(RC_OK, sf_obj_dp_report_async("sub01", "{\"1\":true}", FALSE));
    ASSERT_TRUE(eventually([] { return pv_stat("sub01", 1) == PV_STAT_CLOUD; }, seconds(10)));

    ASSERT_TRUE(cloud_.publish(topic("cmd/dp"), "{\"devId\":\"sub01\",\"dps\":{\"1\":true}}"));

    EXPECT_TRUE(cloud_.wait_until(
        [](const std::vector<Received> &all) {
            return has_uplink(all, MQC_PRO_DP_QUERY, "{\"dps\":{\"1\":true},\"cid\":\"sub01\"}");
        },
        seconds(10)));
    // The report itself, then the echo.
    next_lan_frame("{\"type\":4");
    const std::string echo = next_lan_frame("{\"type\":4");
    EXPECT_NE(std::string::npos, echo.find("\"data\":{\"dps\":{\"1\":true},\"cid\":\"sub01\"}")) << echo;
}

TEST_F(ChannelCommands, MultiDpCommandIsAnsweredAsItCameUnderProtocol4)
{
    start({{"sub01", 1, 1}});
    const std::string command = "{\"devId\":\"sub01\",\"ctype\":2,\"mbid\":\"m-1\",\"dps\":{\"2\":9}}";

    ASSERT_TRUE(cloud_.publish(topic("cmd/dp"), command));

    EXPECT_TRUE(cloud_.wait_until(
        [&](const std::vector<Received> &all) { return has_uplink(all, MQC_PRO_DP_REPORT, command); },
        seconds(10)));
    ASSERT_TRUE(wait_obj_cmds([](const std::vector<ObjCmd> &all) { return !all.empty(); }, seconds(10)));
    EXPECT_EQ(2, obj_cmds()[0].dtt_tp);
}

} // namespace
} // namespace it
