/*
 * Who the LAN channel lets in and for how long: connections without the
 * key cannot keep a client with the key out, refused authentications are
 * logged where an operator sees them, and an authenticated client that
 * stalls or falls silent is closed.
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <sstream>
#include <thread>

#include "support/channel_fixture.h"
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

int connect_raw(int port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

class LanAdmission : public ChannelTest {};

TEST_F(LanAdmission, ClientsWithoutTheKeyCannotKeepAClientWithTheKeyOut)
{
    start({}, {}, false);
    start_lan();
    const int port = lan_bound_port();

    // Eight connections that never authenticate, each reopened as soon as
    // the gateway closes it.
    std::atomic<bool> stop{false};
    std::atomic<int> opened{0};
    std::thread intruder([&] {
        std::vector<int> fds(8, -1);
        while (!stop.load()) {
            for (int &fd : fds) {
                if (fd >= 0) {
                    char byte;
                    pollfd pfd{fd, POLLIN, 0};
                    if (::poll(&pfd, 1, 0) > 0 && ::recv(fd, &byte, 1, MSG_DONTWAIT) <= 0) {
                        ::close(fd);
                        fd = -1;
                    }
                }
                if (fd < 0 && (fd = connect_raw(port)) >= 0) {
                    opened.fetch_add(1);
                }
            }
            ::poll(nullptr, 0, 2); // the intruder's own pace, not a wait for the gateway
        }
        for (int fd : fds) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    });
    ASSERT_TRUE(eventually([&] { return opened.load() >= 8 && lan_stats_now().pending_clients >= 2; }, seconds(10)));

    int admitted = 0;
    for (int attempt = 0; attempt < 15; ++attempt) {
        LanPeer peer;
        std::string hello;
        if (peer.connect(port) && peer.send_line(std::string("{\"cmd\":\"auth\",\"key\":\"") + LOCAL_KEY + "\"}") &&
            peer.read_line(&hello, seconds(5)) && hello.find(GW_ID) != std::string::npos) {
            ++admitted;
        }
    }
    stop.store(true);
    intruder.join();

    EXPECT_EQ(15, admitted);
    EXPECT_GT(lan_stats_now().pending_evicted, 0u);
}

TEST_F(LanAdmission, RefusedAuthenticationIsLoggedAsAWarning)
{
    StderrCapture log;
    start({}, {}, false);
    start_lan();
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
    ASSERT_TRUE(::send(peer.fd(), "{\"cmd\":\"dp\",\"da", 15, MSG_NOSIGNAL) == 15);

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
