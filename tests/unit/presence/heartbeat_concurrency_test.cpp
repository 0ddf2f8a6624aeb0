#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "smart_frame/presence/presence.h"
#include "tests/fakes/sf_fixture.h"

using namespace fake::registry;

namespace {

std::atomic<int> probes_sent{0};

void count_probe(const CHAR_T *)
{
    ++probes_sent;
}

/*
 * The application starts supervision while another of its threads already
 * passes heartbeats on. The refresh reads the start flag and the probe
 * callback that the start stores: under ThreadSanitizer, plain stores there
 * are a reported race.
 */
TEST(HeartbeatConcurrency, AStartRacingARefreshIsSeenWholeByTheRefresh)
{
    fake::reset_all();
    set_gateway("gw0001", {}, false);
    ASSERT_EQ(RC_OK, smart_frame_init());
    add_device("a", {});

    std::atomic<bool> started{false};
    std::atomic<int> refreshed_after_start{0};
    std::thread refresher([&] {
        while (refreshed_after_start.load(std::memory_order_relaxed) < 100) {
            /* relaxed: the flag must not order the module's own stores for the refresh */
            const bool was_started = started.load(std::memory_order_relaxed);
            const OPERATE_RET rc = sf_refresh_dev_hb("a");
            if (rc == RC_OK) {
                refreshed_after_start.fetch_add(1, std::memory_order_relaxed);
            } else {
                EXPECT_EQ(RC_FAIL, rc); /* not started yet */
                EXPECT_FALSE(was_started) << "refused after the start returned";
            }
        }
    });
    EXPECT_EQ(RC_OK, sf_sys_mag_hb_init(count_probe));
    started.store(true, std::memory_order_relaxed);
    refresher.join();
    /* the callback stored by the start is the one the refresh saw: the heartbeat time is kept */
    EXPECT_NE(0u, device("a")->attr.last_ol_time);
    fake::log::clear();
    fake::expect_clean();
}

} // namespace
