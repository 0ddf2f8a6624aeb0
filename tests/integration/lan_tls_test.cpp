/*
 * The LAN channel in TLS 1.3 with the PSK of the local key: who gets in
 * (the key proved by the handshake, never sent), how a failed or stalled
 * handshake ends, what a key change does, and how a client written for
 * the plain mode still works through TLS.
 */
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <sstream>
#include <vector>

#include "port/posix/metrics/metrics.h"
#include "port/posix/runtime/posix_runtime.h"
#include "services/uni_log.h"
#include "support/channel_fixture.h"
#include "support/lan_intruders.h"
#include "support/lan_peer.h"
#include "support/stderr_capture.h"

namespace it {
namespace {

const std::string GREETING = std::string("{\"type\":1,\"flag\":0,\"data\":{\"gwId\":\"") + GW_ID + "\"}}";

/* The first bytes of a ClientHello: a handshake record that announces 512 bytes and never sends them. */
const char STALLED_HELLO[] = "\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03";

/* Every captured log line that contains needle. */
std::vector<std::string> log_lines(const StderrCapture &log, const std::string &needle)
{
    std::vector<std::string> found;
    std::istringstream lines(log.text());
    for (std::string line; std::getline(lines, line);) {
        if (line.find(needle) != std::string::npos) {
            found.push_back(line);
        }
    }
    return found;
}

class LanTls : public ChannelTest {};

TEST_F(LanTls, ClientWithTheKeysPskIsGreetedWithoutSendingTheKey)
{
    start({}, {}, false);
    start_lan();
    LanPeer peer;
    ASSERT_TRUE(peer.connect(lan_bound_port())) << peer.why();
    std::string hello;
    ASSERT_TRUE(peer.read_line(&hello, seconds(5)));
    EXPECT_EQ(GREETING, hello);
    EXPECT_EQ(1u, lan_authed_client_count());
}

TEST_F(LanTls, HandshakeWithAWrongKeyFailsIsLoggedOnceAndCounted)
{
    sf_metrics::reset();
    uni_log_set_level(LOG_LEVEL_PROGRESS); // the failure's line is at the progress level
    StderrCapture log;
    start({}, {}, false);
    start_lan();
    LanPeer bad;
    EXPECT_FALSE(bad.connect(lan_bound_port(), "lan-key-for-tests-0002"));
    EXPECT_NE(std::string::npos, bad.why().find("TLS handshake failed")) << bad.why();
    ASSERT_TRUE(eventually([] { return lan_stats_now().handshakes_failed == 1; }, seconds(10)));
    ASSERT_TRUE(log.wait_for(": TLS handshake failed: ", seconds(10)));
    const std::vector<std::string> lines = log_lines(log, ": TLS handshake failed: ");
    ASSERT_EQ(1u, lines.size()) << log.text();
    EXPECT_NE(std::string::npos, lines[0].find(" PROG ")) << lines[0];
    EXPECT_NE(std::string::npos, lines[0].find("LAN client 127.0.0.1:")) << lines[0];
    EXPECT_EQ(1u, sf_metrics::g_counters[sf_metrics::LanHandshakeFailed].load());
    EXPECT_EQ(0u, lan_authed_client_count());
}

TEST_F(LanTls, PlainTextClientIsRefusedWithoutAFrame)
{
    start({}, {}, false);
    start_lan();
    lan_peers_speak_plain(true); // an old client against the TLS channel
    LanPeer old;
    ASSERT_TRUE(old.connect(lan_bound_port()));
    ASSERT_TRUE(old.send_line(std::string("{\"cmd\":\"auth\",\"key\":\"") + LOCAL_KEY + "\"}"));
    std::string got;
    old.closed_without_data(seconds(10), &got); // at most a TLS alert
    EXPECT_TRUE(old.closed());
    EXPECT_EQ(std::string::npos, got.find('{')) << got;
    EXPECT_TRUE(eventually([] { return lan_stats_now().handshakes_failed == 1; }, seconds(10)));
    EXPECT_EQ(0u, lan_authed_client_count());
}

TEST_F(LanTls, HandshakeNotFinishedInTimeIsClosed)
{
    start({}, {}, false);
    LAN_CONFIG_S cfg{};
    cfg.handshake_timeout_ms = 300;
    start_lan_with(cfg, false);
    const int fd = connect_raw(lan_bound_port());
    ASSERT_GE(fd, 0);
    ASSERT_EQ(static_cast<ssize_t>(sizeof STALLED_HELLO - 1), ::send(fd, STALLED_HELLO, sizeof STALLED_HELLO - 1, MSG_NOSIGNAL));
    pollfd pfd{fd, POLLIN, 0};
    ASSERT_EQ(1, ::poll(&pfd, 1, 10000)) << "the stalled handshake was not closed";
    char byte = 0;
    EXPECT_EQ(0, ::recv(fd, &byte, 1, 0)); // closed without a word
    ::close(fd);
    EXPECT_EQ(1u, lan_stats_now().handshakes_failed);
    EXPECT_EQ(0u, lan_stats_now().pending_clients);
}

TEST_F(LanTls, ClientsStalledMidHandshakeDoNotLockOutAClientWithTheKey)
{
    start({}, {}, false);
    start_lan();
    const int port = lan_bound_port();

    // Sixteen connections that begin a handshake and stall in it, each
    // reopened as soon as the gateway closes it.
    auto intruders = std::make_unique<Intruders>(port, 16, std::string(STALLED_HELLO, sizeof STALLED_HELLO - 1));
    ASSERT_TRUE(eventually([&] { return intruders->opened() >= 16 && lan_stats_now().pending_clients >= 2; },
                           seconds(10)));

    int admitted = 0;
    for (int attempt = 0; attempt < 15; ++attempt) {
        LanPeer peer;
        std::string hello;
        if (peer.connect(port) && peer.read_line(&hello, seconds(5)) && hello == GREETING) {
            ++admitted;
        }
    }
    intruders.reset();

    RecordProperty("admitted_of_15", std::to_string(admitted));
    EXPECT_GE(admitted, 14);
    EXPECT_GT(lan_stats_now().pending_evicted, 0u);
}

TEST_F(LanTls, NewLocalKeyClosesTheOldKeysConnectionsAndOnlyItWorksAfterwards)
{
    start({}, {}, false);
    start_lan();
    LanPeer old_key;
    EXPECT_EQ(GREETING, authenticate(&old_key));
    EXPECT_EQ(RC_OK, lan_set_local_key(LOCAL_KEY)); // the same key: nothing changes
    EXPECT_EQ(0u, lan_stats_now().closed_for_key_change);

    ASSERT_EQ(RC_OK, lan_set_local_key("lan-key-for-tests-0003"));
    std::string got;
    EXPECT_TRUE(old_key.closed_without_data(seconds(10), &got)) << got;
    EXPECT_EQ(1u, lan_stats_now().closed_for_key_change);

    LanPeer again;
    EXPECT_FALSE(again.connect(lan_bound_port()));
    LanPeer rotated;
    ASSERT_TRUE(rotated.connect(lan_bound_port(), "lan-key-for-tests-0003")) << rotated.why();
    std::string hello;
    ASSERT_TRUE(rotated.read_line(&hello, seconds(5)));
    EXPECT_EQ(GREETING, hello);
    EXPECT_EQ(RC_BAD_PARAM, lan_set_local_key(""));
}

TEST_F(LanTls, KeyChangeWithoutAChannelIsRefused)
{
    EXPECT_EQ(RC_BAD_PARAM, lan_set_local_key("lan-key-for-tests-0003"));
}

TEST_F(LanTls, AuthFrameOfAPlainClientIsPassedOverAndAWrongOneCloses)
{
    start({{"sub01", 1, 1}}, {}, false);
    start_lan();
    LanPeer good;
    ASSERT_EQ(GREETING, authenticate(&good));
    ASSERT_TRUE(good.send_line(std::string("{\"cmd\":\"auth\",\"key\":\"") + LOCAL_KEY + "\"}"));
    ASSERT_TRUE(good.send_line("{\"cmd\":\"group\",\"data\":{\"action\":1,\"cids\":[\"sub01\"],\"gid\":\"7\"}}"));
    std::string frame;
    ASSERT_TRUE(good.read_line(&frame, seconds(10)));
    EXPECT_EQ("{\"type\":208,\"flag\":0,\"data\":{\"action\":1,\"rets\":[0],\"gid\":\"7\"}}", frame);

    LanPeer bad;
    ASSERT_EQ(GREETING, authenticate(&bad));
    ASSERT_TRUE(bad.send_line(std::string("{\"cmd\":\"auth\",\"key\":\"") + LOCAL_KEY + "\\u0000x\"}"));
    std::string got;
    EXPECT_TRUE(bad.closed_without_data(seconds(10), &got)) << got;
    EXPECT_EQ(1u, lan_stats_now().auth_refused);
}

} // namespace
} // namespace it
