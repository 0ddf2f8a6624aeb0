#include <gtest/gtest.h>


#include "smart_frame/presence/presence.h"
#include "tests/unit/report/report_fixture.h"

using namespace fake::registry;
using report_test::bools;
using report_test::pv;
using report_test::set_all_pv;
using report_test::sync_starts;

namespace {

class DpSync : public SfStartedTest {
protected:
    TM_MSG_S *tm() { return sf::sf_cntl.tmm_dp_sync; }
    bool logged(int level, const std::string &text) { return fake::log::has(level, "__tmm_dp_sync_cb", text); }
    const fake::mqtt::DpReport &published(size_t i) { return fake::mqtt::dp_reports().at(i); }
};

/* the sync's envelope of packed stored booleans from..to of a1b2c3 */
std::string members(int from, int to)
{
    return "{\"dps\":{" + report_test::false_members(from, to) + "},\"cid\":\"a1b2c3\"}";
}

TEST_F(DpSync, StartArmsTheSyncForTwoSecondsOnce)
{
    sf_start_sync_obj_dp();
    EXPECT_EQ(1u, sync_starts());
    EXPECT_TRUE(fake::timers::armed(tm()));
    EXPECT_EQ(fake::timers::now_ms() + 2000, fake::timers::due_ms(tm()));
}

TEST_F(DpSync, MqttNotConnectedArmsNothing)
{
    fake::mqtt::set_conn_stat(0);
    sf_start_sync_obj_dp();
    fake::mqtt::set_conn_stat(2);
    sf_start_sync_obj_dp();
    EXPECT_EQ(0u, sync_starts());
    EXPECT_FALSE(fake::timers::armed(tm()));
    EXPECT_EQ(2, fake::mqtt::conn_stat_calls());
}

TEST_F(DpSync, NetworkWithoutCloudSchedulesAgainAndPacksNothing)
{
    add_device("a1b2c3", {dp_bool(1)});
    set_all_pv(device("a1b2c3"), PV_STAT_LOCAL);
    set_nw_status(GW_NW_LAN);
    fake::timers::fire(tm());
    EXPECT_TRUE(logged(LOG_LEVEL_PROGRESS, "NetWork Unavailable. schedule again, 1"));
    EXPECT_EQ(1u, sync_starts());
    EXPECT_TRUE(fake::log::find("Start To Sync Dev:a1b2c3").empty());
    EXPECT_TRUE(fake::mqtt::dp_reports().empty());
}

TEST_F(DpSync, DeviceWithNothingPendingIsSkipped)
{
    add_device("a1b2c3", {dp_bool(1)});
    fake::timers::fire(tm());
    EXPECT_TRUE(logged(LOG_LEVEL_PROGRESS, "Start To Sync Dev:gw0001"));
    EXPECT_TRUE(logged(LOG_LEVEL_PROGRESS, "Start To Sync Dev:a1b2c3"));
    EXPECT_EQ(2u, fake::log::count("OUT IS NULL"));
    EXPECT_TRUE(logged(LOG_LEVEL_DETAIL, "OUT IS NULL"));
    EXPECT_TRUE(logged(LOG_LEVEL_PROGRESS, "Sync Finish"));
    EXPECT_TRUE(fake::mqtt::dp_reports().empty());
    EXPECT_EQ(0u, sync_starts());
}

TEST_F(DpSync, EmptyDeviceListOnlyFinishes)
{
    set_gateway("gw0001", {}, false);
    fake::timers::fire(tm());
    ASSERT_EQ(1u, fake::log::entries().size()) << fake::log::dump();
    EXPECT_TRUE(logged(LOG_LEVEL_PROGRESS, "Sync Finish"));
}

TEST_F(DpSync, PendingValuesAreRepublishedWithoutLanAndConfirmed)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_bool(1), dp_value(2, 0, 9), dp_bool(3)});
    dev->dp[1].prop.prop_value.value = 7;
    dev->dp[0].pv_stat = PV_STAT_LOCAL;
    dev->dp[1].pv_stat = PV_STAT_LOCAL;
    dev->dp[2].pv_stat = PV_STAT_CLOUD;
    fake::timers::fire(tm());
    ASSERT_EQ(1u, fake::mqtt::dp_reports().size());
    EXPECT_EQ("{\"dps\":{\"1\":false,\"2\":7},\"cid\":\"a1b2c3\"}", published(0).text);
    EXPECT_EQ(10u, published(0).timeout);
    EXPECT_EQ(&__sf_obj_dp_report_async_cb, published(0).cb);
    EXPECT_TRUE(fake::lan::reports().empty());
    EXPECT_TRUE(logged(LOG_LEVEL_PROGRESS, "sync result:0"));
    EXPECT_EQ(2u, fake::mem::live_blocks()) << "only the block and its message, held for the completion";
    fake::mqtt::complete(0, RC_OK);
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 1));
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 2));
    EXPECT_EQ(0u, sync_starts());
}

/*
 * A value still in flight (pv_stat 2) is packed, but the object report's
 * filter drops it as unchanged: its own publication's completion settles it.
 */
TEST_F(DpSync, ValueStillInFlightIsPackedButNotPublishedTwice)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_bool(1), dp_value(2, 0, 9)});
    dev->dp[1].prop.prop_value.value = 7;
    dev->dp[0].pv_stat = PV_STAT_LOCAL;
    dev->dp[1].pv_stat = PV_STAT_SENDING;
    fake::timers::fire(tm());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__sf_pack_local_obj_data", "final pack:{\"1\":false,\"2\":7}"));
    ASSERT_EQ(1u, fake::mqtt::dp_reports().size());
    EXPECT_EQ("{\"dps\":{\"1\":false},\"cid\":\"a1b2c3\"}", published(0).text);
    fake::mqtt::complete(0, RC_OK);
    EXPECT_EQ(PV_STAT_SENDING, pv("a1b2c3", 2));
}

/*
 * The application reports a newer value between the packing and the
 * sync's own filter (the lookup of the report path lies in that window):
 * the newer value stays held and is the last one published; the packed,
 * older one is not written back nor published after it.
 */
TEST_F(DpSync, ReportBetweenPackingAndFilterKeepsTheNewerValue)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_value(1, 0, 100), dp_bool(2)});
    dev->dp[0].prop.prop_value.value = 10; /* V1, its publication failed */
    dev->dp[0].pv_stat = PV_STAT_LOCAL;
    dev->dp[1].pv_stat = PV_STAT_LOCAL;
    bool reported = false;
    fake::registry::on_next_lookup([&reported](const CHAR_T *id) {
        ASSERT_STREQ("a1b2c3", id);
        reported = sf_obj_dp_report_async("a1b2c3", "{\"1\":20}", FALSE) == RC_OK; /* V2 */
    });
    fake::timers::fire(tm());
    ASSERT_TRUE(reported);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__sf_pack_local_obj_data", "final pack:{\"1\":10,\"2\":false}"));

    EXPECT_EQ(20, dev->dp[0].prop.prop_value.value) << "V2 held";
    const auto &reports = fake::mqtt::dp_reports();
    ASSERT_EQ(2u, reports.size()) << fake::log::dump();
    EXPECT_EQ("{\"dps\":{\"1\":20},\"cid\":\"a1b2c3\"}", reports[0].text) << "V2, the application's report";
    EXPECT_EQ("{\"dps\":{\"2\":false},\"cid\":\"a1b2c3\"}", reports[1].text)
        << "the sync re-sends the other pending value, not V1";
    fake::mqtt::complete_all(RC_OK);
    EXPECT_EQ(20, dev->dp[0].prop.prop_value.value);
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 1));
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 2));
}

TEST_F(DpSync, FlowControlDoesNotHoldBackTheRepublication)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_bool(1).flow(60, 1)});
    dev->dp[0].rept_cntl.cir_rept_items = 1;
    dev->dp[0].rept_cntl.fir_rept_timestamp = fake::clock::posix();
    dev->dp[0].pv_stat = PV_STAT_LOCAL;
    fake::timers::fire(tm());
    ASSERT_EQ(1u, fake::mqtt::dp_reports().size());
    fake::mqtt::complete(0, RC_OK);
    EXPECT_EQ(1, dev->dp[0].rept_cntl.cir_rept_items) << "cleared by the packing, then counted";
}

TEST_F(DpSync, FortyPendingDpsGoOutInTwoRunsTwoSecondsApart)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", bools(40));
    set_all_pv(dev, PV_STAT_LOCAL);
    sf_start_sync_obj_dp();
    fake::timers::advance(2000);
    ASSERT_EQ(1u, fake::mqtt::dp_reports().size());
    EXPECT_EQ(members(1, 30), published(0).text);
    EXPECT_TRUE(logged(LOG_LEVEL_DETAIL, "DP Msg Too Long, schedule again"));
    EXPECT_TRUE(fake::timers::armed(tm()));
    EXPECT_EQ(2u, sync_starts());
    fake::mqtt::complete(0, RC_OK);
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 30));
    EXPECT_EQ(PV_STAT_LOCAL, pv("a1b2c3", 31));

    fake::timers::advance(1999);
    EXPECT_EQ(1u, fake::mqtt::dp_reports().size());
    fake::log::clear();
    fake::timers::advance(1);
    ASSERT_EQ(2u, fake::mqtt::dp_reports().size());
    EXPECT_EQ(members(31, 40), published(1).text);
    EXPECT_TRUE(fake::log::find("DP Msg Too Long, schedule again").empty());
    fake::mqtt::complete(1, RC_OK);
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 40));
    EXPECT_FALSE(fake::timers::armed(tm()));
}

TEST_F(DpSync, SupersededReportCountsAsDone)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_bool(1)});
    dev->dp[0].pv_stat = PV_STAT_LOCAL;
    fake::mqtt::push_dp_report_result(RC_REPORT_SUPERSEDED);
    fake::timers::fire(tm());
    EXPECT_TRUE(logged(LOG_LEVEL_PROGRESS, "sync result:-916"));
    EXPECT_TRUE(fake::log::find("__sf_dp_report_aysnc fail -916, schedule again").empty());
    EXPECT_EQ(1u, sync_starts()) << "armed by the report path's own failure handling only";
}

TEST_F(DpSync, NetworkLostDuringTheWalkSchedulesAgainAndGoesOn)
{
    set_gateway("gw0001", {}, false);
    DEV_CNTL_N_S *first = add_device("a1b2c3", {dp_bool(1)});
    DEV_CNTL_N_S *second = add_device("d4e5f6", {dp_bool(1)});
    first->dp[0].pv_stat = PV_STAT_LOCAL;
    second->dp[0].pv_stat = PV_STAT_LOCAL;
    push_nw_status(GW_NW_CLOUD); /* the run's own check */
    push_nw_status(GW_NW_NONE);  /* the first device's report */
    fake::timers::fire(tm());
    EXPECT_TRUE(logged(LOG_LEVEL_PROGRESS, "__sf_dp_report_aysnc fail -906, schedule again"));
    ASSERT_EQ(1u, fake::mqtt::dp_reports().size());
    EXPECT_EQ("{\"dps\":{\"1\":false},\"cid\":\"d4e5f6\"}", published(0).text);
    EXPECT_TRUE(fake::timers::armed(tm()));
    EXPECT_EQ(PV_STAT_LOCAL, pv("a1b2c3", 1));
    fake::mqtt::complete(0, RC_OK);
}

TEST_F(DpSync, UnboundDeviceFailsAndSchedulesAgain)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_bool(1)}, false);
    dev->dp[0].pv_stat = PV_STAT_LOCAL;
    fake::timers::fire(tm());
    EXPECT_TRUE(logged(LOG_LEVEL_PROGRESS, "__sf_dp_report_aysnc fail -910, schedule again"));
    EXPECT_EQ(1u, sync_starts());
    EXPECT_TRUE(logged(LOG_LEVEL_PROGRESS, "Sync Finish"));
}

TEST_F(DpSync, WalkTakesNoLockAcrossPublications)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_bool(1)});
    dev->dp[0].pv_stat = PV_STAT_LOCAL;
    fake::timers::fire(tm());
    EXPECT_TRUE(fake::contract::violations().empty());
    EXPECT_EQ(0, fake::mutex::held_by_this_thread());
    fake::mqtt::complete(0, RC_OK);
}

/* The whole road: report, confirmed; report, failed; the sync re-publishes only the unconfirmed DP; confirmed. */
TEST_F(DpSync, WholeRoadFromReportToConfirmedResend)
{
    add_device("a1b2c3", {dp_bool(1), dp_value(2, 0, 100)});
    ASSERT_EQ(RC_OK, sf_obj_dp_report_async("a1b2c3", "{\"1\":true}", FALSE));
    fake::mqtt::complete(0, RC_OK);
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 1));

    ASSERT_EQ(RC_OK, sf_obj_dp_report_async("a1b2c3", "{\"2\":42}", FALSE));
    fake::mqtt::complete(1, -1);
    EXPECT_EQ(PV_STAT_LOCAL, pv("a1b2c3", 2));
    EXPECT_EQ(1u, sync_starts());
    const size_t lan_before = fake::lan::reports().size();

    fake::timers::advance(2000);
    ASSERT_EQ(3u, fake::mqtt::dp_reports().size());
    EXPECT_EQ("{\"dps\":{\"2\":42},\"cid\":\"a1b2c3\"}", published(2).text);
    EXPECT_EQ(lan_before, fake::lan::reports().size());
    EXPECT_EQ(PV_STAT_SENDING, pv("a1b2c3", 2));
    fake::mqtt::complete(2, RC_OK);
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 1));
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 2));
    EXPECT_EQ(1u, sync_starts());
    EXPECT_FALSE(fake::timers::armed(tm()));

    fake::log::clear();
    fake::timers::fire(tm());
    EXPECT_EQ(2u, fake::log::count("OUT IS NULL")) << "nothing left to sync";
    EXPECT_EQ(3u, fake::mqtt::dp_reports().size());
}

TEST_F(DpSync, AllocationFailuresDuringARunLeakNothingAndLoseNoValue)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_bool(1), dp_str(2, 8)});
    for (size_t nth = 1;; ++nth) {
        set_all_pv(dev, PV_STAT_LOCAL);
        fake::mem::fail_nth(nth);
        fake::timers::fire(tm());
        const bool fired = fake::mem::failure_fired();
        fake::mem::fail_nth(0);
        fake::mqtt::complete_all(RC_OK);
        EXPECT_EQ(0u, fake::mem::live_blocks()) << nth << "\n" << fake::mem::leak_report();
        if (!fired) {
            EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 1));
            break;
        }
        /* a value that did not get through is still pending for a later run */
        for (BYTE_T id : {1, 2}) {
            EXPECT_NE(PV_STAT_INVALID, pv("a1b2c3", id)) << nth;
        }
    }
}

} // namespace
