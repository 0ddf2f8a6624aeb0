/*
 * Reporting threads wake the LAN channel's thread through a pipe that
 * lan_stop closes: a report racing the stop must never write to a closed
 * (or reused) descriptor. Run under ThreadSanitizer.
 */
#include <atomic>
#include <thread>

#include "support/blocks.h"
#include "support/channel_fixture.h"
#include "support/lan_peer.h"

#include "services/lan_channel.h"

namespace it {
namespace {

class LanWake : public ChannelTest {};

TEST_F(LanWake, ReportsRacingTheStopNeverTouchAClosedWakePipe)
{
    start({}, {}, false);
    for (int round = 0; round < 20; ++round) {
        start_lan(0, 1000000); // the client is not dropped as slow: reports keep waking the thread
        LanPeer peer;
        authenticate(&peer);
        std::atomic<bool> running{true};
        std::atomic<int> taken{0};
        std::thread reporter([&] {
            RFC_DATA_S *block = make_block("{\"dps\":{\"1\":true}}", 1);
            while (running.load()) {
                if (lan_data_report_cb(LAN_FRAME_GRP_ANSWER, 0, "{}", 2) == RC_OK) {
                    taken.fetch_add(1);
                }
                get_rfc_data(block);
                if (lan_dp_sata_report(block, LAN_FRAME_DP_REPORT) != RC_OK) {
                    put_rfc_data(block);
                }
            }
            put_rfc_data(block);
        });
        std::thread port_reader([&] {
            while (running.load()) {
                (void)lan_bound_port();
            }
        });
        std::string frame;
        const bool reached = peer.read_line(&frame, seconds(10));
        lan_stop();
        running.store(false);
        reporter.join();
        port_reader.join();
        ASSERT_TRUE(reached) << "no report reached the client in round " << round;
        EXPECT_GT(taken.load(), 0);
        EXPECT_EQ(0, lan_bound_port());
    }
}

} // namespace
} // namespace it
