/*
 * Scenarios for group and scene commands: recording application
 * callbacks, posting a command text through the module's entry points and
 * running the dispatch queue, and builders for long id lists.
 */
#ifndef SF_TEST_MEMBER_OPER_FIXTURE_H
#define SF_TEST_MEMBER_OPER_FIXTURE_H

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "smart_frame/frame_cntl.h"
#include "tests/fakes/sf_fixture.h"

namespace member_test {

struct GrpCall {
    GRP_ACTION_E action;
    std::string dev_id;
    std::string grp_id;
    size_t reg_grp_before; /* registry group updates already done at the call */
};

struct SceneCall {
    SCE_ACTION_E action;
    std::string dev_id;
    std::string grp_id;
    std::string sce_id;
    size_t grp_calls_before; /* group callbacks already made at the call */
};

struct Recorder {
    std::vector<GrpCall> grp_calls;
    std::vector<SceneCall> scene_calls;
    std::deque<OPERATE_RET> grp_results;   /* one-shot results in call order; then RC_OK */
    std::deque<OPERATE_RET> scene_results;
    /* both in call order: "grp a" / "scene a" */
    std::vector<std::string> order;
};

inline Recorder &rec()
{
    static Recorder recorder;
    return recorder;
}

inline OPERATE_RET next(std::deque<OPERATE_RET> &results)
{
    if (results.empty()) {
        return RC_OK;
    }
    const OPERATE_RET code = results.front();
    results.pop_front();
    return code;
}

inline OPERATE_RET record_grp(const GRP_ACTION_E action, const CHAR_T *dev_id, const CHAR_T *grp_id)
{
    fake::contract::check_no_lock_held("gw_dev_grp_cb");
    rec().grp_calls.push_back({action, dev_id, grp_id, fake::registry::grp_updates().size()});
    rec().order.push_back(std::string("grp ") + dev_id);
    return next(rec().grp_results);
}

inline OPERATE_RET record_scene(const SCE_ACTION_E action, const CHAR_T *dev_id, const CHAR_T *grp_id,
                                const CHAR_T *sce_id)
{
    fake::contract::check_no_lock_held("gw_dev_scene_cb");
    rec().scene_calls.push_back({action, dev_id, grp_id, sce_id, rec().grp_calls.size()});
    rec().order.push_back(std::string("scene ") + dev_id);
    return next(rec().scene_results);
}

/* n distinct ids of exactly len characters (len at least 3): "000xxxx", "001xxxx", ... */
inline std::vector<std::string> make_ids(int n, size_t len)
{
    std::vector<std::string> ids;
    for (int i = 0; i < n; ++i) {
        std::string id = std::to_string(i);
        id = std::string(3 - id.size(), '0') + id;
        ids.push_back(id + std::string(len - id.size(), 'x'));
    }
    return ids;
}

/* ["a","b"] */
inline std::string json_list(const std::vector<std::string> &ids)
{
    std::string out = "[";
    for (size_t i = 0; i < ids.size(); ++i) {
        out += (i == 0 ? "\"" : ",\"") + ids[i] + "\"";
    }
    return out + "]";
}

/* 0,-1 */
inline std::string code_list(const std::vector<OPERATE_RET> &codes)
{
    std::string out;
    for (size_t i = 0; i < codes.size(); ++i) {
        out += (i == 0 ? "" : ",") + std::to_string(codes[i]);
    }
    return out;
}

} // namespace member_test

/* Started module, both gateway callbacks recording, nothing recorded yet. */
class MemberOperTest : public SfStartedTest {
protected:
    void SetUp() override
    {
        SfStartedTest::SetUp();
        member_test::rec() = member_test::Recorder();
        get_gw_cntl()->gw_cbs.gw_dev_grp_cb = member_test::record_grp;
        get_gw_cntl()->gw_cbs.gw_dev_scene_cb = member_test::record_scene;
    }

    static cJSON *parse(const std::string &text)
    {
        cJSON *js = cJSON_Parse(text.c_str());
        EXPECT_NE(nullptr, js) << text;
        return js;
    }

    /* Queue a group command from channel tp; the post must succeed. */
    static void queue_group(DP_CMD_TYPE_E tp, const std::string &text)
    {
        SF_GW_DEV_CMD_S cmd{tp, parse(text)};
        ASSERT_EQ(RC_OK, sf_send_grp_oper_cmd(&cmd));
    }

    static void queue_scene(DP_CMD_TYPE_E tp, const std::string &text)
    {
        SF_GW_SCE_CMD_S cmd{tp, parse(text)};
        ASSERT_EQ(RC_OK, sf_send_scene_oper_cmd(&cmd));
    }

    /* Queue and handle; exactly this one message runs. */
    static void run_group(DP_CMD_TYPE_E tp, const std::string &text)
    {
        queue_group(tp, text);
        ASSERT_EQ(1u, fake::msgq::run_all());
    }

    static void run_scene(DP_CMD_TYPE_E tp, const std::string &text)
    {
        queue_scene(tp, text);
        ASSERT_EQ(1u, fake::msgq::run_all());
    }

    /* Handle what is queued with the nth allocation from now failing; that failure must happen. */
    static void run_failing_allocation(size_t nth)
    {
        fake::mem::fail_nth(nth);
        fake::msgq::run_all();
        EXPECT_TRUE(fake::mem::failure_fired());
        fake::mem::fail_nth(0);
    }

    /* Start a new round within one test: later checks see only what comes after. */
    void next_round()
    {
        member_test::rec() = member_test::Recorder();
        fake::log::clear();
        base_prots = fake::mqtt::prot_reports().size();
        base_frames = fake::lan::frames().size();
    }

    /* The one answer of this round went out over MQTT as protocol pro, without completion; its text. */
    std::string mqtt_answer(UINT_T pro) const
    {
        const auto &prots = fake::mqtt::prot_reports();
        EXPECT_EQ(base_prots + 1, prots.size());
        if (prots.size() != base_prots + 1) {
            return "";
        }
        const fake::mqtt::Prot &prot = prots.back();
        EXPECT_EQ(pro, prot.pro);
        EXPECT_EQ(0, prot.qos);
        EXPECT_EQ(0u, prot.timeout);
        EXPECT_EQ(nullptr, prot.cb);
        EXPECT_EQ(nullptr, prot.prv_data);
        EXPECT_EQ(base_frames, fake::lan::frames().size());
        return prot.text;
    }

    /*
     * Post a fresh command with the 1st, 2nd, ... allocation failing until
     * one run goes through; then it must be answered over MQTT (protocol
     * pro) with answer. Every run leaves nothing allocated.
     */
    template <typename Envelope>
    void sweep_allocations(OPERATE_RET (*send)(Envelope *), const std::string &text, UINT_T pro,
                           const std::string &answer)
    {
        bool answered = false;
        for (size_t n = 1; n < 50 && !answered; ++n) {
            SCOPED_TRACE("failing allocation " + std::to_string(n));
            next_round();
            cJSON *js = parse(text);
            Envelope cmd{DP_CMD_MQ, js};
            fake::mem::fail_nth(n);
            const OPERATE_RET posted = send(&cmd);
            if (posted != RC_OK) {
                EXPECT_EQ(RC_NO_MEMORY, posted);
                cJSON_Delete(js);
            } else {
                fake::msgq::run_all();
            }
            const bool fired = fake::mem::failure_fired();
            fake::mem::fail_nth(0);
            if (fired) {
                EXPECT_EQ(base_prots, fake::mqtt::prot_reports().size());
            } else {
                EXPECT_EQ(answer, mqtt_answer(pro));
                answered = true;
            }
            EXPECT_EQ(0u, fake::mem::live_blocks()) << fake::mem::leak_report();
        }
        EXPECT_TRUE(answered);
    }

    /* send posts a byte copy of the envelope to mid, bound to handler; nothing runs before the queue does. */
    template <typename Envelope>
    void expect_posted_copy(OPERATE_RET (*send)(Envelope *), const std::string &text, MSG_ID mid,
                            MSG_CALLBACK handler)
    {
        Envelope cmd{DP_CMD_LAN, parse(text)};
        ASSERT_EQ(RC_OK, send(&cmd));
        ASSERT_EQ(1u, fake::msgq::posts().size());
        EXPECT_EQ(mid, fake::msgq::posts()[0].mid);
        ASSERT_EQ(sizeof(cmd), fake::msgq::posts()[0].data.size());
        EXPECT_EQ(0, std::memcmp(&cmd, fake::msgq::posts()[0].data.data(), sizeof(cmd)));
        EXPECT_EQ(handler, fake::msgq::handler(mid));
        EXPECT_TRUE(member_test::rec().order.empty()); /* nothing runs on the producer's thread */
        fake::msgq::run_all();
        EXPECT_FALSE(member_test::rec().order.empty());
    }

    /* A refused post returns the message module's code and leaves the tree, untouched, to the caller. */
    template <typename Envelope>
    void expect_failed_post_keeps_tree(OPERATE_RET (*send)(Envelope *), const std::string &text)
    {
        cJSON *js = parse(text);
        Envelope cmd{DP_CMD_MQ, js};
        fake::msgq::fail(fake::msgq::Call::post_msg_malloc, -11);
        EXPECT_EQ(-11, send(&cmd));
        EXPECT_EQ(0u, fake::msgq::pending());
        EXPECT_STREQ("5", cJSON_GetObjectItem(js, "gid")->valuestring);
        cJSON_Delete(js);
    }

    /* A handler given no message or no envelope logs and touches nothing. */
    static void expect_empty_messages_ignored(MSG_CALLBACK handler, MSG_ID mid)
    {
        handler(nullptr);
        MESSAGE msg{mid, nullptr, 0};
        handler(&msg);
        EXPECT_EQ(2u, fake::log::count("Invalid Param"));
        EXPECT_TRUE(fake::lan::frames().empty());
        EXPECT_TRUE(fake::mqtt::prot_reports().empty());
    }

    size_t base_prots = 0;
    size_t base_frames = 0;

    /* Every log line the handler func wrote at the error level. */
    static size_t errors_of(const std::string &func)
    {
        size_t n = 0;
        for (const fake::log::Entry &entry : fake::log::entries()) {
            n += (entry.level == LOG_LEVEL_ERROR && entry.func == func) ? 1 : 0;
        }
        return n;
    }
};

#endif /* SF_TEST_MEMBER_OPER_FIXTURE_H */
