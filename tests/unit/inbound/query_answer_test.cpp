#include <gtest/gtest.h>

#include "app_callbacks.h"
#include "smart_frame/inbound/inbound.h"
#include "tests/fakes/sf_fixture.h"

using namespace fake::registry;

namespace {

class QueryAnswer : public SfStartedTest {
protected:
    void SetUp() override
    {
        SfStartedTest::SetUp();
        gw_node = set_gateway("gw0001", {dp_bool(1), dp_value(2, -100, 100)});
        sub = add_device("sub01", {dp_bool(1), dp_value(2, -100, 100), dp_enum(3, {"low", "mid", "high"}),
                                   dp_str(4, 16), dp_bitmap(5, 32), dp_raw(6), dp_bool(7).mode(DP_MODE_WR),
                                   dp_bool(8).passive(PSV_HOLD)});
    }
    OPERATE_RET answer(DEV_CNTL_N_S *dev, std::vector<BYTE_T> ids)
    {
        return __sf_response_query_obj_dp(dev, ids.data(), static_cast<BYTE_T>(ids.size()));
    }
    std::string answered()
    {
        EXPECT_EQ(1u, fake::mqtt::queries().size());
        return fake::mqtt::queries().empty() ? "" : fake::mqtt::queries().back().text;
    }
    DEV_CNTL_N_S *gw_node = nullptr;
    DEV_CNTL_N_S *sub = nullptr;
};

const char *const FN = "__sf_response_query_obj_dp";

TEST_F(QueryAnswer, DpWithoutKnownValueIsSkippedAndTheRestAnswered)
{
    app::known_bool("sub01", 1, TRUE);

    EXPECT_EQ(RC_OK, answer(sub, {1, 2}));

    EXPECT_EQ("{\"dps\":{\"1\":true},\"cid\":\"sub01\"}", answered());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "dp id 2 Skip")) << fake::log::dump();
}

TEST_F(QueryAnswer, GatewayAnswerCarriesNoDeviceId)
{
    app::known_bool("gw0001", 1, TRUE);
    app::known_value("gw0001", 2, 25);

    EXPECT_EQ(RC_OK, answer(gw_node, {1, 2}));

    EXPECT_EQ("{\"dps\":{\"1\":true,\"2\":25}}", answered());
}

TEST_F(QueryAnswer, EnumIsAnsweredByTheNameOfItsIndex)
{
    app::known_enum("sub01", 3, 2);

    EXPECT_EQ(RC_OK, answer(sub, {3}));

    EXPECT_EQ("{\"dps\":{\"3\":\"high\"},\"cid\":\"sub01\"}", answered());
}

TEST_F(QueryAnswer, EveryTypeIsAnsweredInRequestedOrder)
{
    app::known_bool("sub01", 1, FALSE);
    app::known_value("sub01", 2, -5);
    app::known_enum("sub01", 3, 0);
    app::known_str("sub01", 4, "a\"b");
    app::known_bitmap("sub01", 5, 4294967295u);

    EXPECT_EQ(RC_OK, answer(sub, {5, 4, 3, 2, 1}));

    EXPECT_EQ("{\"dps\":{\"5\":4294967295,\"4\":\"a\\\"b\",\"3\":\"low\",\"2\":-5,\"1\":false},\"cid\":\"sub01\"}",
              answered());
}

TEST_F(QueryAnswer, AnyKnownPublishStateIsAnswered)
{
    app::known_bool("sub01", 1, TRUE, PV_STAT_LOCAL);
    app::known_value("sub01", 2, 7, PV_STAT_SENDING);

    EXPECT_EQ(RC_OK, answer(sub, {1, 2}));

    EXPECT_EQ("{\"dps\":{\"1\":true,\"2\":7},\"cid\":\"sub01\"}", answered());
}

TEST_F(QueryAnswer, WriteOnlyRawAndHeldPassiveDpsAreSkipped)
{
    sub->attr.preprocess = TRUE;
    app::known_bool("sub01", 6, TRUE);
    app::known_bool("sub01", 7, TRUE);
    app::known_bool("sub01", 8, TRUE);

    EXPECT_EQ(RC_OK, answer(sub, {6, 7, 8}));

    EXPECT_EQ("{\"dps\":{},\"cid\":\"sub01\"}", answered());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "dp id 6 Skip"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "dp id 7 Skip"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "dp id 8 Skip"));
}

TEST_F(QueryAnswer, HeldPassiveDpIsAnsweredWhenTheDeviceDoesNotPreprocess)
{
    app::known_bool("sub01", 8, TRUE);

    EXPECT_EQ(RC_OK, answer(sub, {8}));

    EXPECT_EQ("{\"dps\":{\"8\":true},\"cid\":\"sub01\"}", answered());
}

TEST_F(QueryAnswer, UnknownDpIsLoggedAndOthersAnswered)
{
    app::known_value("sub01", 2, 3);

    EXPECT_EQ(RC_OK, answer(sub, {9, 2}));

    EXPECT_EQ("{\"dps\":{\"2\":3},\"cid\":\"sub01\"}", answered());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "dp id Invalid 9"));
}

TEST_F(QueryAnswer, EnumIndexOutsideItsNamesIsSkipped)
{
    app::known_enum("sub01", 3, 3);

    EXPECT_EQ(RC_OK, answer(sub, {3}));

    EXPECT_EQ("{\"dps\":{},\"cid\":\"sub01\"}", answered());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "dp id 3 Skip"));
}

TEST_F(QueryAnswer, ZeroDpsIsRefusedWithoutSending)
{
    const BYTE_T ids[1] = {1};

    EXPECT_EQ(RC_BAD_PARAM, __sf_response_query_obj_dp(sub, ids, 0));

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "Invalid Param"));
    EXPECT_TRUE(fake::mqtt::queries().empty());
    EXPECT_TRUE(fake::lan::reports().empty());
}

TEST_F(QueryAnswer, MissingDeviceIsRefused)
{
    EXPECT_EQ(RC_BAD_PARAM, answer(nullptr, {1}));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "Invalid Param"));
    EXPECT_TRUE(fake::mqtt::queries().empty());
}

TEST_F(QueryAnswer, LanWithoutClientsIsSilentAndMqttDecides)
{
    app::known_bool("sub01", 1, TRUE);
    fake::lan::set_result(RC_LAN_NOT_SENT);

    EXPECT_EQ(RC_OK, answer(sub, {1}));

    ASSERT_EQ(1u, fake::lan::reports().size());
    EXPECT_EQ(4u, fake::lan::reports()[0].kind);
    EXPECT_EQ("{\"dps\":{\"1\":true},\"cid\":\"sub01\"}", fake::lan::reports()[0].text);
    EXPECT_EQ(0u, fake::log::count("lan_dp_sata_report error:-940"));
    EXPECT_EQ("{\"dps\":{\"1\":true},\"cid\":\"sub01\"}", answered());
    EXPECT_EQ(1u, fake::mqtt::queries()[0].refs_at_call); /* the LAN reference is already dropped */
}

TEST_F(QueryAnswer, OtherLanFailureIsLoggedAndMqttStillAnswers)
{
    app::known_bool("sub01", 1, TRUE);
    fake::lan::set_result(-5);

    EXPECT_EQ(RC_OK, answer(sub, {1}));

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "lan_dp_sata_report error:-5"));
    EXPECT_EQ("{\"dps\":{\"1\":true},\"cid\":\"sub01\"}", answered());
}

TEST_F(QueryAnswer, LanThatTakesTheBlockKeepsOneReference)
{
    app::known_bool("sub01", 1, TRUE);
    fake::lan::set_result(RC_OK);

    EXPECT_EQ(RC_OK, answer(sub, {1}));

    ASSERT_EQ(1u, fake::mqtt::queries().size());
    EXPECT_EQ(2u, fake::mqtt::queries()[0].refs_at_call);
    EXPECT_EQ(1u, fake::lan::held());
    EXPECT_EQ(1u, fake::rfc::count(fake::lan::reports()[0].block));
}

TEST_F(QueryAnswer, MqttFailureIsLoggedAndReturned)
{
    app::known_bool("sub01", 1, TRUE);
    fake::mqtt::set_query_result(-7);

    EXPECT_EQ(-7, answer(sub, {1}));

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "mqc_obj_dp_query error:-7"));
    EXPECT_EQ(0u, fake::rfc::live());
}

TEST_F(QueryAnswer, EachAnswerCarriesAFreshSerialNumber)
{
    app::known_bool("sub01", 1, TRUE);

    EXPECT_EQ(RC_OK, answer(sub, {1}));
    EXPECT_EQ(RC_OK, answer(sub, {1}));

    ASSERT_EQ(2u, fake::mqtt::queries().size());
    EXPECT_EQ(fake::mqtt::queries()[0].serno + 1, fake::mqtt::queries()[1].serno);
}

TEST_F(QueryAnswer, AllocationFailuresReturnAnAllowedCodeAndLeakNothing)
{
    app::known_bool("sub01", 1, TRUE);
    app::known_str("sub01", 4, "hello");
    app::known_enum("sub01", 3, 1);
    fake::lan::set_result(RC_OK);
    size_t n = 1;
    for (; n < 100; ++n) {
        fake::mem::fail_nth(n);
        const OPERATE_RET rc = answer(sub, {1, 4, 3});
        const bool fired = fake::mem::failure_fired();
        fake::mem::fail_nth(0);
        fake::lan::release_held();
        EXPECT_TRUE(rc == RC_OK || rc == RC_NO_MEMORY || rc == RC_JSON_FAIL) << "failing allocation " << n;
        EXPECT_EQ(0u, fake::mem::live_blocks()) << "failing allocation " << n << "\n" << fake::mem::leak_report();
        EXPECT_EQ(0u, fake::rfc::live()) << "failing allocation " << n;
        if (!fired) {
            EXPECT_EQ(RC_OK, rc);
            break;
        }
        EXPECT_NE(RC_OK, rc) << "failing allocation " << n;
    }
    EXPECT_GT(n, 3u);
    EXPECT_LT(n, 100u);
    EXPECT_EQ("{\"dps\":{\"1\":true,\"4\":\"hello\",\"3\":\"mid\"},\"cid\":\"sub01\"}",
              fake::mqtt::queries().back().text);
}

} // namespace
