#include "gateway/edge/wire_commands.h"

#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <string>
#include <vector>

#include "gateway/edge/wire_validate.h"
#include "gateway/registry/gw_registry.h"
#include "smart_frame/smart_frame.h"

namespace {

std::vector<std::string> g_asked;

void record_query(const KL_DP_QUERY_S *query) { g_asked.emplace_back(query->cid); }

class WireCommands : public ::testing::Test {
protected:
    void SetUp() override
    {
        gw_registry::LoadError error;
        ASSERT_TRUE(gw_registry::load_text(R"({"gateway":{"id":"gwr1","dps":[{"id":1,"prop":"bool"}]},)"
                                           R"("devices":[{"id":"d1","dps":[{"id":1,"prop":"bool"}]}]})",
                                           "gw.json", &error))
            << error.text();
        get_gw_cntl()->cbs.dev_dp_query_cb = record_query;
        g_asked.clear();
    }
    void TearDown() override
    {
        get_gw_cntl()->cbs.dev_dp_query_cb = nullptr;
        gw_registry::unload();
    }
};

TEST_F(WireCommands, AQueryNamingTheGatewayInAnotherCaseAsksForTheGatewayByItsId)
{
    ASSERT_EQ(RC_OK, sf_wire::dispatch_command(sf_wire::CmdKind::Query,
                                               cJSON_Parse(R"({"cids":["GWR1","d1","Gwr1"],"dpids":[1]})"), DP_CMD_MQ));
    EXPECT_EQ((std::vector<std::string>{"gwr1", "d1", "gwr1"}), g_asked);
}

TEST_F(WireCommands, OtherIdsOfAQueryAreHandedOverAsSent)
{
    wire_set_command_checks(FALSE); /* so an unknown id is not refused before it is handed over */
    const OPERATE_RET rc = sf_wire::dispatch_command(sf_wire::CmdKind::Query,
                                                     cJSON_Parse(R"({"cids":["D1","gwr1x"],"dpids":[1]})"), DP_CMD_MQ);
    wire_set_command_checks(TRUE);
    ASSERT_EQ(RC_OK, rc);
    EXPECT_EQ((std::vector<std::string>{"D1", "gwr1x"}), g_asked);
}

} // namespace
