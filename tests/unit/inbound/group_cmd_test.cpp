#include <gtest/gtest.h>

#include <cstring>

#include "smart_frame/inbound/inbound.h"
#include "tests/unit/inbound/member_oper_fixture.h"

using namespace member_test;

namespace {

constexpr const char *HANDLER = "__sf_gw_group_oper_cmd_cb";

class GroupCmd : public MemberOperTest {
protected:
    std::string mqtt_answer() const { return MemberOperTest::mqtt_answer(203); }

    void expect_malformed(DP_CMD_TYPE_E tp) const
    {
        EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, HANDLER, "param is no correct")) << fake::log::dump();
        EXPECT_TRUE(rec().grp_calls.empty());
        EXPECT_EQ(base_prots, fake::mqtt::prot_reports().size());
        if (tp == DP_CMD_LAN) {
            ASSERT_EQ(base_frames + 1, fake::lan::frames().size());
            const fake::lan::Frame &frame = fake::lan::frames().back();
            EXPECT_EQ(208u, frame.type);
            EXPECT_EQ(1u, frame.flag);
            EXPECT_EQ("scene oper failed", frame.data);
            EXPECT_EQ(17u, frame.len);
        } else {
            EXPECT_EQ(base_frames, fake::lan::frames().size());
        }
    }
};

TEST_F(GroupCmd, AddingTwoDevicesOverMqttCallsTheApplicationInOrderAndAnswersWith203)
{
    run_group(DP_CMD_MQ, "{\"action\":0,\"cids\":[\"a\",\"b\"],\"gid\":\"5\"}");

    ASSERT_EQ(2u, rec().grp_calls.size());
    EXPECT_EQ(GRP_ADD, rec().grp_calls[0].action);
    EXPECT_EQ("a", rec().grp_calls[0].dev_id);
    EXPECT_EQ("5", rec().grp_calls[0].grp_id);
    EXPECT_EQ(GRP_ADD, rec().grp_calls[1].action);
    EXPECT_EQ("b", rec().grp_calls[1].dev_id);
    EXPECT_EQ("5", rec().grp_calls[1].grp_id);
    EXPECT_EQ("{\"action\":0,\"rets\":[0,0],\"gid\":\"5\"}", mqtt_answer());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, HANDLER, "Rev Cmd 1"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, HANDLER, "ret_str is {\"action\":0,\"rets\":[0,0],\"gid\":\"5\"}"));
    EXPECT_EQ(0u, errors_of(HANDLER));
}

TEST_F(GroupCmd, LeavesTheRegistryGroupRecordsToTheApplication)
{
    run_group(DP_CMD_MQ, "{\"action\":0,\"cids\":[\"a\"],\"gid\":\"5\"}");
    EXPECT_EQ(1u, rec().grp_calls.size());
    EXPECT_TRUE(fake::registry::grp_updates().empty());
    EXPECT_TRUE(fake::registry::scene_updates().empty());
    EXPECT_TRUE(rec().scene_calls.empty());
}

TEST_F(GroupCmd, AnyNonZeroActionRemovesAndIsAnsweredAsOne)
{
    run_group(DP_CMD_MQ, "{\"action\":7,\"cids\":[\"a\",\"b\"],\"gid\":\"5\"}");

    ASSERT_EQ(2u, rec().grp_calls.size());
    EXPECT_EQ(GRP_DEL, rec().grp_calls[0].action);
    EXPECT_EQ(GRP_DEL, rec().grp_calls[1].action);
    EXPECT_EQ("{\"action\":1,\"rets\":[0,0],\"gid\":\"5\"}", mqtt_answer());
}

TEST_F(GroupCmd, FailingDeviceKeepsItsCodeAndTheOthersStillRun)
{
    rec().grp_results = {-1, 0};
    run_group(DP_CMD_MQ, "{\"action\":1,\"cids\":[\"a\",\"b\",\"c\"],\"gid\":\"7\"}");

    ASSERT_EQ(3u, rec().grp_calls.size());
    EXPECT_EQ("c", rec().grp_calls[2].dev_id);
    EXPECT_EQ("{\"action\":1,\"rets\":[-1,0,0],\"gid\":\"7\"}", mqtt_answer());
    EXPECT_EQ(0u, errors_of(HANDLER));
}

TEST_F(GroupCmd, SecondDeviceFailingGivesTheDocumentedAnswer)
{
    rec().grp_results = {0, -1};
    run_group(DP_CMD_MQ, "{\"action\":1,\"cids\":[\"a\",\"b\"],\"gid\":\"7\"}");
    EXPECT_EQ("{\"action\":1,\"rets\":[0,-1],\"gid\":\"7\"}", mqtt_answer());
}

TEST_F(GroupCmd, OneDeviceClosesTheListAfterItsOnlyResult)
{
    rec().grp_results = {3};
    run_group(DP_CMD_MQ, "{\"action\":0,\"cids\":[\"a\"],\"gid\":\"5\"}");
    EXPECT_EQ("{\"action\":0,\"rets\":[3],\"gid\":\"5\"}", mqtt_answer());
}

TEST_F(GroupCmd, LanCommandIsAnsweredWithFrame208AndFlagZero)
{
    run_group(DP_CMD_LAN, "{\"action\":0,\"cids\":[\"a\",\"b\"],\"gid\":\"5\"}");

    const std::string answer = "{\"action\":0,\"rets\":[0,0],\"gid\":\"5\"}";
    ASSERT_EQ(1u, fake::lan::frames().size());
    EXPECT_EQ(208u, fake::lan::frames()[0].type);
    EXPECT_EQ(0u, fake::lan::frames()[0].flag);
    EXPECT_EQ(answer, fake::lan::frames()[0].data);
    EXPECT_EQ(answer.size(), fake::lan::frames()[0].len);
    EXPECT_TRUE(fake::mqtt::prot_reports().empty());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, HANDLER, "Rev Cmd 0"));
}

TEST_F(GroupCmd, EmptyCidsFromTheLanIsAnsweredWithTheFailureFrame)
{
    run_group(DP_CMD_LAN, "{\"action\":0,\"cids\":[],\"gid\":\"5\"}");
    expect_malformed(DP_CMD_LAN);
}

TEST_F(GroupCmd, EmptyCidsFromMqttIsOnlyLogged)
{
    run_group(DP_CMD_MQ, "{\"action\":0,\"cids\":[],\"gid\":\"5\"}");
    expect_malformed(DP_CMD_MQ);
}

TEST_F(GroupCmd, MissingGidIsMalformedAndTheApplicationIsNeverCalled)
{
    run_group(DP_CMD_MQ, "{\"action\":0,\"cids\":[\"a\"]}");
    expect_malformed(DP_CMD_MQ);
}

TEST_F(GroupCmd, EveryMissingKeyIsMalformedOnBothChannels)
{
    const char *commands[] = {
        "{\"cids\":[\"a\"],\"gid\":\"5\"}",
        "{\"action\":0,\"gid\":\"5\"}",
        "{\"action\":0,\"cids\":[\"a\"]}",
        "{}",
    };
    for (DP_CMD_TYPE_E tp : {DP_CMD_LAN, DP_CMD_MQ}) {
        for (const char *command : commands) {
            SCOPED_TRACE(std::string(command) + " tp " + std::to_string(tp));
            next_round();
            run_group(tp, command);
            expect_malformed(tp);
        }
    }
}

/* ids must be texts to reach the application and the answer; so must the group id */
TEST_F(GroupCmd, KeysOfTheWrongTypeAreMalformed)
{
    const char *commands[] = {
        "{\"action\":0,\"cids\":{\"x\":\"a\"},\"gid\":\"5\"}",
        "{\"action\":0,\"cids\":\"a\",\"gid\":\"5\"}",
        "{\"action\":0,\"cids\":[\"a\",7],\"gid\":\"5\"}",
        "{\"action\":0,\"cids\":[\"a\",null],\"gid\":\"5\"}",
        "{\"action\":0,\"cids\":[\"a\"],\"gid\":5}",
        "{\"action\":\"0\",\"cids\":[\"a\"],\"gid\":\"5\"}",
        "[0,[\"a\"],\"5\"]",
    };
    for (const char *command : commands) {
        SCOPED_TRACE(command);
        next_round();
        run_group(DP_CMD_LAN, command);
        expect_malformed(DP_CMD_LAN);
    }
}

TEST_F(GroupCmd, CommandWithoutATreeIsMalformed)
{
    SF_GW_DEV_CMD_S cmd{DP_CMD_LAN, nullptr};
    ASSERT_EQ(RC_OK, sf_send_grp_oper_cmd(&cmd));
    fake::msgq::run_all();
    expect_malformed(DP_CMD_LAN);
}

TEST_F(GroupCmd, WithoutAnApplicationCallbackTheCommandIsDroppedSilently)
{
    get_gw_cntl()->gw_cbs.gw_dev_grp_cb = nullptr;
    run_group(DP_CMD_LAN, "{\"action\":0,\"cids\":[\"a\"],\"gid\":\"5\"}");

    EXPECT_TRUE(fake::lan::frames().empty());
    EXPECT_TRUE(fake::mqtt::prot_reports().empty());
    ASSERT_EQ(1u, fake::log::entries().size()) << fake::log::dump();
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, HANDLER, "Rev Cmd 0"));
}

TEST_F(GroupCmd, OtherChannelGetsNoAnswerAndLogsTheLastDevicesFailure)
{
    rec().grp_results = {0, -5};
    run_group(2, "{\"action\":0,\"cids\":[\"a\",\"b\"],\"gid\":\"5\"}");

    EXPECT_EQ(2u, rec().grp_calls.size());
    EXPECT_TRUE(fake::lan::frames().empty());
    EXPECT_TRUE(fake::mqtt::prot_reports().empty());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, HANDLER, "ret_str is {\"action\":0,\"rets\":[0,-5],\"gid\":\"5\"}"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, HANDLER, "report[1] fails -5"));
}

TEST_F(GroupCmd, OtherChannelWithTheLastDeviceDoneLogsNoFailure)
{
    rec().grp_results = {-5, 0};
    run_group(2, "{\"action\":0,\"cids\":[\"a\",\"b\"],\"gid\":\"5\"}");
    EXPECT_TRUE(fake::mqtt::prot_reports().empty());
    EXPECT_EQ(0u, errors_of(HANDLER));
}

TEST_F(GroupCmd, MqttRefusalIsLoggedAndNotRetried)
{
    fake::mqtt::push_prot_result(-7);
    run_group(DP_CMD_MQ, "{\"action\":0,\"cids\":[\"a\"],\"gid\":\"5\"}");
    EXPECT_EQ(1u, fake::mqtt::prot_reports().size());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, HANDLER, "report[1] fails -7"));
}

TEST_F(GroupCmd, LanSendFailureIsLogged)
{
    fake::lan::set_frame_result(-3);
    run_group(DP_CMD_LAN, "{\"action\":0,\"cids\":[\"a\"],\"gid\":\"5\"}");
    EXPECT_EQ(1u, fake::lan::frames().size());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, HANDLER, "report[1] fails -3"));
}

TEST_F(GroupCmd, SendPostsACopyOfTheEnvelopeToTheGroupHandler)
{
    expect_posted_copy(sf_send_grp_oper_cmd, "{\"action\":0,\"cids\":[\"a\"],\"gid\":\"5\"}",
                       sf::sf_cntl.mid_gw_group_oper_cmd, __sf_gw_group_oper_cmd_cb);
    EXPECT_EQ(1u, rec().grp_calls.size());
}

TEST_F(GroupCmd, FailedPostReturnsTheCodeAndLeavesTheTreeWithTheCaller)
{
    expect_failed_post_keeps_tree(sf_send_grp_oper_cmd, "{\"action\":0,\"cids\":[\"a\"],\"gid\":\"5\"}");
}

TEST_F(GroupCmd, SendWithoutAnEnvelopeIsRefused)
{
    EXPECT_EQ(RC_BAD_PARAM, sf_send_grp_oper_cmd(nullptr));
    EXPECT_EQ(0u, fake::msgq::pending());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "sf_send_grp_oper_cmd", "Invalid Param"));
}

TEST_F(GroupCmd, HandlerWithoutAMessageDoesNothing)
{
    expect_empty_messages_ignored(__sf_gw_group_oper_cmd_cb, sf::sf_cntl.mid_gw_group_oper_cmd);
}

/* ---- the 256-entry result table and answers sized to what they print ---- */

class GroupCmdBound : public GroupCmd {
protected:
    /* n ids of 25 characters, every device failing with -1000, from the LAN */
    void run_long(int n)
    {
        ids = make_ids(n, 25);
        rec().grp_results.assign(static_cast<size_t>(n), -1000);
        run_group(DP_CMD_LAN, "{\"action\":1,\"cids\":" + json_list(ids) + ",\"gid\":\"" + std::string(25, 'g') + "\"}");
    }
    void expect_answered(int n)
    {
        ASSERT_EQ(static_cast<size_t>(n), rec().grp_calls.size());
        EXPECT_EQ(ids.back(), rec().grp_calls.back().dev_id);
        const std::string answer = "{\"action\":1,\"rets\":[" +
                                   code_list(std::vector<OPERATE_RET>(static_cast<size_t>(n), -1000)) +
                                   "],\"gid\":\"" + std::string(25, 'g') + "\"}";
        ASSERT_EQ(1u, fake::lan::frames().size());
        EXPECT_EQ(0u, fake::lan::frames()[0].flag);
        EXPECT_EQ(answer, fake::lan::frames()[0].data);
        EXPECT_EQ(answer.size(), fake::lan::frames()[0].len);
    }
    std::vector<std::string> ids;
};

TEST_F(GroupCmdBound, TwoHundredFiftyFiveIdsAreAllAnswered)
{
    run_long(255);
    expect_answered(255);
}

TEST_F(GroupCmdBound, TwoHundredFiftySixIdsFillTheTableExactly)
{
    run_long(256);
    expect_answered(256);
}

/* a longer list is refused whole, like any malformed command, rather than answered in part */
TEST_F(GroupCmdBound, TwoHundredFiftySevenIdsAreRefusedAsMalformed)
{
    run_long(257);
    expect_malformed(DP_CMD_LAN);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "cids num:257,max:256"));
}

TEST_F(GroupCmdBound, TooManyIdsFromMqttAreOnlyLogged)
{
    ids = make_ids(300, 3);
    run_group(DP_CMD_MQ, "{\"action\":0,\"cids\":" + json_list(ids) + ",\"gid\":\"5\"}");
    expect_malformed(DP_CMD_MQ);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "cids num:300,max:256"));
}

TEST_F(GroupCmdBound, MostNegativeCodesFitTheAnswer)
{
    rec().grp_results = {INT32_MIN, -2147483647, 2147483647};
    run_group(DP_CMD_MQ, "{\"action\":0,\"cids\":[\"a\",\"b\",\"c\"],\"gid\":\"5\"}");
    EXPECT_EQ("{\"action\":0,\"rets\":[-2147483648,-2147483647,2147483647],\"gid\":\"5\"}", mqtt_answer());
}

/* ---- allocation failures ---- */

TEST_F(GroupCmd, FailedResultListAllocationIsLoggedAndNothingIsSent)
{
    queue_group(DP_CMD_MQ, "{\"action\":0,\"cids\":[\"a\",\"b\"],\"gid\":\"5\"}");
    run_failing_allocation(1);

    EXPECT_EQ(2u, rec().grp_calls.size());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, HANDLER, "Malloc Fails 14")); /* "rets":[0,0], */
    EXPECT_TRUE(fake::mqtt::prot_reports().empty());
}

TEST_F(GroupCmd, FailedAnswerAllocationIsLoggedAndNothingIsSent)
{
    queue_group(DP_CMD_LAN, "{\"action\":0,\"cids\":[\"a\",\"b\"],\"gid\":\"5\"}");
    run_failing_allocation(2);

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, HANDLER, "Malloc Fails 36")); /* the answer and its terminator */
    EXPECT_TRUE(fake::lan::frames().empty());
}

TEST_F(GroupCmd, AllocationFailureSweepNeverCrashesNorLeaks)
{
    sweep_allocations(sf_send_grp_oper_cmd, "{\"action\":0,\"cids\":[\"a\",\"b\"],\"gid\":\"5\"}", 203,
                      "{\"action\":0,\"rets\":[0,0],\"gid\":\"5\"}");
}

} // namespace
