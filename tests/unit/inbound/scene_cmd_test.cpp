#include <gtest/gtest.h>

#include <cstring>

#include "smart_frame/inbound/inbound.h"
#include "tests/unit/inbound/member_oper_fixture.h"

using namespace member_test;
using fake::registry::grp_updates;
using fake::registry::scene_updates;

namespace {

constexpr const char *HANDLER = "__sf_gw_scene_oper_cmd_cb";

/* {"action":A,"cids":[ids],"sid":"01","gid":"5"} */
std::string command(int action, const std::vector<std::string> &ids)
{
    return "{\"action\":" + std::to_string(action) + ",\"cids\":" + json_list(ids) + ",\"sid\":\"01\",\"gid\":\"5\"}";
}

/* the answer for scene 01 of group 5 */
std::string answer(int action, const std::vector<std::string> &done, const std::vector<OPERATE_RET> &rets)
{
    std::string cids;
    for (const std::string &id : done) {
        cids += (cids.empty() ? "\"" : ",\"") + id + "\"";
    }
    return "{\"action\":" + std::to_string(action) + ",\"cids\":[" + cids + "],\"rets\":[" + code_list(rets) +
           "],\"sid\":\"01\",\"gid\":\"5\"}";
}

class SceneCmd : public MemberOperTest {
protected:
    void SetUp() override
    {
        MemberOperTest::SetUp();
        /* the registry keeps the tables of the sub-devices the commands name */
        fake::registry::add_devices({"a", "b", "c", "d", "e", "f", "g", "h"});
    }

    std::string mqtt_answer() const { return MemberOperTest::mqtt_answer(205); }

    /* Refused before any callback: logged, no answer on any channel. */
    void expect_malformed() const
    {
        EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, HANDLER, "param is no correct")) << fake::log::dump();
        expect_dropped();
    }

    void expect_dropped() const
    {
        EXPECT_TRUE(rec().grp_calls.empty());
        EXPECT_TRUE(rec().scene_calls.empty());
        EXPECT_TRUE(grp_updates().empty());
        EXPECT_TRUE(scene_updates().empty());
        EXPECT_EQ(base_prots, fake::mqtt::prot_reports().size());
        EXPECT_TRUE(fake::lan::frames().empty());
    }
};

TEST_F(SceneCmd, AddingTwoDevicesRunsEveryStepInOrderAndListsBoth)
{
    run_scene(DP_CMD_MQ, command(0, {"a", "b"}));

    const std::vector<std::string> order = {"grp a", "scene a", "grp b", "scene b"};
    EXPECT_EQ(order, rec().order);
    ASSERT_EQ(2u, rec().grp_calls.size());
    EXPECT_EQ(GRP_ADD, rec().grp_calls[0].action);
    EXPECT_EQ("a", rec().grp_calls[0].dev_id);
    EXPECT_EQ("5", rec().grp_calls[0].grp_id);
    EXPECT_EQ(0u, rec().grp_calls[0].reg_grp_before);
    EXPECT_EQ(1u, rec().grp_calls[1].reg_grp_before); /* a is recorded before b starts */
    ASSERT_EQ(2u, rec().scene_calls.size());
    EXPECT_EQ(SCE_ADD, rec().scene_calls[1].action);
    EXPECT_EQ("b", rec().scene_calls[1].dev_id);
    EXPECT_EQ("5", rec().scene_calls[1].grp_id);
    EXPECT_EQ("01", rec().scene_calls[1].sce_id);

    ASSERT_EQ(2u, grp_updates().size());
    EXPECT_EQ(GRP_ADD, grp_updates()[0].action);
    EXPECT_EQ("a", grp_updates()[0].dev_id);
    EXPECT_EQ("5", grp_updates()[0].grp_id);
    EXPECT_EQ("b", grp_updates()[1].dev_id);
    ASSERT_EQ(2u, scene_updates().size());
    EXPECT_EQ(SCE_ADD, scene_updates()[0].action);
    EXPECT_EQ("a", scene_updates()[0].dev_id);
    EXPECT_EQ("5", scene_updates()[0].grp_id);
    EXPECT_EQ("01", scene_updates()[0].sce_id);
    EXPECT_EQ("b", scene_updates()[1].dev_id);

    EXPECT_EQ("{\"action\":0,\"cids\":[\"a\",\"b\"],\"rets\":[0,0],\"sid\":\"01\",\"gid\":\"5\"}", mqtt_answer());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, HANDLER, "Rev Cmd 1"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, HANDLER, "dev_num:2,success:2"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, HANDLER,
                               "ret_str is {\"action\":0,\"cids\":[\"a\",\"b\"],\"rets\":[0,0],\"sid\":\"01\",\"gid\":\"5\"}"));
    EXPECT_EQ(0u, errors_of(HANDLER));
}

TEST_F(SceneCmd, GroupStepFailureOfTheSecondDeviceGivesFiveAndSkipsItsOtherSteps)
{
    rec().grp_results = {0, -3};
    run_scene(DP_CMD_MQ, command(0, {"a", "b"}));

    const std::vector<std::string> order = {"grp a", "scene a", "grp b"};
    EXPECT_EQ(order, rec().order);
    EXPECT_EQ(1u, grp_updates().size());
    EXPECT_EQ(1u, scene_updates().size());
    EXPECT_EQ("{\"action\":0,\"cids\":[\"a\"],\"rets\":[0,5],\"sid\":\"01\",\"gid\":\"5\"}", mqtt_answer());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, HANDLER, "gw_dev_grp_cb err action:0 dev_id:b grp_id:5"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, HANDLER, "dev_num:2,success:1"));
}

TEST_F(SceneCmd, RemovingWithTheGroupStepFailingWithThreeListsNoDevice)
{
    rec().grp_results = {3};
    run_scene(DP_CMD_MQ, command(1, {"a"}));

    ASSERT_EQ(1u, rec().grp_calls.size());
    EXPECT_EQ(GRP_DEL, rec().grp_calls[0].action);
    EXPECT_TRUE(rec().scene_calls.empty());
    EXPECT_TRUE(grp_updates().empty());
    EXPECT_TRUE(scene_updates().empty());
    EXPECT_EQ("{\"action\":1,\"cids\":[],\"rets\":[3],\"sid\":\"01\",\"gid\":\"5\"}", mqtt_answer());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, HANDLER, "gw_dev_grp_cb err action:1 dev_id:a grp_id:5"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, HANDLER, "dev_num:1,success:0"));
}

TEST_F(SceneCmd, RemovingUpdatesTheRegistryWithoutAskingTheApplicationsSceneStep)
{
    run_scene(DP_CMD_MQ, command(9, {"a"}));

    const std::vector<std::string> order = {"grp a"};
    EXPECT_EQ(order, rec().order);
    EXPECT_EQ(GRP_DEL, rec().grp_calls[0].action);
    ASSERT_EQ(1u, grp_updates().size());
    EXPECT_EQ(GRP_DEL, grp_updates()[0].action);
    EXPECT_EQ("a", grp_updates()[0].dev_id);
    EXPECT_EQ("5", grp_updates()[0].grp_id);
    ASSERT_EQ(1u, scene_updates().size());
    EXPECT_EQ(SCE_DEL, scene_updates()[0].action);
    EXPECT_EQ("a", scene_updates()[0].dev_id);
    EXPECT_EQ("5", scene_updates()[0].grp_id);
    EXPECT_EQ("01", scene_updates()[0].sce_id);
    EXPECT_EQ(answer(1, {"a"}, {0}), mqtt_answer());
}

TEST_F(SceneCmd, ApplicationCodesOneToFourPassAndOthersBecomeFive)
{
    rec().grp_results = {1, 2, 3, 4, 5, -1, -1000, 6};
    const std::vector<std::string> ids = {"a", "b", "c", "d", "e", "f", "g", "h"};
    run_scene(DP_CMD_MQ, command(0, ids));
    EXPECT_EQ(answer(0, {}, {1, 2, 3, 4, 5, 5, 5, 5}), mqtt_answer());
    EXPECT_EQ(8u, errors_of(HANDLER));
    EXPECT_TRUE(rec().scene_calls.empty());
}

TEST_F(SceneCmd, SceneStepFailureWithMinusSevenGivesFiveWithoutALogLine)
{
    rec().scene_results = {-7};
    run_scene(DP_CMD_MQ, command(0, {"a", "b"}));

    const std::vector<std::string> order = {"grp a", "scene a", "grp b", "scene b"};
    EXPECT_EQ(order, rec().order);
    ASSERT_EQ(1u, grp_updates().size()); /* a kept what the application did: no undo, no record */
    EXPECT_EQ("b", grp_updates()[0].dev_id);
    EXPECT_EQ(answer(0, {"b"}, {5, 0}), mqtt_answer());
    EXPECT_EQ(0u, errors_of(HANDLER));
}

TEST_F(SceneCmd, SceneStepCodesOneToFourPass)
{
    rec().scene_results = {4, 1};
    run_scene(DP_CMD_MQ, command(0, {"a", "b"}));
    EXPECT_EQ(answer(0, {}, {4, 1}), mqtt_answer());
}

TEST_F(SceneCmd, FullGroupTableWhileAddingGivesOne)
{
    fake::registry::push_grp_result(RC_MEMBERSHIP_FULL);
    run_scene(DP_CMD_MQ, command(0, {"a"}));

    EXPECT_EQ(1u, grp_updates().size());
    EXPECT_TRUE(scene_updates().empty());
    EXPECT_EQ(answer(0, {}, {1}), mqtt_answer());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, HANDLER, "dev_update_grp_info fails -1007"));
}

TEST_F(SceneCmd, FullSceneTableWhileAddingGivesOne)
{
    fake::registry::push_scene_result(RC_MEMBERSHIP_FULL);
    run_scene(DP_CMD_MQ, command(0, {"a"}));
    EXPECT_EQ(answer(0, {}, {1}), mqtt_answer());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, HANDLER, "dev_update_scene_info fails -1007"));
}

TEST_F(SceneCmd, OtherRegistryRefusalsWhileAddingGiveFour)
{
    fake::registry::push_grp_result(RC_DEV_NOT_FOUND);
    fake::registry::push_grp_result(RC_OK);
    fake::registry::push_scene_result(RC_BAD_PARAM);
    run_scene(DP_CMD_MQ, command(0, {"a", "b"}));
    EXPECT_EQ(answer(0, {}, {4, 4}), mqtt_answer());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, HANDLER, "dev_update_grp_info fails -901"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, HANDLER, "dev_update_scene_info fails -2"));
}

TEST_F(SceneCmd, FullTableWhileRemovingGivesFour)
{
    fake::registry::push_grp_result(RC_MEMBERSHIP_FULL);
    fake::registry::push_grp_result(RC_OK);
    fake::registry::push_scene_result(RC_MEMBERSHIP_FULL);
    run_scene(DP_CMD_MQ, command(1, {"a", "b"}));

    EXPECT_EQ(2u, grp_updates().size());
    EXPECT_EQ(1u, scene_updates().size()); /* a stopped at the group record */
    EXPECT_EQ(answer(1, {}, {4, 4}), mqtt_answer());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, HANDLER, "dev_update_grp_info fails -1007"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, HANDLER, "dev_update_scene_info fails -1007"));
}

TEST_F(SceneCmd, LanCommandIsStillAnsweredOverMqttWith205)
{
    run_scene(DP_CMD_LAN, command(0, {"a"}));
    EXPECT_EQ(answer(0, {"a"}, {0}), mqtt_answer());
    EXPECT_TRUE(fake::lan::frames().empty());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, HANDLER, "Rev Cmd 0"));
}

TEST_F(SceneCmd, MissingSidIsMalformedWithoutCallbackOrAnswer)
{
    run_scene(DP_CMD_MQ, "{\"action\":0,\"cids\":[\"a\"],\"gid\":\"5\"}");
    expect_malformed();
}

/* unlike a group command, a malformed scene command gets no LAN failure answer */
TEST_F(SceneCmd, EveryMalformedCommandIsOnlyLoggedOnBothChannels)
{
    const char *commands[] = {
        "{\"cids\":[\"a\"],\"sid\":\"01\",\"gid\":\"5\"}",
        "{\"action\":0,\"sid\":\"01\",\"gid\":\"5\"}",
        "{\"action\":0,\"cids\":[\"a\"],\"sid\":\"01\"}",
        "{\"action\":0,\"cids\":[],\"sid\":\"01\",\"gid\":\"5\"}",
        "{\"action\":0,\"cids\":\"a\",\"sid\":\"01\",\"gid\":\"5\"}",
        "{\"action\":0,\"cids\":[\"a\",{}],\"sid\":\"01\",\"gid\":\"5\"}",
        "{\"action\":0,\"cids\":[\"a\"],\"sid\":1,\"gid\":\"5\"}",
        "{\"action\":0,\"cids\":[\"a\"],\"sid\":\"01\",\"gid\":null}",
        "{\"action\":false,\"cids\":[\"a\"],\"sid\":\"01\",\"gid\":\"5\"}",
        "\"scene\"",
    };
    for (DP_CMD_TYPE_E tp : {DP_CMD_LAN, DP_CMD_MQ}) {
        for (const char *text : commands) {
            SCOPED_TRACE(std::string(text) + " tp " + std::to_string(tp));
            next_round();
            run_scene(tp, text);
            expect_malformed();
        }
    }
}

TEST_F(SceneCmd, CommandWithoutATreeIsMalformed)
{
    SF_GW_SCE_CMD_S cmd{DP_CMD_MQ, nullptr};
    ASSERT_EQ(RC_OK, sf_send_scene_oper_cmd(&cmd));
    fake::msgq::run_all();
    expect_malformed();
}

TEST_F(SceneCmd, WithoutTheSceneCallbackTheCommandIsDroppedSilently)
{
    get_gw_cntl()->gw_cbs.gw_dev_scene_cb = nullptr;
    run_scene(DP_CMD_MQ, command(0, {"a"}));
    expect_dropped();
    EXPECT_EQ(1u, fake::log::entries().size()) << fake::log::dump();
}

TEST_F(SceneCmd, WithoutTheGroupCallbackTheCommandIsDroppedSilently)
{
    get_gw_cntl()->gw_cbs.gw_dev_grp_cb = nullptr;
    run_scene(DP_CMD_MQ, command(1, {"a"}));
    expect_dropped();
    EXPECT_EQ(1u, fake::log::entries().size()) << fake::log::dump();
}

TEST_F(SceneCmd, PublicationFailureIsLoggedAndNotRetried)
{
    fake::mqtt::push_prot_result(-5);
    run_scene(DP_CMD_MQ, command(0, {"a"}));
    EXPECT_EQ(answer(0, {"a"}, {0}), mqtt_answer());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, HANDLER, "mqc_prot_data_rept fails -5"));
}

TEST_F(SceneCmd, SendPostsACopyOfTheEnvelopeToTheSceneHandler)
{
    expect_posted_copy(sf_send_scene_oper_cmd, command(0, {"a"}), sf::sf_cntl.mid_gw_scene_oper_cmd,
                       __sf_gw_scene_oper_cmd_cb);
    EXPECT_EQ(1u, rec().scene_calls.size());
}

TEST_F(SceneCmd, FailedPostReturnsTheCodeAndLeavesTheTreeWithTheCaller)
{
    expect_failed_post_keeps_tree(sf_send_scene_oper_cmd, command(0, {"a"}));
}

TEST_F(SceneCmd, SendWithoutAnEnvelopeIsRefused)
{
    EXPECT_EQ(RC_BAD_PARAM, sf_send_scene_oper_cmd(nullptr));
    EXPECT_EQ(0u, fake::msgq::pending());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "sf_send_scene_oper_cmd", "Invalid Param"));
}

TEST_F(SceneCmd, HandlerWithoutAMessageDoesNothing)
{
    expect_empty_messages_ignored(__sf_gw_scene_oper_cmd_cb, sf::sf_cntl.mid_gw_scene_oper_cmd);
}

/* ---- the 256-entry tables and answers sized to what they print ---- */

class SceneCmdBound : public SceneCmd {
protected:
    /* n ids of 25 characters; every third device fails its group step with -1000 */
    void run_long(int n)
    {
        ids = make_ids(n, 25);
        fake::registry::add_devices(ids);
        for (int i = 0; i < n; ++i) {
            rec().grp_results.push_back(i % 3 == 2 ? -1000 : 0);
        }
        run_scene(DP_CMD_LAN, command(0, ids));
    }
    void expect_answered(int n)
    {
        std::vector<std::string> done;
        std::vector<OPERATE_RET> rets;
        for (int i = 0; i < n; ++i) {
            rets.push_back(i % 3 == 2 ? 5 : 0);
            if (i % 3 != 2) {
                done.push_back(ids[static_cast<size_t>(i)]);
            }
        }
        EXPECT_EQ(static_cast<size_t>(n), rec().grp_calls.size());
        EXPECT_EQ(done.size(), scene_updates().size());
        EXPECT_EQ(answer(0, done, rets), mqtt_answer());
        EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, HANDLER,
                                   "dev_num:" + std::to_string(n) + ",success:" + std::to_string(done.size())));
    }
    std::vector<std::string> ids;
};

TEST_F(SceneCmdBound, TwoHundredFiftyFiveIdsAreAllAnswered)
{
    run_long(255);
    expect_answered(255);
}

TEST_F(SceneCmdBound, TwoHundredFiftySixIdsFillTheTablesExactly)
{
    run_long(256);
    expect_answered(256);
}

TEST_F(SceneCmdBound, TwoHundredFiftySixLongIdsThatAllSucceedAreAllListed)
{
    ids = make_ids(256, 25);
    fake::registry::add_devices(ids);
    run_scene(DP_CMD_MQ, command(1, ids));
    EXPECT_EQ(answer(1, ids, std::vector<OPERATE_RET>(256, 0)), mqtt_answer());
}

TEST_F(SceneCmdBound, TwoHundredFiftySevenIdsAreRefusedWithoutAnswer)
{
    run_long(257);
    expect_malformed();
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "cids num:257,max:256"));
}

TEST_F(SceneCmdBound, LongSceneAndGroupIdsFitTheAnswer)
{
    const std::string sid(40, 's');
    const std::string gid(40, 'g');
    /* ids this long are more than the registry's tables take: the answer text is what is tested here */
    fake::registry::push_grp_result(RC_OK);
    fake::registry::push_scene_result(RC_OK);
    run_scene(DP_CMD_MQ, "{\"action\":0,\"cids\":[\"a\"],\"sid\":\"" + sid + "\",\"gid\":\"" + gid + "\"}");
    EXPECT_EQ("{\"action\":0,\"cids\":[\"a\"],\"rets\":[0],\"sid\":\"" + sid + "\",\"gid\":\"" + gid + "\"}",
              mqtt_answer());
}

/* ---- allocation failures ---- */

TEST_F(SceneCmd, FailedResultListAllocationIsLoggedAndNothingIsSent)
{
    queue_scene(DP_CMD_MQ, command(0, {"a", "b"}));
    run_failing_allocation(1);

    EXPECT_EQ(2u, scene_updates().size()); /* the work is done; only the answer is lost */
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, HANDLER, "Malloc Fails 14")); /* "rets":[0,0], */
    EXPECT_TRUE(fake::mqtt::prot_reports().empty());
}

TEST_F(SceneCmd, FailedAnswerAllocationIsLoggedAndNothingIsSent)
{
    queue_scene(DP_CMD_MQ, command(0, {"a", "b"}));
    run_failing_allocation(2);

    const std::string text = answer(0, {"a", "b"}, {0, 0});
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, HANDLER, "Malloc Fails " + std::to_string(text.size() + 1)));
    EXPECT_TRUE(fake::mqtt::prot_reports().empty());
}

TEST_F(SceneCmd, AllocationFailureSweepNeverCrashesNorLeaks)
{
    sweep_allocations(sf_send_scene_oper_cmd, command(0, {"a", "b"}), 205, answer(0, {"a", "b"}, {0, 0}));
}

} // namespace
