#include <gtest/gtest.h>

#include "report_fixture.h"

using namespace fake::registry;
using report_test::pv;
using report_test::sync_starts;

namespace {

class ObjReport : public SfStartedTest {
protected:
    void SetUp() override
    {
        SfStartedTest::SetUp();
        gw_node = set_gateway("gw0001", {dp_bool(1)});
        sub = add_device("a1b2c3", {dp_bool(1).flow(60, 5), dp_value(2, 0, 100)});
    }
    const fake::mqtt::DpReport &published(size_t i = 0) { return fake::mqtt::dp_reports().at(i); }
    DEV_CNTL_N_S *gw_node = nullptr;
    DEV_CNTL_N_S *sub = nullptr;
};

TEST_F(ObjReport, WorkedExampleReachesLanAndMqttAndIsConfirmed)
{
    ASSERT_EQ(RC_OK, sf_obj_dp_report_async("a1b2c3", "{\"1\":true}", FALSE));
    ASSERT_EQ(1u, fake::mqtt::dp_reports().size());
    const auto &pub = published();
    EXPECT_EQ("{\"dps\":{\"1\":true},\"cid\":\"a1b2c3\"}", pub.text);
    EXPECT_EQ(6u, pub.timeout);
    EXPECT_EQ(&__sf_obj_dp_report_async_cb, pub.cb);
    EXPECT_EQ(pub.block, pub.prv_data) << "the block is the completion's argument";
    EXPECT_EQ(0u, pub.serno);
    ASSERT_EQ(1u, fake::lan::reports().size());
    EXPECT_EQ(pub.text, fake::lan::reports()[0].text);
    EXPECT_EQ(4u, fake::lan::reports()[0].kind);
    EXPECT_EQ(pub.block, fake::lan::reports()[0].block);
    EXPECT_EQ(TRUE, dp("a1b2c3", 1)->prop.prop_bool.value);
    EXPECT_EQ(PV_STAT_SENDING, pv("a1b2c3", 1));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "__sf_dp_report_aysnc", "befor Verify: 0 0 {\"1\":true}"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "__sf_dp_report_aysnc", "Enable Lan Send"));
    EXPECT_TRUE(fake::log::find("lan_dp_sata_report error:-940").empty()) << "no LAN client is not an error";

    fake::mqtt::complete(0, RC_OK);
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 1));
    EXPECT_EQ(1, dp("a1b2c3", 1)->rept_cntl.cir_rept_items);
    EXPECT_EQ(0u, fake::rfc::live());
    EXPECT_EQ(0u, sync_starts());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "__sf_obj_dp_report_async_cb", "mqtt async dp cb 0"));
}

TEST_F(ObjReport, BlockReferencesWhenLanHasNoClient)
{
    ASSERT_EQ(RC_OK, sf_obj_dp_report_async("a1b2c3", "{\"1\":true}", FALSE));
    EXPECT_EQ(2u, published().refs_at_call) << "the creator's and the completion's";
    EXPECT_EQ(2u, fake::rfc::count(published().block)) << "the completion's and the client's own";
    fake::mqtt::complete(0, RC_OK);
    EXPECT_FALSE(fake::rfc::is_live(published().block));
}

TEST_F(ObjReport, BlockReferencesWhenLanTookIt)
{
    fake::lan::set_result(RC_OK);
    ASSERT_EQ(RC_OK, sf_obj_dp_report_async("a1b2c3", "{\"1\":true}", FALSE));
    RFC_DATA_S *block = published().block;
    EXPECT_EQ(3u, published().refs_at_call);
    EXPECT_EQ(3u, fake::rfc::count(block));
    fake::mqtt::complete(0, RC_OK);
    EXPECT_EQ(1u, fake::rfc::count(block)) << "the LAN channel's, until written";
    fake::lan::release_held();
    EXPECT_FALSE(fake::rfc::is_live(block));
}

TEST_F(ObjReport, FailedCompletionMarksUnconfirmedAndArmsTheSync)
{
    fake::lan::set_result(RC_OK);
    ASSERT_EQ(RC_OK, sf_obj_dp_report_async("a1b2c3", "{\"1\":true}", FALSE));
    fake::mqtt::complete(0, -7);
    EXPECT_EQ(PV_STAT_LOCAL, pv("a1b2c3", 1));
    EXPECT_EQ(0, dp("a1b2c3", 1)->rept_cntl.cir_rept_items);
    EXPECT_EQ(1u, sync_starts());
    EXPECT_EQ(1u, fake::rfc::live()) << "only the LAN channel's reference is left";
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "__sf_obj_dp_report_async_cb", "mqtt async dp cb -7"));
}

TEST_F(ObjReport, RefusedPublicationReturnsItsCodeAndLeavesNoReference)
{
    fake::mqtt::push_dp_report_result(-5);
    EXPECT_EQ(-5, sf_obj_dp_report_async("a1b2c3", "{\"1\":true}", FALSE));
    EXPECT_EQ(0u, fake::rfc::live());
    EXPECT_EQ(PV_STAT_LOCAL, pv("a1b2c3", 1));
    EXPECT_EQ(TRUE, dp("a1b2c3", 1)->prop.prop_bool.value) << "the new value is kept for the sync";
    EXPECT_EQ(1u, sync_starts());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_dp_report_aysnc", "mqtt async send fail -5"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__sf_dp_report_aysnc", "Update Local DP Status"));
}

TEST_F(ObjReport, RefusedPublicationAfterLanTookItLeavesOnlyTheLanReference)
{
    fake::lan::set_result(RC_OK);
    fake::mqtt::push_dp_report_result(-5);
    EXPECT_EQ(-5, sf_obj_dp_report_async("a1b2c3", "{\"1\":true}", FALSE));
    EXPECT_EQ(1u, fake::rfc::count(fake::lan::reports()[0].block));
    fake::lan::release_held();
    EXPECT_EQ(0u, fake::rfc::live());
}

TEST_F(ObjReport, NetworkDownStoresTheValueAndArmsTheSync)
{
    set_nw_status(GW_NW_NONE);
    EXPECT_EQ(RC_NET_DOWN, sf_obj_dp_report_async("a1b2c3", "{\"1\":true}", FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_dp_report_aysnc", "Net Invalid  0"));
    EXPECT_EQ(TRUE, dp("a1b2c3", 1)->prop.prop_bool.value);
    EXPECT_EQ(PV_STAT_LOCAL, pv("a1b2c3", 1));
    EXPECT_EQ(1u, sync_starts());
    EXPECT_TRUE(fake::mqtt::dp_reports().empty());
    EXPECT_TRUE(fake::lan::reports().empty());
}

TEST_F(ObjReport, LanFailureIsLoggedButMqttDecides)
{
    fake::lan::set_result(-3);
    EXPECT_EQ(RC_OK, sf_obj_dp_report_async("a1b2c3", "{\"1\":true}", FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_dp_report_aysnc", "lan_dp_sata_report error:-3"));
    EXPECT_EQ(2u, published().refs_at_call);
    fake::mqtt::complete(0, RC_OK);
    EXPECT_EQ(0u, fake::rfc::live());
}

TEST_F(ObjReport, UnchangedConfirmedValuesDoNotTouchTheNetwork)
{
    dp("a1b2c3", 1)->pv_stat = PV_STAT_CLOUD;
    const int nw_before = nw_status_calls();
    EXPECT_EQ(RC_OK, sf_obj_dp_report_async("a1b2c3", "{\"1\":false}", FALSE));
    EXPECT_EQ(nw_before, nw_status_calls());
    EXPECT_TRUE(fake::mqtt::dp_reports().empty());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "__sf_dp_report_aysnc", "nothing to send"));
}

TEST_F(ObjReport, ForceSendRepublishesUnchangedValues)
{
    dp("a1b2c3", 1)->pv_stat = PV_STAT_CLOUD;
    EXPECT_EQ(RC_OK, sf_obj_dp_report_async("a1b2c3", "{\"1\":false}", TRUE));
    ASSERT_EQ(1u, fake::mqtt::dp_reports().size());
    EXPECT_EQ("{\"dps\":{\"1\":false},\"cid\":\"a1b2c3\"}", published().text);
    fake::mqtt::complete(0, RC_OK);
}

TEST_F(ObjReport, NullIdReportsTheGatewaysOwnDps)
{
    EXPECT_EQ(RC_OK, sf_obj_dp_report_async(nullptr, "{\"1\":true}", FALSE));
    EXPECT_EQ("{\"dps\":{\"1\":true}}", published().text);
    fake::mqtt::complete(0, RC_OK);
    EXPECT_EQ(PV_STAT_CLOUD, pv("gw0001", 1));
}

TEST_F(ObjReport, NetworkDownForTheGatewayMarksItsOwnDps)
{
    set_nw_status(GW_NW_NONE);
    EXPECT_EQ(RC_NET_DOWN, sf_obj_dp_report_async(nullptr, "{\"1\":true}", FALSE));
    EXPECT_EQ(PV_STAT_LOCAL, pv("gw0001", 1));
}

TEST_F(ObjReport, BadCallsChangeNoState)
{
    EXPECT_EQ(RC_BAD_PARAM, sf_obj_dp_report_async("a1b2c3", nullptr, FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_dp_report_aysnc", "Invalid Param"));
    EXPECT_EQ(RC_DEV_NOT_FOUND, sf_obj_dp_report_async("nosuch", "{\"1\":true}", FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_dp_report_aysnc", "devID:nosuch Not Find"));
    add_device("unbound", {dp_bool(1)}, false);
    EXPECT_EQ(RC_DEV_NOT_BOUND, sf_obj_dp_report_async("unbound", "{\"1\":true}", FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_dp_report_aysnc", "devID:unbound Not Bind"));
    EXPECT_EQ(PV_STAT_INVALID, pv("unbound", 1));
    EXPECT_EQ(RC_JSON_FAIL, sf_obj_dp_report_async("a1b2c3", "{\"1\":", FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_dp_report_aysnc", "dp verify fails -801"));
    EXPECT_EQ(PV_STAT_INVALID, pv("a1b2c3", 1));
    EXPECT_EQ(0u, sync_starts());
    EXPECT_TRUE(fake::mqtt::dp_reports().empty());
}

TEST_F(ObjReport, GatewayWithoutOwnNodeIsNotFound)
{
    set_gateway("gw0001", {}, false);
    EXPECT_EQ(RC_DEV_NOT_FOUND, sf_obj_dp_report_async(nullptr, "{\"1\":true}", FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_dp_report_aysnc", "devID:(null) Not Find"));
}

TEST_F(ObjReport, CompletionOnTheClientsThreadSettlesTheState)
{
    fake::mqtt::set_auto_complete(fake::mqtt::AutoComplete::OnThread, RC_OK);
    EXPECT_EQ(RC_OK, sf_obj_dp_report_async("a1b2c3", "{\"1\":true,\"2\":40}", FALSE));
    fake::mqtt::join_threads();
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 1));
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 2));
    EXPECT_EQ(0u, fake::rfc::live());
}

TEST_F(ObjReport, CompletionInsideThePublishCallIsSafe)
{
    fake::mqtt::set_auto_complete(fake::mqtt::AutoComplete::Inline, -1);
    EXPECT_EQ(RC_OK, sf_obj_dp_report_async("a1b2c3", "{\"1\":true}", FALSE));
    EXPECT_EQ(PV_STAT_LOCAL, pv("a1b2c3", 1));
    EXPECT_EQ(1u, sync_starts());
    EXPECT_EQ(0u, fake::rfc::live());
}

TEST_F(ObjReport, CompletionWithAnUnreadableTextArmsNoSync)
{
    RFC_DATA_S *block = nullptr;
    ASSERT_EQ(RC_OK, __sf_mk_rfc_msg_data(reinterpret_cast<const BYTE_T *>("oops"), 4, &block));
    put_rfc_data(block); /* one reference left, the completion's */
    __sf_obj_dp_report_async_cb(-1, block);
    EXPECT_EQ(0u, sync_starts());
    EXPECT_EQ(0u, fake::rfc::live());
}

/* Every allocation of the path failing in turn: an allowed code, no crash, nothing leaked once the client is done. */
TEST_F(ObjReport, AllocationFailureSweep)
{
    fake::lan::set_result(RC_OK);
    for (size_t nth = 1;; ++nth) {
        dp("a1b2c3", 1)->prop.prop_bool.value = FALSE;
        dp("a1b2c3", 1)->pv_stat = PV_STAT_CLOUD;
        const size_t published_before = fake::mqtt::dp_reports().size();
        fake::mem::fail_nth(nth);
        const OPERATE_RET code = sf_obj_dp_report_async("a1b2c3", "{\"1\":true}", FALSE);
        const bool fired = fake::mem::failure_fired();
        fake::mem::fail_nth(0);
        EXPECT_TRUE(code == RC_OK || code == RC_JSON_FAIL || code == RC_FAIL || code == RC_NO_MEMORY)
            << nth << ": " << code;
        fake::mqtt::complete_all(RC_OK);
        fake::lan::release_held();
        EXPECT_EQ(0u, fake::rfc::live()) << nth;
        EXPECT_EQ(0u, fake::mem::live_blocks()) << nth << "\n" << fake::mem::leak_report();
        if (code != RC_OK) {
            EXPECT_EQ(published_before, fake::mqtt::dp_reports().size()) << nth;
        }
        if (!fired) {
            EXPECT_EQ(RC_OK, code);
            EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 1));
            EXPECT_GT(nth, 5u);
            break;
        }
    }
}

} // namespace
