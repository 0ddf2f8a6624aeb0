/*
 * Who the LAN channel lets in and for how long: connections without the
 * key cannot keep a client with the key out, refused authentications are
 * logged where an operator sees them, and an authenticated client that
 * stalls or falls silent is closed.
 */
#include <sys/socket.h>

#include <memory>
#include <sstream>

#include "support/channel_fixture.h"
#include "support/lan_intruders.h"
#include "support/lan_peer.h"
#include "support/stderr_capture.h"

namespace it {
namespace {

/* The captured log line that contains needle, or "". */
std::string log_line(const StderrCapture &log, const std::string &needle)
{
    std::istringstream lines(log.text());
    for (std::string line; std::getline(lines, line);) {
        if (line.find(needle) != std::string::npos) {
            return line;
        }
    }
    return "";
}

class LanAdmission : public ChannelTest {};

TEST_F(LanAdmission, ClientsWithoutTheKeyCannotKeepAClientWithTheKeyOut)
{
    start({}, {}, false);
    start_lan();
    const int port = lan_bound_port();

    // Eight connections that never authenticate, each reopened as soon as
    // the gateway closes it.
    auto intruders = std::make_unique<Intruders>(port, 8);
    ASSERT_TRUE(eventually([&] { return intruders->opened() >= 8 && lan_stats_now().pending_clients >= 2; },
                           seconds(10)));

    int admitted = 0;
    for (int attempt = 0; attempt < 15; ++attempt) {
        LanPeer peer;
        std::string hello;
        if (peer.connect(port) && peer.send_line(std::string("{\"cmd\":\"auth\",\"key\":\"") + LOCAL_KEY + "\"}") &&
            peer.read_line(&hello, seconds(5)) && hello.find(GW_ID) != std::string::npos) {
            ++admitted;
        }
    }
    intruders.reset();

    EXPECT_EQ(15, admitted);
    EXPECT_GT(lan_stats_now().pending_evicted, 0u);
}

TEST_F(LanAdmission, RefusedAuthenticationIsLoggedAsAWarning)
{
    StderrCapture log;
    start({}, {}, false);
    start_lan(0, 0, true); // the auth frame of the plain mode
    LanPeer bad;
    ASSERT_TRUE(bad.connect(lan_bound_port()));
    ASSERT_TRUE(bad.send_line("{\"cmd\":\"auth\",\"key\":\"not-the-key\"}"));
    std::string got;
    EXPECT_TRUE(bad.closed_without_data(seconds(10), &got)) << got;

    ASSERT_TRUE(log.wait_for("refused: wrong key or not an authentication", seconds(10)));
    const std::string line = log_line(log, "refused: wrong key or not an authentication");
    EXPECT_NE(std::string::npos, line.find(" WARN ")) << line;
    EXPECT_NE(std::string::npos, line.find(": LAN client 127.0.0.1:")) << line;
    EXPECT_EQ(1u, lan_stats_now().auth_refused);
}

TEST_F(LanAdmission, AuthenticatedClientStalledInAFrameIsClosed)
{
    start({}, {}, false);
    LAN_CONFIG_S cfg{};
    cfg.frame_timeout_ms = 300;
    ASSERT_EQ(RC_OK, lan_start(&cfg));
    LanPeer peer;
    authenticate(&peer);
    ASSERT_EQ(1u, lan_authed_client_count());
    ASSERT_TRUE(peer.send_bytes("{\"cmd\":\"dp\",\"da"));

    std::string got;
    EXPECT_TRUE(peer.closed_without_data(seconds(20), &got)) << got;
    EXPECT_TRUE(eventually([] { return lan_authed_client_count() == 0; }, seconds(10)));
    EXPECT_EQ(1u, lan_stats_now().timed_out);
}

TEST_F(LanAdmission, SilentAuthenticatedClientIsClosedAfterTheIdleTime)
{
    start({}, {}, false);
    LAN_CONFIG_S cfg{};
    cfg.idle_timeout_ms = 300;
    ASSERT_EQ(RC_OK, lan_start(&cfg));
    LanPeer peer;
    authenticate(&peer);

    std::string got;
    EXPECT_TRUE(peer.closed_without_data(seconds(20), &got)) << got;
    EXPECT_EQ(1u, lan_stats_now().timed_out);
}

} // namespace
} // namespace it
