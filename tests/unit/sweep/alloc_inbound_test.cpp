/*
 * Allocation-failure sweeps of the inbound road: the three command entry
 * points with their handlers, the equality check and the application query.
 *
 * Codes a run may return:
 *   sf_send_gw_dev_cmd, sf_send_grp_oper_cmd, sf_send_scene_oper_cmd:
 *     RC_OK (queued; the handler then copes on its own) or RC_NO_MEMORY
 *     (the message module could not copy the envelope; the tree stays with
 *     the caller). Their handlers return nothing.
 *   sf_dp_data_is_equl: TRUE or FALSE (it allocates nothing).
 *   sf_respone_obj_dp_query: RC_OK, or RC_FAIL when the record cannot be allocated.
 */
#include "sweep_fixture.h"

using namespace sweep;
using namespace fake::every_dp;

namespace {

class SweepInbound : public SweepTest {
protected:
    Path dev_cmd_path(const std::string &name, const char *text, DP_CMD_TYPE_E tp, std::function<bool()> effect)
    {
        return command_path(name, text, tp, sf_send_gw_dev_cmd, std::move(effect));
    }

    cJSON *dpids_ = nullptr;
};

TEST_F(SweepInbound, DeviceCommandsSurviveEveryFailingAllocation)
{
    sweep_all({
        /* every value as known: the application gets it and the module echoes it */
        dev_cmd_path("device command, all equal (echo)",
                     "{\"devId\":\"sub01\",\"dps\":{\"1\":true,\"2\":25,\"3\":\"abc\",\"4\":\"mid\",\"5\":5}}",
                     DP_CMD_MQ,
                     [] { return app::obj_cmds().size() == 1 && fake::mqtt::queries().size() == 1; }),
        /* changed values, raw and file DPs, an unknown DP removed, an unknown enum name */
        dev_cmd_path("device command, mixed kinds",
                     "{\"dps\":{\"1\":false,\"99\":1,\"6\":\"AQIDBA==\",\"7\":\"eA==\",\"4\":\"nope\",\"8\":true}}",
                     DP_CMD_LAN,
                     [] { return app::obj_cmds().size() == 1 && app::raw_cmds().size() == 1; }),
        /* multi-DP command: answered at once with the command itself, then handed over */
        dev_cmd_path("device command, multi-DP",
                     "{\"cid\":\"sub01\",\"ctype\":2,\"mbid\":\"m7\",\"dps\":{\"1\":true,\"2\":30}}", DP_CMD_MQ,
                     [] { return app::obj_cmds().size() == 1 && fake::mqtt::dp_reports().size() == 1; }),
        /* application first, then the echo */
        dev_cmd_path("device command, ctype 3", "{\"ctype\":3,\"dps\":{\"1\":true}}", DP_CMD_MQ,
                     [] { return app::obj_cmds().size() == 1 && fake::mqtt::queries().size() == 1; }),
    });
}

TEST_F(SweepInbound, GroupCommandsSurviveEveryFailingAllocation)
{
    const char *const cmd = "{\"action\":0,\"cids\":[\"a\",\"b\",\"c\"],\"gid\":\"5\"}";
    auto group_path = [this, cmd](const std::string &name, DP_CMD_TYPE_E tp, std::function<bool()> effect) {
        return command_path(name, cmd, tp, sf_send_grp_oper_cmd, std::move(effect));
    };
    sweep_all({
        group_path("group command over MQTT", DP_CMD_MQ,
                   [] {
                       return fake::mqtt::prot_reports().size() == 1 &&
                              fake::mqtt::prot_reports()[0].text == "{\"action\":0,\"rets\":[0,0,0],\"gid\":\"5\"}";
                   }),
        group_path("group command over LAN", DP_CMD_LAN,
                   [] { return fake::lan::frames().size() == 1 && fake::lan::frames()[0].flag == 0; }),
    });
}

TEST_F(SweepInbound, SceneCommandsSurviveEveryFailingAllocation)
{
    auto scene_path = [this](const std::string &name, const char *text, const char *answer) {
        return command_path(name, text, DP_CMD_MQ, sf_send_scene_oper_cmd, [answer] {
            return fake::mqtt::prot_reports().size() == 1 && fake::mqtt::prot_reports()[0].text == answer;
        });
    };
    fake::registry::add_devices({"a", "b"}); /* the registry keeps the tables of the members named */
    sweep_all({
        scene_path("scene command, adding", "{\"action\":0,\"cids\":[\"a\",\"b\"],\"sid\":\"01\",\"gid\":\"5\"}",
                   "{\"action\":0,\"cids\":[\"a\",\"b\"],\"rets\":[0,0],\"sid\":\"01\",\"gid\":\"5\"}"),
        scene_path("scene command, removing", "{\"action\":1,\"cids\":[\"a\"],\"sid\":\"01\",\"gid\":\"5\"}",
                   "{\"action\":1,\"cids\":[\"a\"],\"rets\":[0],\"sid\":\"01\",\"gid\":\"5\"}"),
    });
}

TEST_F(SweepInbound, EqualityCheckAllocatesNothing)
{
    Path p;
    p.name = "sf_dp_data_is_equl";
    p.prepare = [this] { tree_ = json("{\"cid\":\"sub01\",\"dps\":{\"4\":\"mid\"}}"); };
    p.run = [this] {
        const BOOL_T equal = sf_dp_data_is_equl(tree_);
        cJSON_Delete(tree_);
        tree_ = nullptr;
        return equal;
    };
    p.allowed = {TRUE, FALSE};
    p.normal = TRUE;
    EXPECT_EQ(0u, sweep(p));
}

TEST_F(SweepInbound, ApplicationQueryReturnsFailWhenItsRecordCannotBeAllocated)
{
    auto query_path = [this](const std::string &name, const char *cids, size_t calls) {
        Path p;
        p.name = name;
        p.prepare = [this, cids] {
            tree_ = cids != nullptr ? json(cids) : nullptr;
            dpids_ = json("[1,2,256]");
        };
        p.run = [this] {
            const OPERATE_RET rc = sf_respone_obj_dp_query(tree_, dpids_);
            cJSON_Delete(tree_);
            cJSON_Delete(dpids_);
            tree_ = dpids_ = nullptr;
            return rc;
        };
        p.allowed = {RC_OK, RC_FAIL};
        p.effect = [calls] { return app::queries().size() == calls; };
        return p;
    };
    EXPECT_EQ(1u, sweep(query_path("sf_respone_obj_dp_query, sub-devices", "[\"sub01\",\"x\"]", 2)));
    EXPECT_EQ(1u, sweep(query_path("sf_respone_obj_dp_query, gateway", nullptr, 1)));
}

} // namespace
