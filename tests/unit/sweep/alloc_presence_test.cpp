/*
 * Allocation-failure sweeps of the timed work (DP sync, presence batches,
 * heartbeat supervision) and of the entry points that allocate nothing.
 *
 * Timed-message callbacks and completions return nothing; their runs are
 * judged by what is left behind and by the module working afterwards. The
 * presence setters return RC_OK or RC_FAIL, the heartbeat start RC_OK or
 * the timer's code; none of them allocates.
 */
#include "sweep_fixture.h"

#include "smart_frame/frame_cntl.h"

using namespace sweep;
using namespace fake::every_dp;
using sf::sf_cntl;

namespace {

std::vector<std::string> &probes()
{
    static std::vector<std::string> sent;
    return sent;
}

void probe(const CHAR_T *dev_id)
{
    probes().push_back(dev_id);
}

/* A timed message's callback run as if due; the "result" is always RC_OK. */
std::function<OPERATE_RET()> fire(TM_MSG_S *const *tm)
{
    return [tm] {
        fake::timers::fire(*tm);
        return RC_OK;
    };
}

using SweepTimed = SweepTest;

TEST_F(SweepTimed, DpSyncSurvivesEveryFailingAllocation)
{
    Path p;
    p.name = "__tmm_dp_sync_cb";
    p.run = fire(&sf_cntl.tmm_dp_sync);
    p.allowed = {RC_OK};
    /* the value whose publication failed goes out again */
    p.effect = [] {
        const auto &reports = fake::mqtt::dp_reports();
        return reports.size() == 1 && reports[0].text == "{\"dps\":{\"2\":25},\"cid\":\"sub01\"}";
    };
    EXPECT_LT(0u, sweep(p));
}

TEST_F(SweepTimed, PresenceBatchSurvivesEveryFailingAllocation)
{
    Path p;
    p.name = "__tmm_dev_ol_sync_cb";
    p.prepare = [] {
        /* both lists filled: the gateway's own node goes in as an offline one */
        fake::registry::gateway_node_as_sub_device();
        ASSERT_EQ(RC_OK, sf_dev_online_stat_update(SUB_ID, TRUE));
    };
    p.run = fire(&sf_cntl.tmm_dev_ol_sync);
    p.allowed = {RC_OK};
    p.effect = [] {
        const auto &prots = fake::mqtt::prot_reports();
        return prots.size() == 1 && prots[0].pro == 25 &&
               prots[0].text == "{\"online\":[\"sub01\"],\"offline\":[\"gw0001\"]}";
    };
    EXPECT_EQ(3u, sweep(p)); /* the two lists and the document */
}

TEST_F(SweepTimed, PresenceCompletionAllocatesNothing)
{
    Path p;
    p.name = "__mq_online_stat_async_ifm_cb";
    p.prepare = [] {
        ASSERT_EQ(RC_OK, sf_dev_online_stat_update(SUB_ID, TRUE));
        fake::timers::fire(sf_cntl.tmm_dev_ol_sync);
    };
    p.run = [] {
        fake::mqtt::complete_prot(0, RC_OK);
        return RC_OK;
    };
    p.allowed = {RC_OK};
    p.effect = [] { return fake::registry::device(SUB_ID)->attr.dosm == DOSM_REPORTED; };
    EXPECT_EQ(0u, sweep(p));
}

TEST_F(SweepTimed, HeartbeatPassAllocatesNothing)
{
    Path p;
    p.name = "__tmm_hb_fresh_ol_stat_cb";
    p.prepare = [] {
        probes().clear();
        ASSERT_EQ(RC_OK, sf_sys_mag_hb_init(probe));
        ASSERT_EQ(RC_OK, sf_set_dev_hb_timeout(SUB_ID, 60, 2));
        fake::registry::device(SUB_ID)->attr.hb_send_time = 1; /* a probe is due */
    };
    p.run = fire(&sf_cntl.tmm_dev_hst);
    p.allowed = {RC_OK};
    p.effect = [] { return probes() == std::vector<std::string>{SUB_ID}; };
    EXPECT_EQ(0u, sweep(p));
}

TEST_F(SweepTimed, SettersAndSerialNumbersAllocateNothing)
{
    auto path = [](const std::string &name, std::function<OPERATE_RET()> run) {
        Path p;
        p.name = name;
        p.run = std::move(run);
        p.allowed = {RC_OK};
        return p;
    };
    const std::vector<Path> paths = {
        path("sf_dev_online_stat_update", [] { return sf_dev_online_stat_update(SUB_ID, FALSE); }),
        path("sf_sys_mag_hb_init", [] { return sf_sys_mag_hb_init(nullptr); }),
        path("sf_set_dev_hb_timeout", [] { return sf_set_dev_hb_timeout(SUB_ID, 120, 0); }),
        path("sf_refresh_dev_hb", [] { return sf_refresh_dev_hb(SUB_ID); }),
        path("sf_start_sync_obj_dp",
             [] {
                 sf_start_sync_obj_dp();
                 return RC_OK;
             }),
        path("sf_get_serial_no, sf_inc_serial_no",
             [] {
                 const UINT_T first = sf_get_serial_no();
                 sf_inc_serial_no();
                 return sf_get_serial_no() == first + 2 ? RC_OK : RC_FAIL;
             }),
    };
    for (const Path &p : paths) {
        EXPECT_EQ(0u, sweep(p)) << p.name;
    }
}

TEST(SweepStartUp, StartUpAllocatesNothingFromTheHeap)
{
    fake::reset_all();
    fake::registry::set_gateway(GW_ID);
    fake::mem::fail_nth(1);
    EXPECT_EQ(RC_OK, smart_frame_init());
    EXPECT_FALSE(fake::mem::failure_fired());
    fake::mem::fail_nth(0);
    std::printf("sweep: smart_frame_init: 0 failure points\n");
    EXPECT_EQ("", fake::unclean());
}

} // namespace
