#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

#include "report_fixture.h"

using namespace fake::registry;
using fake::mqtt::AutoComplete;
using report_test::pv;
using report_test::sweep_sync_report;
using report_test::sync_starts;

namespace {

class SyncReport : public SfStartedTest {
protected:
    void SetUp() override
    {
        SfStartedTest::SetUp();
        add_device("a1b2c3", {dp_bool(1).flow(60, 5), dp_value(2, 0, 100)});
    }
    const fake::mqtt::DpReport &published(size_t i = 0) { return fake::mqtt::dp_reports().at(i); }
};

TEST_F(SyncReport, CompletionOnAnotherThreadReturnsItsResult)
{
    fake::mqtt::set_auto_complete(AutoComplete::OnThread, RC_OK);
    EXPECT_EQ(RC_OK, sf_stat_dp_report_sync("a1b2c3", "{\"1\":true}", "1700000000", 5, FALSE));
    ASSERT_EQ(1u, fake::mqtt::dp_reports().size());
    EXPECT_EQ("{\"dps\":{\"1\":true},\"cid\":\"a1b2c3\",\"t\":1700000000}", published().text);
    EXPECT_EQ(5u, published().timeout);
    EXPECT_EQ(&__sf_dp_report_sync_cb, published().cb);
    EXPECT_NE(static_cast<const void *>(published().block), published().prv_data);
    EXPECT_EQ(1u, published().refs_at_call) << "only the creator's: the completion holds no reference";
    EXPECT_EQ(1u, fake::lan::reports().size());
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 1));
    EXPECT_EQ(1, dp("a1b2c3", 1)->rept_cntl.cir_rept_items);
    fake::mqtt::join_threads(); /* the completion may let go of the rendezvous after the caller did */
    EXPECT_EQ(0u, fake::sem::live());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "sf_stat_dp_report_sync",
                               "Send Stat:{\"1\":true} Time:1700000000 retrans:0"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__sf_dp_report_sync", "report finish 0"));
}

TEST_F(SyncReport, BlockReferencesWhenLanTookIt)
{
    fake::lan::set_result(RC_OK);
    fake::mqtt::set_auto_complete(AutoComplete::Inline, RC_OK);
    EXPECT_EQ(RC_OK, sf_stat_dp_report_sync("a1b2c3", "{\"1\":true}", nullptr, 5, FALSE));
    RFC_DATA_S *block = published().block;
    EXPECT_EQ(2u, published().refs_at_call) << "the creator's and the LAN channel's";
    EXPECT_EQ(1u, fake::rfc::count(block)) << "only the LAN channel's is left";
    fake::lan::release_held();
    EXPECT_FALSE(fake::rfc::is_live(block));
}

TEST_F(SyncReport, RefusedPublicationAfterLanTookItLeavesOnlyTheLanReference)
{
    fake::lan::set_result(RC_OK);
    fake::mqtt::push_dp_report_result(-4);
    EXPECT_EQ(-4, sf_stat_dp_report_sync("a1b2c3", "{\"1\":true}", nullptr, 5, FALSE));
    EXPECT_EQ(1u, fake::rfc::count(fake::lan::reports()[0].block));
}

TEST_F(SyncReport, StatusReportSendsUnchangedValues)
{
    fake::mqtt::set_auto_complete(AutoComplete::Inline, RC_OK);
    dp("a1b2c3", 1)->pv_stat = PV_STAT_CLOUD;
    EXPECT_EQ(RC_OK, sf_stat_dp_report_sync("a1b2c3", "{\"1\":false}", nullptr, 5, FALSE));
    EXPECT_EQ("{\"dps\":{\"1\":false},\"cid\":\"a1b2c3\"}", published().text);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "sf_stat_dp_report_sync", "Send Stat:{\"1\":false} Time:(null) retrans:0"));
}

TEST_F(SyncReport, CompletionInsideThePublishCallReturnsItsResult)
{
    fake::mqtt::set_auto_complete(AutoComplete::Inline, -9);
    EXPECT_EQ(-9, sf_stat_dp_report_sync("a1b2c3", "{\"1\":true}", nullptr, 5, TRUE));
    EXPECT_EQ(PV_STAT_LOCAL, pv("a1b2c3", 1));
    EXPECT_EQ(0u, sync_starts()) << "status reports are not re-sent by the sync";
    EXPECT_EQ(0u, fake::sem::live());
}

TEST_F(SyncReport, FailureWithoutRetransmissionForgetsTheValue)
{
    fake::mqtt::set_auto_complete(AutoComplete::OnThread, -9);
    EXPECT_EQ(-9, sf_stat_dp_report_sync("a1b2c3", "{\"1\":true}", nullptr, 5, FALSE));
    EXPECT_EQ(PV_STAT_INVALID, pv("a1b2c3", 1));
    EXPECT_EQ(0, dp("a1b2c3", 1)->rept_cntl.cir_rept_items);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__sf_dp_report_sync", "report finish -9"));
}

TEST_F(SyncReport, NothingToSendReturnsAtOnceWithoutWaiting)
{
    const size_t waits = fake::sem::waits();
    EXPECT_EQ(RC_OK, sf_stat_dp_report_sync("a1b2c3", "{\"9\":1}", nullptr, 5, FALSE));
    EXPECT_EQ(waits, fake::sem::waits());
    EXPECT_EQ(0u, fake::sem::live());
    EXPECT_TRUE(fake::mqtt::dp_reports().empty());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__sf_dp_report_sync", "sync to report dp fail. 0"));
}

TEST_F(SyncReport, NetworkDownMarksTheStatusPublishedWithoutWaiting)
{
    set_nw_status(GW_NW_NONE);
    const size_t waits = fake::sem::waits();
    EXPECT_EQ(RC_NET_DOWN, sf_stat_dp_report_sync("a1b2c3", "{\"1\":true}", nullptr, 5, TRUE));
    EXPECT_EQ(waits, fake::sem::waits());
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 1));
    EXPECT_EQ(0u, sync_starts());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__sf_dp_report_sync", "sync to report dp fail. -906"));
}

TEST_F(SyncReport, RefusedPublicationReturnsItsCodeWithoutWaiting)
{
    fake::mqtt::push_dp_report_result(-4);
    const size_t waits = fake::sem::waits();
    EXPECT_EQ(-4, sf_stat_dp_report_sync("a1b2c3", "{\"1\":true}", nullptr, 5, FALSE));
    EXPECT_EQ(waits, fake::sem::waits());
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 1));
    EXPECT_EQ(0u, fake::rfc::live());
}

TEST_F(SyncReport, InterruptedWaitsAreRetried)
{
    fake::mqtt::set_auto_complete(AutoComplete::OnThread, RC_OK);
    fake::sem::interrupt_waits(2);
    const size_t waits = fake::sem::waits();
    EXPECT_EQ(RC_OK, sf_stat_dp_report_sync("a1b2c3", "{\"1\":true}", nullptr, 5, FALSE));
    EXPECT_EQ(waits + 3, fake::sem::waits());
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 1));
}

TEST_F(SyncReport, FailedWaitIsAFailedReportAndTheLateCompletionFindsTheRendezvousAlive)
{
    fake::sem::fail_wait(RC_WAIT_SEM_FAIL, EIO);
    EXPECT_EQ(RC_WAIT_SEM_FAIL, sf_stat_dp_report_sync("a1b2c3", "{\"1\":true}", nullptr, 5, FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_dp_report_sync", "WaitSemaphore fails -202"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__sf_dp_report_sync", "report finish -202"));
    EXPECT_EQ(PV_STAT_INVALID, pv("a1b2c3", 1));
    EXPECT_EQ(1u, fake::sem::live()) << "kept for the completion still to come";

    fake::mqtt::complete(0, RC_OK);
    EXPECT_EQ(0u, fake::sem::live());
    EXPECT_EQ(PV_STAT_INVALID, pv("a1b2c3", 1)) << "a late completion changes no state";
}

TEST_F(SyncReport, FailedWaitOfAnObjectReportLeavesItToTheSync)
{
    fake::sem::fail_wait(RC_WAIT_SEM_FAIL, EIO);
    EXPECT_EQ(RC_WAIT_SEM_FAIL,
              __sf_dp_report_sync("a1b2c3", TRUE, SF_FILTER_OBJ, "{\"1\":true}", nullptr, FALSE, 5, FALSE));
    EXPECT_EQ(PV_STAT_LOCAL, pv("a1b2c3", 1));
    EXPECT_EQ(1u, sync_starts());
    fake::mqtt::set_auto_complete(AutoComplete::Off);
    std::thread late([] { fake::mqtt::complete(0, -1); });
    late.join();
}

TEST_F(SyncReport, ObjectReportOutcomeSetsTheStateAndFailureArmsTheSync)
{
    fake::mqtt::set_auto_complete(AutoComplete::Inline, RC_OK);
    EXPECT_EQ(RC_OK, __sf_dp_report_sync("a1b2c3", FALSE, SF_FILTER_OBJ, "{\"1\":true}", nullptr, FALSE, 5, FALSE));
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 1));
    EXPECT_EQ(1, dp("a1b2c3", 1)->rept_cntl.cir_rept_items);
    EXPECT_TRUE(fake::lan::reports().empty()) << "no LAN offer when not asked";

    fake::mqtt::set_auto_complete(AutoComplete::Inline, -1);
    EXPECT_EQ(-1, __sf_dp_report_sync("a1b2c3", TRUE, SF_FILTER_OBJ, "{\"1\":false}", nullptr, FALSE, 5, FALSE));
    EXPECT_EQ(PV_STAT_LOCAL, pv("a1b2c3", 1));
    EXPECT_EQ(1u, sync_starts());
}

TEST_F(SyncReport, UnknownFilterSetsNoState)
{
    fake::mqtt::set_auto_complete(AutoComplete::Inline, RC_OK);
    dp("a1b2c3", 1)->pv_stat = PV_STAT_LOCAL;
    /* filter 3 refuses every object DP, so nothing is sent */
    EXPECT_EQ(RC_OK, __sf_dp_report_sync("a1b2c3", TRUE, 3, "{\"1\":true}", nullptr, FALSE, 5, FALSE));
    EXPECT_EQ(PV_STAT_LOCAL, pv("a1b2c3", 1));
}

TEST_F(SyncReport, StateFollowsTheCallersTextNotTheFilteredOne)
{
    fake::mqtt::set_auto_complete(AutoComplete::Inline, RC_OK);
    EXPECT_EQ(RC_OK, sf_stat_dp_report_sync("a1b2c3", "{\"1\":true,\"2\":500}", nullptr, 5, FALSE));
    EXPECT_EQ("{\"dps\":{\"1\":true},\"cid\":\"a1b2c3\"}", published().text);
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 2));
}

TEST_F(SyncReport, SemaphoreCreationFailureSendsNothing)
{
    fake::sem::fail_create(-9);
    EXPECT_EQ(-9, sf_stat_dp_report_sync("a1b2c3", "{\"1\":true}", nullptr, 5, FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_dp_report_sync", "create seme fails -9"));
    EXPECT_TRUE(fake::mqtt::dp_reports().empty());
    EXPECT_EQ(PV_STAT_INVALID, pv("a1b2c3", 1));
}

TEST_F(SyncReport, RendezvousAllocationFailureSendsNothing)
{
    fake::mem::fail_nth(1);
    EXPECT_EQ(RC_NO_MEMORY, sf_stat_dp_report_sync("a1b2c3", "{\"1\":true}", nullptr, 5, FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_dp_report_sync", "Malloc Fails"));
    EXPECT_TRUE(fake::mqtt::dp_reports().empty());
}

TEST_F(SyncReport, AllocationFailureSweep)
{
    fake::lan::set_result(RC_OK);
    fake::mqtt::set_auto_complete(AutoComplete::Inline, RC_OK);
    sweep_sync_report(1, [&] { return sf_stat_dp_report_sync("a1b2c3", "{\"1\":true}", "17", 5, TRUE); });
}

} // namespace
