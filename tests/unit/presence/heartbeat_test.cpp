#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "smart_frame/frame_cntl.h"
#include "smart_frame/presence/presence.h"
#include "tests/fakes/sf_fixture.h"

using namespace fake::registry;
using sf::sf_cntl;

namespace {

/* What the probe callback saw: which device, when, and which locks were held. */
struct Probe {
    std::string id;
    TIME_S at;
    bool dos_mutex_held;
    bool dev_mutex_held;
    int locks_held;
};

std::vector<Probe> &probes()
{
    static std::vector<Probe> recorded;
    return recorded;
}

void record_probe(const CHAR_T *dev_id)
{
    probes().push_back({dev_id, fake::clock::system(), fake::mutex::held(sf_cntl.dos_mutex),
                        fake::mutex::held(gw()->dev_mutex), fake::mutex::held_by_this_thread()});
}

std::vector<TIME_S> probe_times(const std::string &id)
{
    std::vector<TIME_S> times;
    for (const Probe &probe : probes()) {
        if (probe.id == id) {
            times.push_back(probe.at);
        }
    }
    return times;
}

/*
 * The system clock reads 1000 s when a test starts; supervision started
 * then runs its passes at 1008, 1016, ... A gateway without its own node in
 * the device list.
 */
class Heartbeat : public SfStartedTest {
protected:
    void SetUp() override
    {
        SfStartedTest::SetUp();
        set_gateway("gw0001", {}, false);
        probes().clear();
    }

    static const DEV_ACTV_ATTR_S &attr(const std::string &id) { return device(id)->attr; }
    static const std::vector<fake::mqtt::Prot> &prots() { return fake::mqtt::prot_reports(); }

    /* Advance in steps, acknowledging every batch right after the step it appeared in. */
    static void advance_acking(uint64_t ms, uint64_t step = 100)
    {
        for (uint64_t done = 0; done < ms; done += step) {
            fake::timers::advance(step < ms - done ? step : ms - done);
            for (size_t i = 0; i < prots().size(); ++i) {
                if (prots()[i].accepted && !prots()[i].completed) {
                    fake::mqtt::complete_prot(i, RC_OK);
                }
            }
        }
    }

    /* advance_acking until the system clock reads secs (and 1 ms more, so a pass due then has run) */
    static void run_until(TIME_S secs, uint64_t step = 100)
    {
        const uint64_t target_ms = static_cast<uint64_t>(secs - fake::clock::system()) * 1000;
        advance_acking(target_ms + 1, step);
    }

    static void finish()
    {
        advance_acking(3000);
    }
};

/* ------------------------------------------------------------------ start */

TEST_F(Heartbeat, InitStartsAnEightSecondCycleAndStoresTheCallback)
{
    EXPECT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    const auto starts = fake::timers::starts_of(sf_cntl.tmm_dev_hst);
    ASSERT_EQ(1u, starts.size());
    EXPECT_EQ(8000u, starts[0].period);
    EXPECT_EQ(TIMER_CYCLE, starts[0].type);
    EXPECT_EQ(TRUE, sf_cntl.hb_start);
    EXPECT_EQ(&record_probe, sf_cntl.hb_send_cb);
    EXPECT_EQ(0u, sf_cntl.hb_refresh_intv);
}

TEST_F(Heartbeat, InitWhoseTimerFailsReturnsItsCodeAndEnablesNothing)
{
    fake::msgq::fail(fake::msgq::Call::start_tm_msg, -9);
    EXPECT_EQ(-9, sf_sys_mag_hb_init(record_probe));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "sf_sys_mag_hb_init", "cmmod_start_tm_msg err:-9"));
    EXPECT_EQ(FALSE, sf_cntl.hb_start);
    EXPECT_EQ(nullptr, sf_cntl.hb_send_cb);
    add_device("a", {});
    EXPECT_EQ(RC_FAIL, sf_refresh_dev_hb("a"));
}

TEST_F(Heartbeat, FailedSecondInitKeepsTheFirstCallback)
{
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    fake::msgq::fail(fake::msgq::Call::start_tm_msg, -4);
    EXPECT_EQ(-4, sf_sys_mag_hb_init(nullptr));
    EXPECT_EQ(&record_probe, sf_cntl.hb_send_cb);
    EXPECT_EQ(TRUE, sf_cntl.hb_start);
}

TEST_F(Heartbeat, SecondInitRestartsTheTimerAndReplacesTheCallback)
{
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    fake::timers::advance(5000);
    EXPECT_EQ(RC_OK, sf_sys_mag_hb_init(nullptr));
    EXPECT_EQ(nullptr, sf_cntl.hb_send_cb);
    EXPECT_EQ(2u, fake::timers::starts_of(sf_cntl.tmm_dev_hst).size());
    EXPECT_EQ(fake::timers::now_ms() + 8000, fake::timers::due_ms(sf_cntl.tmm_dev_hst));
}

/* ------------------------------------------------------------------ sf_set_dev_hb_timeout */

TEST_F(Heartbeat, TimeoutBelowSixtyIsRefusedAndSixtyAccepted)
{
    add_device("a", {});
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    EXPECT_EQ(RC_BAD_PARAM, sf_set_dev_hb_timeout("a", 59, 3));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "sf_set_dev_hb_timeout",
                               "dev_id is a or hb_timeout_time[59] must > 60"));
    EXPECT_EQ(0u, attr("a").hb_timeout_time);
    EXPECT_EQ(RC_OK, sf_set_dev_hb_timeout("a", 60, 3));
    EXPECT_EQ(60u, attr("a").hb_timeout_time);
    EXPECT_EQ(3u, attr("a").max_resend_times);
}

TEST_F(Heartbeat, MissingIdIsRefusedFirstEvenBeforeInit)
{
    EXPECT_EQ(RC_BAD_PARAM, sf_set_dev_hb_timeout(nullptr, 120, 3));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "sf_set_dev_hb_timeout",
                               "dev_id is (null) or hb_timeout_time[120] must > 60"));
    EXPECT_EQ(0u, fake::log::count("sf_sys_mag_hb_init need init"));
}

TEST_F(Heartbeat, TimeoutBeforeInitNeedsInit)
{
    add_device("a", {});
    EXPECT_EQ(RC_FAIL, sf_set_dev_hb_timeout("a", 120, 3));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "sf_set_dev_hb_timeout", "sf_sys_mag_hb_init need init"));
    EXPECT_EQ(0u, attr("a").hb_timeout_time);
}

TEST_F(Heartbeat, TimeoutForTheGatewayOrAnUnknownDeviceFailsSilently)
{
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    fake::log::clear();
    EXPECT_EQ(RC_FAIL, sf_set_dev_hb_timeout("GW0001", 120, 3));
    EXPECT_EQ(RC_FAIL, sf_set_dev_hb_timeout("gw0001", 120, 3));
    EXPECT_EQ(RC_FAIL, sf_set_dev_hb_timeout("nobody", 120, 3));
    EXPECT_TRUE(fake::log::entries().empty()) << fake::log::dump();
}

TEST_F(Heartbeat, TimeoutSchedulesTheFirstProbeWithTheStandardRandomSpread)
{
    DEV_CNTL_N_S *a = add_device("a", {});
    a->attr.retry_send_times = 7;
    a->attr.last_ol_time = 900;
    a->attr.stat = DOS_ONLINE;
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    for (unsigned seed : {1u, 7u, 12345u}) {
        std::srand(seed);
        const int spread = std::rand() % 15;
        std::srand(seed);
        ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout("a", 300, 4));
        EXPECT_EQ(1000u + static_cast<TIME_S>(spread), a->attr.hb_send_time) << seed;
    }
    EXPECT_EQ(300u, a->attr.hb_timeout_time);
    EXPECT_EQ(4u, a->attr.max_resend_times);
    EXPECT_EQ(7u, a->attr.retry_send_times);
    EXPECT_EQ(900u, a->attr.last_ol_time);
    EXPECT_EQ(DOS_ONLINE, a->attr.stat);
}

TEST_F(Heartbeat, TimeoutIsStoredForAnUnboundDeviceToo)
{
    add_device("u", {}, false);
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    EXPECT_EQ(RC_OK, sf_set_dev_hb_timeout("u", 90, 1));
    EXPECT_EQ(90u, attr("u").hb_timeout_time);
}

/* ------------------------------------------------------------------ sf_refresh_dev_hb */

TEST_F(Heartbeat, RefreshBeforeInitNeedsInit)
{
    add_device("a", {});
    EXPECT_EQ(RC_FAIL, sf_refresh_dev_hb("a"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "sf_refresh_dev_hb", "sf_sys_mag_hb_init need init"));
    EXPECT_EQ(DOS_OFFLINE, attr("a").stat);
}

TEST_F(Heartbeat, RefreshRefusesTheGatewayInAnyCaseAndAnswersUnknownAndUnbound)
{
    add_device("u", {}, false);
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    EXPECT_EQ(RC_FAIL, sf_refresh_dev_hb("gW0001"));
    EXPECT_EQ(RC_FAIL, sf_refresh_dev_hb("gw0001"));
    EXPECT_EQ(RC_DEV_NOT_FOUND, sf_refresh_dev_hb("nobody"));
    EXPECT_TRUE(fake::log::entries().empty()) << fake::log::dump();
    EXPECT_EQ(RC_DEV_NOT_BOUND, sf_refresh_dev_hb("u"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "sf_refresh_dev_hb", "device not bind"));
    EXPECT_EQ(DOS_OFFLINE, attr("u").stat);
}

TEST_F(Heartbeat, RefreshWithoutAnIdIsABadParameter)
{
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    EXPECT_EQ(RC_BAD_PARAM, sf_refresh_dev_hb(nullptr));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "sf_refresh_dev_hb", "dev_id is null"));
}

TEST_F(Heartbeat, RefreshMarksAnOfflineDeviceOnlineAtOnceWithoutATimer)
{
    add_device("a", {});
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout("a", 120, 2));
    run_until(1009); /* the pass at 1008 reported a offline */
    ASSERT_EQ("{\"offline\":[\"a\"]}", prots().back().text);
    ASSERT_EQ(DOSM_REPORTED, attr("a").dosm);
    fake::timers::advance(1000); /* the chain ends */
    ASSERT_EQ(FALSE, sf_cntl.dos_update);
    ASSERT_EQ(1010u, fake::clock::system());
    const size_t batch_starts = fake::timers::starts_of(sf_cntl.tmm_dev_ol_sync).size();

    EXPECT_EQ(RC_OK, sf_refresh_dev_hb("a"));
    EXPECT_EQ(DOS_ONLINE, attr("a").stat);
    EXPECT_EQ(DOSM_PENDING, attr("a").dosm);
    EXPECT_EQ(1010u, attr("a").last_ol_time);
    EXPECT_EQ(1110u, attr("a").hb_send_time);
    EXPECT_EQ(0u, attr("a").retry_send_times);
    EXPECT_EQ(batch_starts, fake::timers::starts_of(sf_cntl.tmm_dev_ol_sync).size());

    /* the next pass (at 1016 on the system clock) starts the batch; it leaves 300 ms later */
    const size_t sent = prots().size();
    const uint64_t pass_due = fake::timers::due_ms(sf_cntl.tmm_dev_hst);
    fake::timers::advance(pass_due - fake::timers::now_ms() + 299);
    EXPECT_EQ(sent, prots().size());
    fake::timers::advance(1);
    ASSERT_EQ(sent + 1, prots().size());
    EXPECT_EQ("{\"online\":[\"a\"]}", prots().back().text);
    EXPECT_EQ(1016u, fake::clock::system());
    finish();
}

TEST_F(Heartbeat, RefreshOfAnOnlineDeviceKeepsItsReportingState)
{
    DEV_CNTL_N_S *a = add_device("a", {});
    a->attr.stat = DOS_ONLINE;
    a->attr.dosm = DOSM_REPORTED;
    a->attr.hb_timeout_time = 100;
    a->attr.retry_send_times = 2;
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    EXPECT_EQ(RC_OK, sf_refresh_dev_hb("a"));
    EXPECT_EQ(DOSM_REPORTED, a->attr.dosm);
    EXPECT_EQ(1000u, a->attr.last_ol_time);
    EXPECT_EQ(1080u, a->attr.hb_send_time);
    EXPECT_EQ(0u, a->attr.retry_send_times);
}

TEST_F(Heartbeat, RefreshWithoutTimeoutOrWithTheEndlessOneSchedulesNoProbe)
{
    DEV_CNTL_N_S *a = add_device("a", {});
    DEV_CNTL_N_S *b = add_device("b", {});
    b->attr.hb_timeout_time = 0xFFFFFFFF;
    for (DEV_CNTL_N_S *dev : {a, b}) {
        dev->attr.hb_send_time = 5;
        dev->attr.retry_send_times = 3;
    }
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    EXPECT_EQ(RC_OK, sf_refresh_dev_hb("a"));
    EXPECT_EQ(RC_OK, sf_refresh_dev_hb("b"));
    for (DEV_CNTL_N_S *dev : {a, b}) {
        EXPECT_EQ(1000u, dev->attr.last_ol_time);
        EXPECT_EQ(5u, dev->attr.hb_send_time);
        EXPECT_EQ(3u, dev->attr.retry_send_times);
    }
}

TEST_F(Heartbeat, WithoutAProbeCallbackRefreshedDevicesFlipBackAtTheNextPass)
{
    DEV_CNTL_N_S *a = add_device("a", {});
    DEV_CNTL_N_S *e = add_device("e", {});
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(nullptr));
    ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout("a", 120, 2));
    ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout("e", 0xFFFFFFFF, 2));
    const TIME_S a_probe_due = a->attr.hb_send_time;

    EXPECT_EQ(RC_OK, sf_refresh_dev_hb("a"));
    EXPECT_EQ(RC_OK, sf_refresh_dev_hb("e"));
    EXPECT_EQ(DOS_ONLINE, a->attr.stat);
    EXPECT_EQ(0u, a->attr.last_ol_time) << "the heartbeat time is kept only for probing";
    EXPECT_EQ(a_probe_due, a->attr.hb_send_time);

    run_until(1009);
    EXPECT_EQ(DOS_OFFLINE, a->attr.stat);
    EXPECT_EQ(DOS_ONLINE, e->attr.stat);
    EXPECT_EQ("{\"online\":[\"e\"],\"offline\":[\"a\"]}", prots().back().text);

    run_until(1100);
    EXPECT_EQ(0u, a->attr.retry_send_times);
    EXPECT_EQ(a_probe_due, a->attr.hb_send_time) << "no probe step without a callback";
    finish();
}

/* ------------------------------------------------------------------ the pass */

TEST_F(Heartbeat, TimeoutOf120WithLimit0ProbesThreeTimesThenGoesOffline)
{
    add_device("a", {});
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout("a", 120, 0));
    ASSERT_EQ(RC_OK, sf_refresh_dev_hb("a")); /* at t = 1000 */
    EXPECT_EQ(1100u, attr("a").hb_send_time);

    run_until(1120);
    EXPECT_EQ((std::vector<TIME_S>{1104, 1112, 1120}), probe_times("a"));
    EXPECT_EQ(2u, attr("a").max_resend_times);
    EXPECT_EQ(2u, attr("a").retry_send_times);
    EXPECT_EQ(0u, attr("a").hb_send_time);
    EXPECT_EQ(DOS_ONLINE, attr("a").stat) << "120 s old is still within the time-out";
    EXPECT_EQ("{\"online\":[\"a\"]}", prots().back().text);

    run_until(1128);
    EXPECT_EQ(DOS_OFFLINE, attr("a").stat);
    EXPECT_EQ(DOSM_PENDING, attr("a").dosm);
    advance_acking(300);
    EXPECT_EQ("{\"offline\":[\"a\"]}", prots().back().text);

    run_until(1300);
    EXPECT_EQ(3u, probe_times("a").size()) << "no probes after the last one";
    for (const Probe &probe : probes()) {
        EXPECT_TRUE(probe.dos_mutex_held);
        EXPECT_FALSE(probe.dev_mutex_held);
        EXPECT_EQ(1, probe.locks_held);
    }
    finish();
}

TEST_F(Heartbeat, ProbeLimitThreeSendsFourProbes)
{
    add_device("a", {});
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout("a", 200, 3));
    ASSERT_EQ(RC_OK, sf_refresh_dev_hb("a")); /* probes due from 1180 */
    run_until(1300);
    EXPECT_EQ((std::vector<TIME_S>{1184, 1192, 1200, 1208}), probe_times("a"));
    EXPECT_EQ(3u, attr("a").retry_send_times);
    finish();
}

TEST_F(Heartbeat, ProbeIsSentByAPassFallingOnItsDueSecond)
{
    add_device("a", {});
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout("a", 68, 1));
    ASSERT_EQ(RC_OK, sf_refresh_dev_hb("a")); /* due at 1048, the time of the sixth pass */
    EXPECT_EQ(1048u, attr("a").hb_send_time);
    run_until(1047);
    EXPECT_TRUE(probes().empty());
    run_until(1048);
    EXPECT_EQ((std::vector<TIME_S>{1048}), probe_times("a"));
    finish();
}

TEST_F(Heartbeat, ARefreshWhileProbingStartsTheScheduleAgain)
{
    add_device("a", {});
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout("a", 120, 2));
    ASSERT_EQ(RC_OK, sf_refresh_dev_hb("a"));
    run_until(1105);
    ASSERT_EQ(1u, attr("a").retry_send_times);
    ASSERT_EQ(RC_OK, sf_refresh_dev_hb("a")); /* at 1105 */
    EXPECT_EQ(0u, attr("a").retry_send_times);
    EXPECT_EQ(1205u, attr("a").hb_send_time);
    run_until(1224);
    EXPECT_EQ((std::vector<TIME_S>{1104, 1208, 1216, 1224}), probe_times("a"));
    EXPECT_EQ(DOS_ONLINE, attr("a").stat) << "1105 + 120 has not passed at the pass of 1224";
    run_until(1232);
    EXPECT_EQ(DOS_OFFLINE, attr("a").stat);
    finish();
}

TEST_F(Heartbeat, ConfiguredDeviceIsProbedSoonWithoutAnyHeartbeat)
{
    add_device("a", {});
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    std::srand(3);
    const TIME_S due = 1000 + static_cast<TIME_S>(std::rand() % 15);
    std::srand(3);
    ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout("a", 120, 1));
    run_until(1040);
    const TIME_S first_pass = 1000 + (due - 1000 + 7) / 8 * 8;
    EXPECT_EQ((std::vector<TIME_S>{first_pass < 1008 ? 1008 : first_pass,
                                   (first_pass < 1008 ? 1008 : first_pass) + 8}),
              probe_times("a"));
    EXPECT_EQ(DOS_OFFLINE, attr("a").stat);
    finish();
}

TEST_F(Heartbeat, TimeoutOf43200GoesOfflineAfterTwelveSilentHoursAndIsNeverProbed)
{
    add_device("a", {});
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout("a", 43200, 2));
    ASSERT_EQ(RC_OK, sf_refresh_dev_hb("a"));
    EXPECT_EQ(44180u, attr("a").hb_send_time);
    run_until(44200, 8000);
    EXPECT_EQ(DOS_ONLINE, attr("a").stat);
    run_until(44208, 100);
    EXPECT_EQ(DOS_OFFLINE, attr("a").stat);
    advance_acking(300);
    EXPECT_EQ("{\"offline\":[\"a\"]}", prots().back().text);
    EXPECT_TRUE(probes().empty());
    EXPECT_EQ(44180u, attr("a").hb_send_time);
    finish();
}

TEST_F(Heartbeat, EndlessTimeoutIsAlwaysOnlineAndNeverProbed)
{
    add_device("a", {});
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout("a", 0xFFFFFFFF, 2));
    run_until(1009);
    EXPECT_EQ(DOS_ONLINE, attr("a").stat);
    EXPECT_EQ("{\"online\":[\"a\"]}", prots().back().text);
    const size_t sent = prots().size();
    run_until(1000 + 86400, 8000);
    EXPECT_EQ(DOS_ONLINE, attr("a").stat);
    EXPECT_EQ(sent, prots().size());
    EXPECT_TRUE(probes().empty());
    finish();
}

TEST_F(Heartbeat, BoundDeviceNeverConfiguredNorRefreshedIsSetOfflineByTheFirstPass)
{
    add_device("a", {});
    add_device("b", {});
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    fake::timers::advance(8000);
    EXPECT_EQ(DOSM_PENDING, attr("a").dosm);
    ASSERT_EQ(2u, fake::timers::starts_of(sf_cntl.tmm_dev_ol_sync).size()) << "one start per marked device";
    fake::timers::advance(300);
    EXPECT_EQ("{\"offline\":[\"a\",\"b\"]}", prots().back().text);
    finish();
}

TEST_F(Heartbeat, PassSkipsUnboundAndDeletingDevices)
{
    DEV_CNTL_N_S *u = add_device("u", {}, false);
    DEV_CNTL_N_S *d = add_device("d", {});
    d->dev_delete = 1;
    DEV_CNTL_N_S *o = add_device("o", {});
    o->dev_if.bind = 2;
    for (DEV_CNTL_N_S *dev : {u, d, o}) {
        dev->attr.stat = DOS_ONLINE;
        dev->attr.dosm = DOSM_REPORTED;
        dev->attr.hb_timeout_time = 60;
        dev->attr.hb_send_time = 1;
    }
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    run_until(1100);
    for (DEV_CNTL_N_S *dev : {u, d, o}) {
        EXPECT_EQ(DOS_ONLINE, dev->attr.stat) << dev->dev_if.id;
        EXPECT_EQ(DOSM_REPORTED, dev->attr.dosm) << dev->dev_if.id;
        EXPECT_EQ(0u, dev->attr.retry_send_times) << dev->dev_if.id;
    }
    EXPECT_TRUE(probes().empty());
    EXPECT_TRUE(prots().empty());
}

TEST_F(Heartbeat, ClockThatWentBackwardsMakesTheDeviceOffline)
{
    add_device("a", {});
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout("a", 600, 2));
    ASSERT_EQ(RC_OK, sf_refresh_dev_hb("a"));
    run_until(1009);
    ASSERT_EQ(DOS_ONLINE, attr("a").stat);
    fake::clock::set_system(990);
    fake::timers::advance(fake::timers::due_ms(sf_cntl.tmm_dev_hst) - fake::timers::now_ms());
    EXPECT_EQ(DOS_OFFLINE, attr("a").stat);
    finish();
}

TEST_F(Heartbeat, TimeArithmeticWrapsAtThirtyTwoBits)
{
    add_device("a", {});
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout("a", 120, 2));
    fake::clock::set_system(0xFFFFFFF0u);
    ASSERT_EQ(RC_OK, sf_refresh_dev_hb("a"));
    EXPECT_EQ(0xFFFFFFF0u, attr("a").last_ol_time);
    EXPECT_EQ(84u, attr("a").hb_send_time); /* 0xFFFFFFF0 + 100, wrapped */
    probes().clear();
    advance_acking(40000); /* passes at 0xFFFFFFF8, then 0, 8, 16 and 24 after the wrap */
    EXPECT_EQ(24u, fake::clock::system());
    /* the age of the heartbeat is a wrap-safe difference: 8 to 32 s, within the time-out */
    EXPECT_EQ(DOS_ONLINE, attr("a").stat);
    /* "due" compares absolute times: before the wrap 0xFFFFFFF8 >= 84, after it 0..24 < 84 */
    EXPECT_EQ((std::vector<TIME_S>{0xFFFFFFF8u}), probe_times("a"));
    EXPECT_EQ(1u, attr("a").retry_send_times);
    finish();
}

TEST_F(Heartbeat, PerDeviceLinesAreLoggedOnceEvery101Passes)
{
    add_device("a", {});
    add_device("e", {});
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout("e", 0xFFFFFFFF, 2));
    fake::timers::advance(100 * 8000);
    EXPECT_EQ(0u, fake::log::count("id:a online:0"));
    fake::timers::advance(8000); /* pass 101, at 1808 */
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__tmm_hb_fresh_ol_stat_cb",
                               "cur_time:1808 last_ol_time:0 hb_timeout_time:0"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__tmm_hb_fresh_ol_stat_cb", "id:a online:0"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__tmm_hb_fresh_ol_stat_cb",
                               "cur_time:1808 last_ol_time:0 hb_timeout_time:-1"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__tmm_hb_fresh_ol_stat_cb", "id:e online:1"));
    fake::timers::advance(100 * 8000);
    EXPECT_EQ(1u, fake::log::count("id:a online:0"));
    fake::timers::advance(8000); /* pass 202 */
    EXPECT_EQ(1u, fake::log::count("cur_time:2616 last_ol_time:0 hb_timeout_time:0"));
    EXPECT_EQ(2u, fake::log::count("id:a online:0"));
    finish();
}

TEST_F(Heartbeat, PassMarksUnderTheRegistryLockAndProbesWithoutIt)
{
    add_device("a", {});
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout("a", 60, 1));
    const size_t dev_locks = fake::mutex::lock_count(gw()->dev_mutex);
    fake::timers::advance(8000);
    /* one hold for the walk, one more after the device's probe step */
    EXPECT_EQ(dev_locks + 2, fake::mutex::lock_count(gw()->dev_mutex));
    EXPECT_FALSE(fake::mutex::held(gw()->dev_mutex));
    EXPECT_FALSE(fake::mutex::held(sf_cntl.dos_mutex));
    finish();
}

TEST_F(Heartbeat, HeartbeatsFromManyThreadsDuringPassesKeepTheirDevicesOnline)
{
    constexpr int kThreads = 4;
    for (int t = 0; t < kThreads; ++t) {
        add_device("hb" + std::to_string(t), {});
    }
    add_device("quiet", {});
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(record_probe));
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout(("hb" + std::to_string(t)).c_str(), 600, 2));
    }
    std::atomic<bool> stop{false};
    std::atomic<int> beats[kThreads] = {};
    std::vector<std::thread> apps;
    for (int t = 0; t < kThreads; ++t) {
        apps.emplace_back([t, &stop, &beats] {
            const std::string id = "hb" + std::to_string(t);
            while (!stop) {
                EXPECT_EQ(RC_OK, sf_refresh_dev_hb(id.c_str()));
                ++beats[t];
                std::this_thread::yield();
            }
        });
    }
    /* this thread is the dispatch thread; virtual time moves only after every device has beaten again */
    for (int pass = 0; pass < 30; ++pass) {
        int seen[kThreads];
        for (int t = 0; t < kThreads; ++t) {
            seen[t] = beats[t];
        }
        for (int t = 0; t < kThreads; ++t) {
            while (beats[t] == seen[t]) {
                std::this_thread::yield();
            }
        }
        advance_acking(8000, 8000);
        for (int t = 0; t < kThreads; ++t) {
            EXPECT_EQ(DOS_ONLINE, attr("hb" + std::to_string(t)).stat) << pass;
        }
    }
    stop = true;
    for (std::thread &app : apps) {
        app.join();
    }
    EXPECT_EQ(DOS_OFFLINE, attr("quiet").stat);
    EXPECT_TRUE(probes().empty());
    finish();
}

/* ------------------------------------------------------------------ a long day */

/*
 * 200 sub-devices with mixed time-outs, heartbeat rhythms and silences over
 * six simulated hours. Each batch is completed right after the second in
 * which it appeared, one in seven with a failure; now and then the client
 * refuses one outright. The cloud's view (built
 * from the acknowledged batches only) must show, at every second, what the
 * heartbeats say about each device now or at most one pass plus the batch
 * delay ago.
 */
class HeartbeatScenario : public Heartbeat {
protected:
    struct Device {
        std::string id;
        TIME_S timeout;      /* 0: never configured */
        TIME_S period;       /* heartbeat every period seconds while talking */
        TIME_S silent_from;  /* a silence [silent_from, silent_to) each cycle of 3600 s */
        TIME_S silent_to;
        bool answers_probes; /* a probe makes it send a heartbeat one second later */
        TIME_S last_hb = 0;
        bool reply_due = false;
        int cloud = -1;      /* -1 never reported, 0 offline, 1 online */
        bool expected = false;
        uint64_t expected_since = 0;
    };
};

std::vector<std::string> ids_in(const std::string &text, const std::string &member)
{
    std::vector<std::string> ids;
    const size_t at = text.find("\"" + member + "\":[");
    if (at == std::string::npos) {
        return ids;
    }
    size_t pos = at + member.size() + 4;
    while (text[pos] == '"') {
        const size_t end = text.find('"', pos + 1);
        ids.push_back(text.substr(pos + 1, end - pos - 1));
        pos = end + 1;
        if (text[pos] == ',') {
            ++pos;
        }
    }
    return ids;
}

TEST_F(HeartbeatScenario, BatchesFollowThePresenceOfTwoHundredDevicesForSixHours)
{
    constexpr TIME_S kTimeouts[] = {60, 90, 120, 300, 600, 0xFFFFFFFF, 43200, 0};
    /* one pass, plus a batch: the one in flight, the next run 1 s after it, maybe one failed try */
    constexpr uint64_t kPassAndBatchDelayMs = 8000 + 5000;
    /* the initial state of all 200 devices takes several batches */
    constexpr TIME_S kWarmUpS = 60;
    std::vector<Device> devices;
    uint32_t rng = 12345;
    auto next_random = [&rng](uint32_t bound) {
        rng = rng * 1103515245u + 12345u;
        return (rng >> 8) % bound;
    };
    for (int i = 0; i < 200; ++i) {
        Device d;
        d.id = "sub" + std::to_string(1000 + i);
        d.timeout = kTimeouts[i % 8];
        d.period = 20 + next_random(50);
        d.silent_from = next_random(3600);
        d.silent_to = d.silent_from + (i % 3 == 0 ? 0 : 60 + next_random(900));
        d.answers_probes = i % 5 == 0;
        devices.push_back(d);
        add_device(d.id, {});
    }
    std::vector<std::string> probed;
    static std::vector<std::string> *probe_sink = nullptr;
    probe_sink = &probed;
    ASSERT_EQ(RC_OK, sf_sys_mag_hb_init([](const CHAR_T *id) { probe_sink->push_back(id); }));
    for (Device &d : devices) {
        if (d.timeout != 0) {
            ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout(d.id.c_str(), d.timeout, d.timeout % 3));
        }
    }

    const TIME_S start = fake::clock::system();
    size_t completed = 0;
    size_t failures = 0;
    size_t probes_answered = 0;
    for (TIME_S second = 0; second < 6 * 3600; ++second) {
        const TIME_S now = start + second;
        for (Device &d : devices) {
            const TIME_S phase = second % 3600;
            const bool silent = phase >= d.silent_from && phase < d.silent_to;
            if ((!silent && second % d.period == 0) || d.reply_due) {
                probes_answered += d.reply_due ? 1 : 0;
                d.reply_due = false;
                ASSERT_EQ(RC_OK, sf_refresh_dev_hb(d.id.c_str()));
                d.last_hb = now;
                /* a heartbeat is a moment of presence, even for a device without a time-out */
                if (!d.expected) {
                    d.expected = true;
                    d.expected_since = fake::timers::now_ms();
                }
            }
        }
        if (second % 997 == 500) {
            fake::mqtt::push_prot_result(-1); /* now and then the client refuses a batch outright */
        }
        fake::timers::advance(1000);
        for (const std::string &id : probed) {
            Device &d = devices[static_cast<size_t>(std::stoi(id.substr(3)) - 1000)];
            d.reply_due = d.answers_probes;
        }
        probed.clear();
        for (; completed < prots().size(); ++completed) {
            const fake::mqtt::Prot &batch = prots()[completed];
            ASSERT_EQ(25u, batch.pro);
            if (!batch.accepted) {
                continue;
            }
            const bool fail = completed % 7 == 3;
            fake::mqtt::complete_prot(completed, fail ? -1 : RC_OK);
            if (fail) {
                ++failures;
                continue;
            }
            for (int online = 0; online < 2; ++online) {
                for (const std::string &id : ids_in(batch.text, online ? "online" : "offline")) {
                    devices[static_cast<size_t>(std::stoi(id.substr(3)) - 1000)].cloud = online;
                }
            }
        }

        const TIME_S checked = fake::clock::system();
        const uint64_t now_ms = fake::timers::now_ms();
        for (Device &d : devices) {
            const bool expected = d.timeout == 0xFFFFFFFF ||
                                  (d.last_hb != 0 && static_cast<TIME_S>(checked - d.last_hb) <= d.timeout);
            if (expected != d.expected || second == 0) {
                d.expected = expected;
                d.expected_since = now_ms;
            }
            if (second >= kWarmUpS && now_ms - d.expected_since > kPassAndBatchDelayMs) {
                ASSERT_EQ(expected ? 1 : 0, d.cloud)
                    << d.id << " at " << checked << " s, timeout " << d.timeout << ", last heartbeat " << d.last_hb;
            }
        }
    }
    size_t refused = 0;
    for (const fake::mqtt::Prot &batch : prots()) {
        refused += batch.accepted ? 0 : 1;
    }
    EXPECT_GT(completed, 100u);
    EXPECT_GT(failures, 10u);
    EXPECT_GT(refused, 10u);
    EXPECT_GT(probes_answered, 50u);
    finish();
    fake::log::clear();
}

} // namespace

namespace {

/* The module not started: there is no timed message to start yet. */
using HeartbeatBeforeStartUp = SfFakesTest;

TEST_F(HeartbeatBeforeStartUp, InitIsRefusedWithALog)
{
    EXPECT_EQ(RC_FAIL, sf_sys_mag_hb_init(record_probe));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "sf_sys_mag_hb_init", "smart frame not inited"));
    EXPECT_TRUE(fake::timers::starts().empty());
    EXPECT_EQ(FALSE, sf_cntl.hb_start);
}

} // namespace
