/*
 * Inbound documents that must be dropped, with a log line, without
 * crashing anything or stopping the commands that follow.
 */
#include "support/channel_fixture.h"
#include "support/lan_peer.h"
#include "support/stderr_capture.h"

namespace it {
namespace {

class MalformedInbound : public ChannelTest {};

std::string nested(size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

TEST_F(MalformedInbound, MqttDocumentsOfEveryBadKindAreDroppedWithALogLine)
{
    StderrCapture log;
    start({{"sub01", 1, 1}});

    ASSERT_TRUE(cloud_.publish(topic("cmd/dp"), "not json at all"));
    ASSERT_TRUE(cloud_.publish(topic("cmd/dp"), "[1,2,3]"));
    ASSERT_TRUE(cloud_.publish(topic("cmd/group"), nested(20000)));
    ASSERT_TRUE(cloud_.publish(topic("cmd/query"), "{\"cids\":\"sub01\",\"dpids\":[1]}"));
    ASSERT_TRUE(cloud_.publish(topic("cmd/query"), "{\"dpids\":[\"one\"]}"));
    ASSERT_TRUE(cloud_.publish(topic("cmd/unknown"), "{}"));
    ASSERT_TRUE(cloud_.publish(topic("cmd/dp"), "{\"dps\":{}} trailing"));
    ASSERT_TRUE(cloud_.publish(topic("cmd/dp"), ""));

    EXPECT_TRUE(log.wait_for("dp command dropped: not JSON", seconds(10)));
    EXPECT_TRUE(log.wait_for("dp command dropped: not a JSON object", seconds(10)));
    EXPECT_TRUE(log.wait_for("group command dropped: document nested too deep", seconds(10)));
    EXPECT_TRUE(log.wait_for("query dropped: \"dpids\" must be an array and \"cids\" an array or null", seconds(10)));
    EXPECT_TRUE(log.wait_for("query dropped: every \"dpids\" entry must be a number", seconds(10)));
    EXPECT_TRUE(log.wait_for("unknown command topic", seconds(10)));
    EXPECT_TRUE(log.wait_for("dp command dropped: bytes after the document", seconds(10)));
    EXPECT_TRUE(log.wait_for("dp command dropped: empty document", seconds(10)));
    EXPECT_EQ(1, get_mqc_conn_stat());
}

// MQTT 3.1.1 cannot tell the broker our limit: the client reads the
// document and drops it. (Under MQTT 5 the broker never sends it.)
TEST_F(MalformedInbound, AnOversizedMqtt311DocumentIsDroppedWithALogLine)
{
    StderrCapture log;
    protocol_ = 311;
    start({{"sub01", 1, 1}});

    ASSERT_TRUE(cloud_.publish(topic("cmd/scene"), "{\"x\":\"" + std::string(70000, 'a') + "\"}"));

    EXPECT_TRUE(log.wait_for("scene command dropped: 70008 bytes, at most 65536 accepted (1 inbound commands dropped)",
                             seconds(10)));
    MQC_INBOUND_STAT_S stat{};
    mqc_get_inbound_stat(&stat);
    EXPECT_EQ(1u, stat.dropped);
    EXPECT_EQ(1, get_mqc_conn_stat());
}

TEST_F(MalformedInbound, AValidMqttCommandAfterMalformedOnesStillReachesTheApplication)
{
    start({{"sub01", 1, 1}});

    ASSERT_TRUE(cloud_.publish(topic("cmd/dp"), "{\"devId\":"));
    ASSERT_TRUE(cloud_.publish(topic("cmd/dp"), nested(64)));
    ASSERT_TRUE(cloud_.publish(topic("cmd/dp"), "{\"devId\":\"sub01\",\"dps\":{\"1\":true}}"));

    ASSERT_TRUE(wait_obj_cmds([](const std::vector<ObjCmd> &all) { return !all.empty(); }, seconds(10)));
    EXPECT_EQ(1u, obj_cmds().size());
    EXPECT_EQ("sub01", obj_cmds()[0].cid);
}

TEST_F(MalformedInbound, LanFramesOfEveryBadKindAreDroppedAndTheConnectionStays)
{
    StderrCapture log;
    start({{"sub01", 1, 1}}, {}, false);
    start_lan_client();

    ASSERT_TRUE(lan_.send_line("garbage"));
    ASSERT_TRUE(lan_.send_line("{\"cmd\":\"reboot\",\"data\":{}}"));
    ASSERT_TRUE(lan_.send_line("{\"cmd\":\"dp\"}"));
    ASSERT_TRUE(lan_.send_line("{\"cmd\":\"dp\",\"data\":[1]}"));
    ASSERT_TRUE(lan_.send_line("{\"cmd\":\"group\",\"data\":" + nested(1000) + "}"));

    EXPECT_TRUE(log.wait_for("dropped: not JSON", seconds(10)));
    EXPECT_TRUE(log.wait_for("needs a known \"cmd\" and a \"data\" object", seconds(10)));
    EXPECT_TRUE(log.wait_for("dp command dropped: not a JSON object or unknown kind", seconds(10)));
    EXPECT_TRUE(log.wait_for("dropped: document nested too deep", seconds(10)));
    EXPECT_EQ(1u, lan_authed_client_count());
}

TEST_F(MalformedInbound, LanLineLongerThanTheLimitClosesTheClient)
{
    start({}, {}, false);
    start_lan_client();

    ASSERT_TRUE(lan_.send_line(std::string(70000, 'x')));

    std::string rest;
    EXPECT_TRUE(lan_.closed_without_data(seconds(10), &rest)) << rest;
    EXPECT_TRUE(eventually([] { return lan_authed_client_count() == 0; }, seconds(10)));
}

} // namespace
} // namespace it
