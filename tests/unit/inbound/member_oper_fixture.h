/*
 * Scenarios for group and scene commands: recording application
 * callbacks, posting a command text through the module's entry points and
 * running the dispatch queue, and builders for long id lists.
 */
#ifndef SF_TEST_MEMBER_OPER_FIXTURE_H
#define SF_TEST_MEMBER_OPER_FIXTURE_H

#include <gtest/gtest.h>

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
