/*
 * Every collaborator call of the module that can fail, failing once: lock
 * and semaphore creation, the semaphore wait, message posts, timer starts,
 * MQTT refusals and failed completions, LAN refusals, registry updates and
 * a gateway without network. Each run must return the documented code,
 * log what the module logs for it, leave nothing behind, and the same call
 * must work right after.
 */
#include <cerrno>

#include "sweep_fixture.h"

#include "smart_frame/frame_cntl.h"

using namespace sweep;
using namespace fake::every_dp;
using fake::msgq::Call;
using sf::sf_cntl;

namespace {

constexpr OPERATE_RET REFUSED = -77; /* a collaborator's own failure code, passed on unchanged */

bool logged(int level, const std::string &func, const std::string &text)
{
    return fake::log::has(level, func, text);
}

/* The single DP report publication of a run, with this envelope. */
std::function<bool()> published(const std::string &text)
{
    return [text] {
        const auto &reports = fake::mqtt::dp_reports();
        return !reports.empty() && reports.back().text == text;
    };
}

Path obj_report_path()
{
    Path p;
    p.name = "sf_obj_dp_report_async";
    p.run = [] { return sf_obj_dp_report_async(SUB_ID, "{\"1\":false}", FALSE); };
    p.effect = published("{\"dps\":{\"1\":false},\"cid\":\"sub01\"}");
    return p;
}

Path stat_report_path()
{
    Path p;
    p.name = "sf_stat_dp_report_sync";
    p.run = [] { return sf_stat_dp_report_sync(SUB_ID, "{\"2\":30}", nullptr, 5, FALSE); };
    p.effect = published("{\"dps\":{\"2\":30},\"cid\":\"sub01\"}");
    return p;
}

Path raw_report_path()
{
    static const BYTE_T bytes[] = {1, 2, 3};
    Path p;
    p.name = "sf_raw_dp_report_sync";
    p.run = [] { return sf_raw_dp_report_sync(SUB_ID, DP_RAW, bytes, sizeof bytes, 5, TRUE); };
    p.effect = published("{\"dps\":{\"6\":\"AQID\"},\"cid\":\"sub01\"}");
    return p;
}

Path multi_report_path()
{
    Path p;
    p.name = "sf_multi_dp_report_async";
    p.run = [] { return sf_multi_dp_report_async("{\"x\":1}", 7, 5, nullptr); };
    p.effect = published("{\"x\":1}");
    return p;
}

Path dp_sync_path()
{
    Path p;
    p.name = "__tmm_dp_sync_cb";
    p.run = [] {
        fake::timers::fire(sf_cntl.tmm_dp_sync);
        return RC_OK;
    };
    p.effect = published("{\"dps\":{\"2\":25},\"cid\":\"sub01\"}");
    return p;
}

class CollaboratorFaults : public SweepTest {
protected:
    Path echo_path()
    {
        return command_path("device command, echo", "{\"devId\":\"sub01\",\"dps\":{\"1\":true}}", DP_CMD_MQ,
                            sf_send_gw_dev_cmd,
                            [] { return app::obj_cmds().size() == 1 && fake::mqtt::queries().size() == 1; });
    }
    Path group_path(DP_CMD_TYPE_E tp)
    {
        return command_path("group command", "{\"action\":1,\"cids\":[\"a\"],\"gid\":\"5\"}", tp,
                            sf_send_grp_oper_cmd, [] {
                                return fake::mqtt::prot_reports().size() + fake::lan::frames().size() == 1;
                            });
    }
    Path scene_path()
    {
        return command_path("scene command", "{\"action\":0,\"cids\":[\"a\",\"b\"],\"sid\":\"01\",\"gid\":\"5\"}",
                            DP_CMD_MQ, sf_send_scene_oper_cmd, [] {
                                return fake::mqtt::prot_reports().size() == 1 &&
                                       fake::mqtt::prot_reports()[0].text ==
                                           "{\"action\":0,\"cids\":[\"a\",\"b\"],\"rets\":[0,0],\"sid\":\"01\","
                                           "\"gid\":\"5\"}";
                            });
    }
    static Path batch_path()
    {
        Path p;
        p.name = "__tmm_dev_ol_sync_cb";
        p.prepare = [] { ASSERT_EQ(RC_OK, sf_dev_online_stat_update(SUB_ID, TRUE)); };
        p.run = [] {
            fake::timers::fire(sf_cntl.tmm_dev_ol_sync);
            return RC_OK;
        };
        p.effect = [] { return fake::mqtt::prot_reports().size() == 1; };
        return p;
    }

};

TEST_F(CollaboratorFaults, RefusedMessagePostsLeaveTheTreeWithTheSender)
{
    auto refused_post = [](Path path) {
        Fault f;
        f.name = "cmmod_post_msg_malloc refuses: " + path.name;
        f.inject = [] { fake::msgq::fail(Call::post_msg_malloc, REFUSED); };
        f.path = std::move(path);
        f.expected = REFUSED;
        return f;
    };
    fake::registry::add_devices({"a", "b"}); /* the registry keeps the tables of the scene members */
    expect_faults({
        refused_post(echo_path()),
        refused_post(group_path(DP_CMD_MQ)),
        refused_post(scene_path()),
    });
}

TEST_F(CollaboratorFaults, FailedSemaphoresEndSynchronousReportsCleanly)
{
    Fault create;
    create.name = "CreateAndInitSemaphore fails";
    create.inject = [] { fake::sem::fail_create(REFUSED); };
    create.path = stat_report_path();
    create.expected = REFUSED;
    create.outcome = [] {
        return logged(0, "__sf_dp_report_sync", "create seme fails -77") && fake::mqtt::dp_reports().empty();
    };

    Fault interrupted;
    interrupted.name = "WaitSemaphore interrupted twice";
    interrupted.inject = [] { fake::sem::interrupt_waits(2); };
    interrupted.path = raw_report_path();
    interrupted.expected = RC_OK;
    interrupted.outcome = [] { return fake::sem::waits() >= 3; };

    Fault broken;
    broken.name = "WaitSemaphore fails";
    broken.inject = [] {
        fake::mqtt::set_auto_complete(fake::mqtt::AutoComplete::Off);
        fake::sem::fail_wait(RC_WAIT_SEM_FAIL, EIO);
    };
    broken.heal = [] {
        /* the publication completes after its reporter gave up waiting */
        fake::mqtt::complete_all(RC_OK);
        fake::mqtt::set_auto_complete(fake::mqtt::AutoComplete::Inline);
    };
    broken.path = stat_report_path();
    broken.expected = RC_WAIT_SEM_FAIL;
    broken.outcome = [] { return fake::registry::dp(SUB_ID, DP_VALUE)->pv_stat == PV_STAT_INVALID; };
    expect_faults({create, interrupted, broken});
}

TEST_F(CollaboratorFaults, RefusedPublicationsAreReturnedAndLeaveTheValuesToTheSync)
{
    auto refused = [](Path path, DP_PV_STAT_E after, BYTE_T dp) {
        Fault f;
        f.name = "mqc_dp_report_async refuses: " + path.name;
        f.inject = [] { fake::mqtt::push_dp_report_result(REFUSED); };
        f.path = std::move(path);
        f.expected = REFUSED;
        f.outcome = [after, dp] { return fake::registry::dp(SUB_ID, dp)->pv_stat == after; };
        return f;
    };
    Fault multi;
    multi.name = "mqc_dp_report_async refuses: sf_multi_dp_report_async";
    multi.inject = [] { fake::mqtt::push_dp_report_result(REFUSED); };
    multi.path = multi_report_path();
    multi.expected = REFUSED;
    multi.outcome = [] { return logged(0, "sf_multi_dp_report_async", "mqtt async send fail -77"); };

    Fault sync;
    sync.name = "mqc_dp_report_async refuses: __tmm_dp_sync_cb";
    sync.inject = [] { fake::mqtt::push_dp_report_result(REFUSED); };
    sync.path = dp_sync_path();
    sync.expected = RC_OK;
    sync.outcome = [] {
        return logged(4, "__tmm_dp_sync_cb", "__sf_dp_report_aysnc fail -77, schedule again") &&
               fake::timers::armed(sf_cntl.tmm_dp_sync);
    };
    expect_faults({
        refused(obj_report_path(), PV_STAT_LOCAL, DP_BOOL),
        refused(stat_report_path(), PV_STAT_CLOUD, DP_VALUE), /* a status report is not retried */
        refused(raw_report_path(), PV_STAT_CLOUD, DP_RAW),
        multi,
        sync,
    });
}

TEST_F(CollaboratorFaults, FailedCompletionsMarkTheValuesForTheSync)
{
    auto failing = [](Path path, DP_PV_STAT_E after, BYTE_T dp) {
        Fault f;
        f.name = "publication completes with a failure: " + path.name;
        f.inject = [] { fake::mqtt::set_auto_complete(fake::mqtt::AutoComplete::Inline, REFUSED); };
        f.heal = [] { fake::mqtt::set_auto_complete(fake::mqtt::AutoComplete::Inline, RC_OK); };
        f.path = std::move(path);
        f.outcome = [after, dp] { return fake::registry::dp(SUB_ID, dp)->pv_stat == after; };
        return f;
    };
    Fault obj = failing(obj_report_path(), PV_STAT_LOCAL, DP_BOOL);
    Fault stat = failing(stat_report_path(), PV_STAT_INVALID, DP_VALUE); /* no re-transmission asked */
    stat.expected = REFUSED;
    Fault raw = failing(raw_report_path(), PV_STAT_LOCAL, DP_RAW);     /* re-transmission asked */
    raw.expected = REFUSED;
    expect_faults({obj, stat, raw});
}

TEST_F(CollaboratorFaults, RefusedProtocolPublicationsAreLogged)
{
    auto refused = [](Path path, std::function<bool()> outcome) {
        Fault f;
        f.name = "mqc_prot_data_rept_seq refuses: " + path.name;
        f.inject = [] { fake::mqtt::push_prot_result(REFUSED); };
        f.path = std::move(path);
        f.outcome = std::move(outcome);
        return f;
    };
    fake::registry::add_devices({"a", "b"}); /* the registry keeps the tables of the scene members */
    expect_faults({
        refused(group_path(DP_CMD_MQ),
                [] { return logged(0, "__sf_gw_group_oper_cmd_cb", "report[1] fails -77"); }),
        refused(scene_path(), [] { return logged(0, "__sf_gw_scene_oper_cmd_cb", "mqc_prot_data_rept fails -77"); }),
        refused(batch_path(),
                [] {
                    return logged(0, "__tmm_dev_ol_sync_cb", "mqc_prot_data_rept_seq err:-77") &&
                           fake::timers::armed(sf_cntl.tmm_dev_ol_sync);
                }),
    });
}

TEST_F(CollaboratorFaults, RefusedQueryAnswerStillHandsTheCommandOver)
{
    Fault f;
    f.name = "mqc_obj_dp_query refuses";
    f.inject = [] { fake::mqtt::set_query_result(REFUSED); };
    f.heal = [] { fake::mqtt::set_query_result(RC_OK); };
    f.path = echo_path();
    f.outcome = [] {
        return app::obj_cmds().size() == 1 &&
               logged(0, "__sf_handle_recv_dp", "sf_obj_dp_qry_dpid error:-77  1 1");
    };
    expect_fault(f);
}

TEST_F(CollaboratorFaults, RefusedLanDeliveriesDoNotDecideTheOutcome)
{
    auto lan_refuses = [](Path path, std::string func) {
        Fault f;
        f.name = "lan_dp_sata_report refuses: " + path.name;
        f.inject = [] { fake::lan::set_result(REFUSED); };
        f.heal = [] { fake::lan::set_result(RC_LAN_NOT_SENT); };
        f.path = std::move(path);
        f.expected = RC_OK;
        f.outcome = [func] { return logged(0, func, "lan_dp_sata_report error:-77"); };
        return f;
    };
    Fault frame;
    frame.name = "lan_data_report_cb refuses: group answer";
    frame.inject = [] { fake::lan::set_frame_result(REFUSED); };
    frame.heal = [] { fake::lan::set_frame_result(RC_OK); };
    frame.path = group_path(DP_CMD_LAN);
    frame.outcome = [] { return logged(0, "__sf_gw_group_oper_cmd_cb", "report[1] fails -77"); };
    expect_faults({
        lan_refuses(obj_report_path(), "__sf_dp_report_aysnc"),
        lan_refuses(multi_report_path(), "sf_multi_dp_report_async"),
        lan_refuses(echo_path(), "__sf_response_query_obj_dp"),
        frame,
    });
}

TEST_F(CollaboratorFaults, RefusedRegistryUpdatesBecomeSceneResults)
{
    auto registry_refuses = [this](const std::string &name, std::function<void()> inject, const char *answer) {
        Fault f;
        f.name = name;
        f.inject = std::move(inject);
        f.path = scene_path();
        f.outcome = [answer] {
            return fake::mqtt::prot_reports().size() == 1 && fake::mqtt::prot_reports()[0].text == answer;
        };
        return f;
    };
    fake::registry::add_devices({"a", "b"}); /* the registry keeps the tables of the scene members */
    expect_faults({
        registry_refuses("dev_update_grp_info refuses", [] { fake::registry::push_grp_result(REFUSED); },
                         "{\"action\":0,\"cids\":[\"b\"],\"rets\":[4,0],\"sid\":\"01\",\"gid\":\"5\"}"),
        registry_refuses("dev_update_scene_info full",
                         [] {
                             fake::registry::push_grp_result(RC_OK);
                             fake::registry::push_scene_result(RC_MEMBERSHIP_FULL);
                         },
                         "{\"action\":0,\"cids\":[\"b\"],\"rets\":[1,0],\"sid\":\"01\",\"gid\":\"5\"}"),
    });
}

TEST_F(CollaboratorFaults, FailedTimerStartsAreSurvived)
{
    Fault hb;
    hb.name = "cmmod_start_tm_msg fails: sf_sys_mag_hb_init";
    hb.inject = [] { fake::msgq::fail(Call::start_tm_msg, REFUSED); };
    hb.path.name = "sf_sys_mag_hb_init";
    hb.path.run = [] { return sf_sys_mag_hb_init(nullptr); };
    hb.expected = REFUSED;
    hb.outcome = [] { return logged(0, "sf_sys_mag_hb_init", "cmmod_start_tm_msg err:-77"); };

    Fault presence;
    presence.name = "cmmod_start_tm_msg fails: sf_dev_online_stat_update";
    presence.inject = [] { fake::msgq::fail(Call::start_tm_msg, REFUSED); };
    presence.path.name = "sf_dev_online_stat_update";
    presence.path.run = [] { return sf_dev_online_stat_update(SUB_ID, TRUE); };
    presence.path.effect = [] { return fake::timers::armed(sf_cntl.tmm_dev_ol_sync); };
    presence.outcome = [] {
        /* no batch is armed, but the device stays marked: the next change starts it */
        return !fake::timers::armed(sf_cntl.tmm_dev_ol_sync) &&
               fake::registry::device(SUB_ID)->attr.dosm == DOSM_PENDING;
    };

    Fault sync;
    sync.name = "cmmod_start_tm_msg fails: sf_start_sync_obj_dp after a refused report";
    sync.inject = [] {
        fake::mqtt::push_dp_report_result(REFUSED);
        fake::msgq::fail(Call::start_tm_msg, REFUSED);
    };
    sync.path = obj_report_path();
    sync.expected = REFUSED;
    sync.outcome = [] {
        return !fake::timers::armed(sf_cntl.tmm_dp_sync) &&
               fake::registry::dp(SUB_ID, DP_BOOL)->pv_stat == PV_STAT_LOCAL;
    };
    expect_faults({hb, presence, sync});
}

TEST_F(CollaboratorFaults, GatewayWithoutNetworkKeepsTheValuesForLater)
{
    Fault obj;
    obj.name = "no network: sf_obj_dp_report_async";
    obj.inject = [] { fake::registry::set_nw_status(GW_NW_NONE); };
    obj.heal = [] { fake::registry::set_nw_status(GW_NW_CLOUD); };
    obj.path = obj_report_path();
    obj.expected = RC_NET_DOWN;
    obj.outcome = [] {
        return fake::registry::dp(SUB_ID, DP_BOOL)->pv_stat == PV_STAT_LOCAL &&
               fake::timers::armed(sf_cntl.tmm_dp_sync);
    };
    Fault sync = obj;
    sync.name = "no network: __tmm_dp_sync_cb";
    sync.path = dp_sync_path();
    sync.expected = RC_OK;
    sync.outcome = [] { return fake::mqtt::dp_reports().empty() && fake::timers::armed(sf_cntl.tmm_dp_sync); };
    Fault batch = obj;
    batch.name = "no network: __tmm_dev_ol_sync_cb";
    batch.path = batch_path();
    batch.expected = RC_OK;
    batch.outcome = [] {
        return fake::mqtt::prot_reports().empty() && fake::timers::armed(sf_cntl.tmm_dev_ol_sync);
    };
    expect_faults({obj, sync, batch});
}

class StartUpFaults : public SfFakesTest {};

TEST_F(StartUpFaults, FailedMutexCreationLeavesStartUpRepeatable)
{
    fake::mutex::fail_create(REFUSED, 2); /* the presence lock */
    EXPECT_EQ(REFUSED, smart_frame_init());
    EXPECT_TRUE(fake::log::has(0, "smart_frame_init", "CreateMutexAndInit fails -77"));
    fake::mutex::fail_create(REFUSED, 1); /* the serial-number lock */
    EXPECT_EQ(REFUSED, smart_frame_init());

    EXPECT_EQ(RC_OK, smart_frame_init());
    EXPECT_EQ(0u, sf_get_serial_no());
    std::printf("fault: CreateMutexAndInit fails (first and second)\n");
}

} // namespace
