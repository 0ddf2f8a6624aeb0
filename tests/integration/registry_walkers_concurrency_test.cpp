/*
 * The registry's device list against the smart frame's own users of it:
 * the presence batch builder walking without dev_mutex while devices come
 * and go, and a DP handler whose application callback removes its device.
 * The module runs on the POSIX backend here, as in the gateway.
 */
#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "gateway/registry/gw_registry.h"
#include "port/posix/runtime/posix_runtime.h"
#include "tests/unit/posix/posix_test_util.h"
#include "services/uni_log.h"
#include "smart_frame/frame_cntl.h"
#include "smart_frame/presence/presence.h"
#include "smart_frame/smart_frame.h"

namespace {

using posix_test::eventually;

constexpr const char *kGateway = R"({"gateway":{"id":"gw"},"devices":[
  {"id":"s1","bind":true,"dps":[{"id":1,"type":"raw"},{"id":2,"prop":"bool"}]}]})";

class RegistryWalkers : public ::testing::Test {
protected:
    void SetUp() override
    {
        uni_log_set_level(LOG_LEVEL_ERROR);
        gw_registry::LoadError error;
        ASSERT_TRUE(gw_registry::load_text(kGateway, "gw.json", &error)) << error.text();
        ASSERT_EQ(RC_OK, smart_frame_init());
    }
    void TearDown() override
    {
        cmmod_stop();
        get_gw_cntl()->cbs = KL_IOT_CBS_S{};
        gw_registry::unload();
    }
};

/*
 * The batch builder reads every node's dev_delete under dos_mutex only,
 * while remove_device writes it under dev_mutex: the two must meet through
 * the release/acquire pair, or ThreadSanitizer reports the race. The
 * builder runs here on a thread of the test, as the dispatch thread runs
 * it; the default grace period keeps every removed node for the test's
 * whole run.
 */
TEST_F(RegistryWalkers, DevicesComingAndGoingWhileTheBatchBuilderWalksIsNoDataRace)
{
    gw_registry_set_nw_status(GW_NW_CLOUD); /* the builder walks only with the cloud connected */
    std::atomic<bool> stop{false};
    std::atomic<long> runs{0};
    std::thread builder([&] {
        while (!stop.load(std::memory_order_relaxed)) {
            __tmm_dev_ol_sync_cb(sf::sf_cntl.tmm_dev_ol_sync);
            runs.fetch_add(1, std::memory_order_relaxed);
        }
    });
    long rounds = 0;
    while (rounds < 400 || runs.load(std::memory_order_relaxed) < 50) {
        const std::string id = "t" + std::to_string(rounds % 4);
        if (gw_registry::remove_device(id) == RC_DEV_NOT_FOUND) {
            ASSERT_EQ(RC_OK, gw_registry::add_device(R"({"id":")" + id + R"(","bind":true})", nullptr));
        }
        ++rounds;
    }
    stop = true;
    builder.join();
    EXPECT_EQ(gw_registry::device_count(), static_cast<size_t>(get_gw_cntl()->dev_num));
}

/* What the application's callbacks of the next test share with it. */
struct Handover {
    std::atomic<bool> removed{false};
    std::atomic<bool> may_return{false};
    std::atomic<bool> obj_delivered{false};
    std::atomic<int> removal_rc{-1};
};
Handover *g_handover = nullptr;

/* The raw DP comes first: the handler goes on with the bool DP of the same node afterwards. */
void removes_its_own_device(const KL_RECV_RAW_DP_S *dp)
{
    g_handover->removal_rc = gw_registry::remove_device(dp->cid);
    g_handover->removed = true;
    /* the application takes its time; meanwhile another thread changes the devices */
    EXPECT_TRUE(eventually([] { return g_handover->may_return.load(); }));
}

void records_obj(const KL_RECV_OBJ_DP_S *dp)
{
    EXPECT_EQ(1u, dp->dps_cnt);
    EXPECT_EQ(2, dp->dps[0].dpid);
    g_handover->obj_delivered = true;
}

TEST_F(RegistryWalkers, ANodeRemovedInsideACallbackOutlivesTheHandlerThatHoldsIt)
{
    Handover handover;
    g_handover = &handover;
    gw_registry::set_grace_period(std::chrono::milliseconds(1));
    get_gw_cntl()->cbs.dev_raw_dp_cb = removes_its_own_device;
    get_gw_cntl()->cbs.dev_obj_dp_cb = records_obj;

    SF_GW_DEV_CMD_S cmd{DP_CMD_MQ, cJSON_Parse(R"({"devId":"s1","dps":{"1":"AQI=","2":true}})")};
    ASSERT_NE(nullptr, cmd.cmd_js);
    ASSERT_EQ(RC_OK, sf_send_gw_dev_cmd(&cmd));
    ASSERT_TRUE(eventually([&] { return handover.removed.load(); }));
    EXPECT_EQ(RC_OK, handover.removal_rc.load());

    /* the grace period is long over; adding a device reclaims what may be reclaimed */
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(RC_OK, gw_registry::add_device(R"({"id":"s2"})", nullptr));
    EXPECT_EQ(1u, gw_registry::retired_count()) << "freed while the handler still holds it";
    handover.may_return = true;

    ASSERT_TRUE(eventually([&] { return handover.obj_delivered.load(); }));
    /* once the dispatch thread has moved on, the node goes */
    ASSERT_TRUE(eventually([] { return gw_registry::reclaim() == 1 || gw_registry::retired_count() == 0; }));
    EXPECT_EQ(0u, gw_registry::retired_count());
    g_handover = nullptr;
}

} // namespace
