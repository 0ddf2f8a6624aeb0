#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "smart_frame/inbound/member_oper.h"
#include "tests/unit/inbound/member_oper_fixture.h"

namespace {

class MemberOper : public SfStartedTest {
protected:
    void TearDown() override
    {
        tree.reset();
        SfStartedTest::TearDown();
    }

    /* Parse text and read it; the tree stays alive for the pointers in cmd. */
    bool read(const std::string &text, bool want_sid)
    {
        tree.reset(cJSON_Parse(text.c_str()));
        EXPECT_NE(nullptr, tree) << text;
        return sf::read_member_oper_cmd(tree.get(), want_sid, &cmd);
    }

    sf::JsonPtr tree;
    sf::MemberOperCmd cmd;
};

TEST_F(MemberOper, ReadsAGroupCommand)
{
    ASSERT_TRUE(read("{\"action\":0,\"cids\":[\"a\",\"b\"],\"gid\":\"5\"}", false));
    EXPECT_FALSE(cmd.remove);
    EXPECT_EQ(2, cmd.dev_num);
    EXPECT_STREQ("a", cmd.cids->child->valuestring);
    EXPECT_STREQ("5", cmd.gid);
    EXPECT_EQ(nullptr, cmd.sid);
}

TEST_F(MemberOper, ReadsASceneCommandAndAnyNonZeroActionRemoves)
{
    ASSERT_TRUE(read("{\"action\":-3,\"cids\":[\"a\"],\"sid\":\"01\",\"gid\":\"5\"}", true));
    EXPECT_TRUE(cmd.remove);
    EXPECT_EQ(1, cmd.dev_num);
    EXPECT_STREQ("01", cmd.sid);
    EXPECT_STREQ("5", cmd.gid);
}

TEST_F(MemberOper, GroupCommandNeedsNoSceneId)
{
    EXPECT_TRUE(read("{\"action\":1,\"cids\":[\"a\"],\"gid\":\"5\"}", false));
    EXPECT_FALSE(read("{\"action\":1,\"cids\":[\"a\"],\"gid\":\"5\"}", true));
}

TEST_F(MemberOper, RefusesMalformedCommands)
{
    const char *commands[] = {
        "{\"cids\":[\"a\"],\"sid\":\"01\",\"gid\":\"5\"}",
        "{\"action\":0,\"sid\":\"01\",\"gid\":\"5\"}",
        "{\"action\":0,\"cids\":[\"a\"],\"gid\":\"5\"}",
        "{\"action\":0,\"cids\":[\"a\"],\"sid\":\"01\"}",
        "{\"action\":0,\"cids\":[],\"sid\":\"01\",\"gid\":\"5\"}",
        "{\"action\":0,\"cids\":{\"a\":\"b\"},\"sid\":\"01\",\"gid\":\"5\"}",
        "{\"action\":0,\"cids\":[\"a\",[]],\"sid\":\"01\",\"gid\":\"5\"}",
        "{\"action\":0,\"cids\":[\"a\"],\"sid\":[],\"gid\":\"5\"}",
        "{\"action\":0,\"cids\":[\"a\"],\"sid\":\"01\",\"gid\":5}",
        "{\"action\":null,\"cids\":[\"a\"],\"sid\":\"01\",\"gid\":\"5\"}",
        "[]",
    };
    for (const char *text : commands) {
        EXPECT_FALSE(read(text, true)) << text;
    }
    EXPECT_FALSE(sf::read_member_oper_cmd(nullptr, false, &cmd));
    EXPECT_TRUE(fake::log::entries().empty()) << fake::log::dump(); /* the handlers log the verdict */
}

TEST_F(MemberOper, AcceptsUpToTheTableSizeAndLogsTheCountBeyondIt)
{
    const std::string head = "{\"action\":0,\"gid\":\"5\",\"cids\":";
    EXPECT_TRUE(read(head + member_test::json_list(member_test::make_ids(256, 3)) + "}", false));
    EXPECT_EQ(256, cmd.dev_num);
    EXPECT_FALSE(read(head + member_test::json_list(member_test::make_ids(257, 3)) + "}", false));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "read_member_oper_cmd", "cids num:257,max:256"));
}

TEST_F(MemberOper, TextOutMeasuresWithoutABuffer)
{
    sf::TextOut out;
    out.add("%s-%d", "abc", -1000);
    out.add("%s", "");
    EXPECT_EQ(9u, out.length());
}

TEST_F(MemberOper, TextOutNeverWritesPastItsBufferButKeepsCounting)
{
    char buf[8] = {'!', '!', '!', '!', '!', '!', '!', '!'};
    sf::TextOut out(buf, 6);
    out.add("abcd");
    out.add("efgh");
    out.add("ij");
    EXPECT_EQ(10u, out.length());
    EXPECT_STREQ("abcde", buf);
    EXPECT_EQ('!', buf[6]);
}

TEST_F(MemberOper, PrintTextAllocatesExactlyWhatIsPrinted)
{
    size_t size = 0;
    const size_t before = fake::mem::alloc_bytes();
    sf::TextPtr text = sf::print_text([](sf::TextOut &out) { out.add("{\"k\":%d}", INT_MIN); }, &size);
    ASSERT_TRUE(text);
    EXPECT_STREQ("{\"k\":-2147483648}", text.get());
    EXPECT_EQ(18u, size);
    EXPECT_EQ(18u, fake::mem::alloc_bytes() - before);
}

TEST_F(MemberOper, PrintTextOfNothingIsAnEmptyText)
{
    size_t size = 0;
    sf::TextPtr text = sf::print_text([](sf::TextOut &) {}, &size);
    ASSERT_TRUE(text);
    EXPECT_STREQ("", text.get());
    EXPECT_EQ(1u, size);
}

TEST_F(MemberOper, PrintTextReportsTheSizeItCouldNotGet)
{
    size_t size = 0;
    fake::mem::fail_nth(1);
    sf::TextPtr text = sf::print_text([](sf::TextOut &out) { out.add("abc"); }, &size);
    EXPECT_FALSE(text);
    EXPECT_EQ(4u, size);
}

TEST_F(MemberOper, RetsListClosesAfterTheLastResult)
{
    const OPERATE_RET one[] = {0};
    const OPERATE_RET three[] = {0, -1000, 5};
    sf::TextOut measure;
    sf::add_rets(measure, three, 3);
    char buf[64] = {};
    sf::TextOut out(buf, sizeof(buf));
    sf::add_rets(out, three, 3);
    EXPECT_STREQ("\"rets\":[0,-1000,5],", buf);
    EXPECT_EQ(std::strlen(buf), measure.length());

    char single[16] = {};
    sf::TextOut out1(single, sizeof(single));
    sf::add_rets(out1, one, 1);
    EXPECT_STREQ("\"rets\":[0],", single);
}

TEST_F(MemberOper, AnswerWrapsTheRetsList)
{
    const OPERATE_RET rets[] = {0, -1};
    size_t size = 0;
    sf::TextPtr text = sf::print_answer(
        rets, 2, [](sf::TextOut &out, const CHAR_T *list) { out.add("{\"action\":1,%s\"gid\":\"7\"}", list); },
        &size);
    ASSERT_TRUE(text);
    EXPECT_STREQ("{\"action\":1,\"rets\":[0,-1],\"gid\":\"7\"}", text.get());
    EXPECT_EQ(std::strlen(text.get()) + 1, size);
}

TEST_F(MemberOper, AnswerFailsWhenEitherTextCannotBeAllocated)
{
    const OPERATE_RET rets[] = {0, -1};
    const auto compose = [](sf::TextOut &out, const CHAR_T *list) { out.add("{%s}", list); };
    size_t size = 0;
    fake::mem::fail_nth(1);
    EXPECT_FALSE(sf::print_answer(rets, 2, compose, &size));
    EXPECT_EQ(std::strlen("\"rets\":[0,-1],") + 1, size);
    fake::mem::fail_nth(2);
    EXPECT_FALSE(sf::print_answer(rets, 2, compose, &size));
    EXPECT_EQ(std::strlen("{\"rets\":[0,-1],}") + 1, size);
}

TEST_F(MemberOper, MessageOwnerReleasesEnvelopeAndTree)
{
    auto *envelope = static_cast<SF_GW_SCE_CMD_S *>(Malloc(sizeof(SF_GW_SCE_CMD_S)));
    ASSERT_NE(nullptr, envelope);
    envelope->tp = DP_CMD_MQ;
    envelope->cmd_js = cJSON_Parse("{\"a\":1}");
    MESSAGE msg{0, envelope, sizeof(*envelope)};
    {
        const sf::MemberOperMsg<SF_GW_SCE_CMD_S> held(&msg);
        ASSERT_TRUE(held);
        EXPECT_EQ(DP_CMD_MQ, held.tp());
        EXPECT_EQ(envelope->cmd_js, held.tree());
    }
    EXPECT_EQ(0u, fake::mem::live_blocks()) << fake::mem::leak_report();
}

TEST_F(MemberOper, MessageOwnerOfNothingHoldsNothing)
{
    EXPECT_FALSE(sf::MemberOperMsg<SF_GW_DEV_CMD_S>(nullptr));
    MESSAGE msg{0, nullptr, 0};
    EXPECT_FALSE(sf::MemberOperMsg<SF_GW_DEV_CMD_S>(&msg));
}

} // namespace
