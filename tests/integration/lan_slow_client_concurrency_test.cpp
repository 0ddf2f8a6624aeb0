/*
 * A LAN client that stops reading never holds up the reporting threads:
 * its queue fills, it is dropped, and every block reference comes back.
 */
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "support/blocks.h"
#include "support/channel_fixture.h"
#include "support/lan_peer.h"

#include "services/lan_channel.h"

namespace it {
namespace {

class LanSlowClient : public ChannelTest {};

TEST_F(LanSlowClient, IsDroppedWithoutBlockingTheReportersAndReleasesEveryBlock)
{
    start({}, {}, false);
    start_lan(0, 16);

    LanPeer sleeper;
    ASSERT_TRUE(sleeper.connect(lan_bound_port()));
    const int small = 4096;
    setsockopt(sleeper.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    ASSERT_TRUE(sleeper.send_line(std::string("{\"cmd\":\"auth\",\"key\":\"") + LOCAL_KEY + "\"}"));
    std::string line;
    ASSERT_TRUE(sleeper.read_line(&line, seconds(5)));
    ASSERT_EQ(1u, lan_authed_client_count());

    // A big payload fills the sleeper's socket buffers after a few frames.
    const std::string payload = "{\"dps\":{\"1\":\"" + std::string(16000, 'v') + "\"}}";
    RFC_DATA_S *block = make_block(payload, 1);
    std::atomic<int> taken{0};
    std::vector<std::thread> reporters;
    const auto began = std::chrono::steady_clock::now();
    for (int t = 0; t < 2; ++t) {
        reporters.emplace_back([&] {
            for (int i = 0; i < 300; ++i) {
                get_rfc_data(block);
                if (lan_dp_sata_report(block, LAN_FRAME_DP_REPORT) == RC_OK) {
                    taken.fetch_add(1);
                } else {
                    put_rfc_data(block);
                }
            }
        });
    }
    for (std::thread &reporter : reporters) {
        reporter.join();
    }
    const auto took = std::chrono::steady_clock::now() - began;

    EXPECT_LT(took, seconds(10));
    EXPECT_GT(taken.load(), 0);
    EXPECT_LT(taken.load(), 600); // the queue bound cut the sleeper off
    EXPECT_TRUE(eventually([] { return lan_authed_client_count() == 0; }, seconds(10)));
    EXPECT_TRUE(eventually([&] { return references(block) == 1; }, seconds(10)));
    put_rfc_data(block);

    // The gateway still serves a client that reads.
    LanPeer reader;
    authenticate(&reader);
    ASSERT_EQ(RC_OK, lan_data_report_cb(LAN_FRAME_GRP_ANSWER, 0, "{}", 2));
    ASSERT_TRUE(reader.read_line(&line, seconds(5)));
    EXPECT_EQ("{\"type\":208,\"flag\":0,\"data\":{}}", line);
}

} // namespace
} // namespace it
