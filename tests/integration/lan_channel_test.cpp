/*
 * The TCP LAN channel: authentication, report frames, commands from LAN
 * clients, and the -940 answer when nobody can take a report.
 */
#include "support/blocks.h"
#include "support/channel_fixture.h"
#include "support/lan_peer.h"
#include "support/stderr_capture.h"

#include "services/lan_channel.h"
#include "smart_frame/smart_frame.h"

namespace it {
namespace {

class LanChannel : public ChannelTest {};

TEST_F(LanChannel, AuthenticatedClientIsGreetedWithTheGatewayId)
{
    start({}, {}, false);
    start_lan();
    LanPeer peer;
    EXPECT_EQ(std::string("{\"type\":1,\"flag\":0,\"data\":{\"gwId\":\"") + GW_ID + "\"}}", authenticate(&peer));
    EXPECT_TRUE(eventually([] { return lan_authed_client_count() == 1; }, seconds(5)));
}

TEST_F(LanChannel, ReportWithoutAnAuthenticatedClientIsNotTaken)
{
    start({}, {}, false);
    start_lan();
    lan_peers_speak_plain(true); // a TCP connection that has not begun its handshake
    LanPeer unauthenticated;
    ASSERT_TRUE(unauthenticated.connect(lan_bound_port()));
    RFC_DATA_S *block = make_block("{\"dps\":{\"1\":true}}", 5);

    EXPECT_EQ(RC_LAN_NOT_SENT, lan_dp_sata_report(block, LAN_FRAME_DP_REPORT));
    EXPECT_EQ(1u, references(block));
    EXPECT_EQ(RC_LAN_NOT_SENT, lan_data_report_cb(LAN_FRAME_GRP_ANSWER, 0, "{}", 2));
    put_rfc_data(block);
}

TEST_F(LanChannel, ClientWithAWrongKeyIsClosedWithoutReceivingAnything)
{
    start({}, {}, false);
    start_lan(0, 0, true); // the auth frame of the plain mode
    LanPeer good;
    authenticate(&good);
    LanPeer bad;
    ASSERT_TRUE(bad.connect(lan_bound_port()));
    ASSERT_TRUE(bad.send_line("{\"cmd\":\"auth\",\"key\":\"lan-key-for-tests-0002\"}"));
    RFC_DATA_S *block = make_block("{\"dps\":{\"1\":true}}", 6);
    ASSERT_EQ(RC_OK, lan_dp_sata_report(block, LAN_FRAME_DP_REPORT));

    std::string got;
    EXPECT_TRUE(bad.closed_without_data(seconds(10), &got)) << got;
    std::string frame;
    ASSERT_TRUE(good.read_line(&frame, seconds(5)));
    EXPECT_EQ("{\"type\":4,\"serno\":6,\"data\":{\"dps\":{\"1\":true}}}", frame);
}

TEST_F(LanChannel, ClientThatCommandsBeforeAuthenticatingIsClosed)
{
    start({}, {}, false);
    start_lan(0, 0, true); // the auth frame of the plain mode
    LanPeer peer;
    ASSERT_TRUE(peer.connect(lan_bound_port()));
    ASSERT_TRUE(peer.send_line("{\"cmd\":\"dp\",\"data\":{\"dps\":{\"1\":true}}}"));
    std::string got;
    EXPECT_TRUE(peer.closed_without_data(seconds(10), &got)) << got;
    EXPECT_TRUE(obj_cmds().empty());
}

TEST_F(LanChannel, SilentClientIsClosedAfterTheAuthenticationTime)
{
    start({}, {}, false);
    start_lan(300, 0, true); // the auth frame of the plain mode
    LanPeer peer;
    ASSERT_TRUE(peer.connect(lan_bound_port()));
    std::string got;
    EXPECT_TRUE(peer.closed_without_data(seconds(10), &got)) << got;
}

TEST_F(LanChannel, ReportBlockReachesEveryClientAndIsReleasedOnceWritten)
{
    start({}, {}, false);
    start_lan();
    LanPeer a;
    LanPeer b;
    authenticate(&a);
    authenticate(&b);
    ASSERT_TRUE(eventually([] { return lan_authed_client_count() == 2; }, seconds(5)));
    RFC_DATA_S *block = make_block("{\"dps\":{\"2\":7},\"cid\":\"sub01\"}", 12);
    get_rfc_data(block); // the reference the channel takes; ours stays

    ASSERT_EQ(RC_OK, lan_dp_sata_report(block, LAN_FRAME_DP_REPORT));

    const std::string expected = "{\"type\":4,\"serno\":12,\"data\":{\"dps\":{\"2\":7},\"cid\":\"sub01\"}}";
    std::string frame;
    ASSERT_TRUE(a.read_line(&frame, seconds(5)));
    EXPECT_EQ(expected, frame);
    ASSERT_TRUE(b.read_line(&frame, seconds(5)));
    EXPECT_EQ(expected, frame);
    EXPECT_TRUE(eventually([&] { return references(block) == 1; }, seconds(5)));
    put_rfc_data(block);
}

TEST_F(LanChannel, DataReportFrameCarriesItsTypeAndFlag)
{
    start({}, {}, false);
    start_lan();
    LanPeer peer;
    authenticate(&peer);

    ASSERT_EQ(RC_OK, lan_data_report_cb(LAN_FRAME_GRP_ANSWER, 1, "scene oper failed", 17));
    ASSERT_EQ(RC_OK, lan_data_report_cb(LAN_FRAME_GRP_ANSWER, 0, "{\"action\":0,\"rets\":[0],\"gid\":\"5\"}", 34));

    std::string frame;
    ASSERT_TRUE(peer.read_line(&frame, seconds(5)));
    EXPECT_EQ("{\"type\":208,\"flag\":1,\"data\":\"scene oper failed\"}", frame);
    ASSERT_TRUE(peer.read_line(&frame, seconds(5)));
    EXPECT_EQ("{\"type\":208,\"flag\":0,\"data\":{\"action\":0,\"rets\":[0],\"gid\":\"5\"}}", frame);
}

TEST_F(LanChannel, AuthenticatedClientReceivesReportsAndCanCommand)
{
    start({{"sub01", 1, 1}});
    start_lan();
    LanPeer peer;
    authenticate(&peer);

    ASSERT_EQ(RC_OK, sf_obj_dp_report_async("sub01", "{\"1\":true}", FALSE));
    std::string frame;
    ASSERT_TRUE(peer.read_line(&frame, seconds(5)));
    EXPECT_NE(std::string::npos, frame.find("\"type\":4,\"serno\":")) << frame;
    EXPECT_NE(std::string::npos, frame.find("\"data\":{\"dps\":{\"1\":true},\"cid\":\"sub01\"}}")) << frame;

    ASSERT_TRUE(peer.send_line("{\"cmd\":\"dp\",\"data\":{\"devId\":\"sub01\",\"dps\":{\"2\":42}}}"));
    ASSERT_TRUE(wait_obj_cmds([](const std::vector<ObjCmd> &all) { return !all.empty(); }, seconds(10)));
    const ObjCmd cmd = obj_cmds().front();
    EXPECT_EQ(DP_CMD_LAN, cmd.cmd_tp);
    EXPECT_EQ("sub01", cmd.cid);
    ASSERT_EQ(1u, cmd.dps.size());
    EXPECT_EQ(2, cmd.dps[0].dpid);
    EXPECT_EQ(42, cmd.dps[0].number);
}

TEST_F(LanChannel, ConnectionsBeyondTheLimitAreClosedAtOnce)
{
    start({}, {}, false);
    LAN_CONFIG_S cfg{};
    cfg.max_clients = 1;
    start_lan_with(cfg, false);
    LanPeer first;
    authenticate(&first);
    LanPeer second;
    // Closed at accept: the handshake ends before it began.
    EXPECT_FALSE(second.connect(lan_bound_port()));
    EXPECT_EQ(0u, lan_stats_now().handshakes_failed);
    EXPECT_EQ(1u, lan_authed_client_count());
}

TEST_F(LanChannel, BadConfigurationIsRefused)
{
    start({}, {}, false);
    LAN_CONFIG_S cfg{};
    cfg.local_key = ""; // an empty key would let anybody in
    EXPECT_EQ(RC_BAD_PARAM, lan_start(&cfg));
    EXPECT_EQ(RC_BAD_PARAM, lan_start(nullptr));
    cfg.local_key = LOCAL_KEY;
    cfg.bind_addr = "not-an-address";
    EXPECT_EQ(RC_BAD_PARAM, lan_start(&cfg));
    cfg.bind_addr = "0.0.0.0";
    cfg.security = LAN_SECURITY_PLAIN; // the key readable on the network, without the operator's consent
    EXPECT_EQ(RC_BAD_PARAM, lan_start(&cfg));
    cfg.security = 7;
    EXPECT_EQ(RC_BAD_PARAM, lan_start(&cfg));
    EXPECT_EQ(0, lan_bound_port());
}

TEST_F(LanChannel, KeyFollowedByANulByteIsRefused)
{
    start({}, {}, false);
    start_lan(0, 0, true); // the auth frame of the plain mode
    LanPeer bad;
    ASSERT_TRUE(bad.connect(lan_bound_port()));
    // cJSON ends the decoded text at the NUL: compared as a C string, this was the key.
    ASSERT_TRUE(bad.send_line(std::string("{\"cmd\":\"auth\",\"key\":\"") + LOCAL_KEY + "\\u0000anything\"}"));
    std::string got;
    EXPECT_TRUE(bad.closed_without_data(seconds(10), &got)) << got;
    EXPECT_EQ(1u, lan_stats_now().auth_refused);
    LanPeer good; // the key alone still works
    ASSERT_TRUE(good.connect(lan_bound_port()));
    ASSERT_TRUE(good.send_line(std::string("{\"cmd\":\"auth\",\"key\":\"") + LOCAL_KEY + "\"}"));
    std::string hello;
    ASSERT_TRUE(good.read_line(&hello, seconds(5)));
    EXPECT_EQ(std::string("{\"type\":1,\"flag\":0,\"data\":{\"gwId\":\"") + GW_ID + "\"}}", hello);
}

TEST_F(LanChannel, HalfClosedClientGetsItsAnswersBeforeTheClose)
{
    for (const bool plain : {true, false}) {
        SCOPED_TRACE(plain ? "plain" : "tls");
        if (!plain) {
            lan_stop();
        } else {
            start({{"sub01", 1, 1}}, {}, false);
        }
        start_lan(0, 0, plain);
        LanPeer peer;
        authenticate(&peer);
        ASSERT_TRUE(peer.send_line("{\"cmd\":\"group\",\"data\":{\"action\":1,\"cids\":[\"sub01\"],\"gid\":\"7\"}}"));
        peer.shutdown_write(); // shutdown(SHUT_WR) on the real socket: the client sends nothing more
        std::string frame;
        ASSERT_TRUE(peer.read_line(&frame, seconds(10)));
        EXPECT_EQ("{\"type\":208,\"flag\":0,\"data\":{\"action\":1,\"rets\":[0],\"gid\":\"7\"}}", frame);
        std::string rest;
        EXPECT_TRUE(peer.closed_without_data(seconds(10), &rest)) << rest; // then the gateway closes
    }
}

TEST_F(LanChannel, PlainTcpOnTheNetworkStartsWithTheOperatorsConsent)
{
    start({}, {}, false);
    LAN_CONFIG_S cfg{};
    cfg.bind_addr = "0.0.0.0";
    cfg.allow_plain_on_network = TRUE;
    start_lan_with(cfg, true);
    LanPeer peer;
    EXPECT_EQ(std::string("{\"type\":1,\"flag\":0,\"data\":{\"gwId\":\"") + GW_ID + "\"}}", authenticate(&peer));
}

} // namespace
} // namespace it
