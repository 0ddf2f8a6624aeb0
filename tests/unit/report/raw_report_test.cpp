#include <gtest/gtest.h>

#include <vector>

#include "report_fixture.h"

using namespace fake::registry;
using fake::mqtt::AutoComplete;
using report_test::pv;
using report_test::sweep_sync_report;
using report_test::sync_starts;

namespace {

class RawReport : public SfStartedTest {
protected:
    void SetUp() override
    {
        SfStartedTest::SetUp();
        add_device("a1b2c3", {dp_raw(101).flow(60, 5), dp_bool(1), dp_raw(255)});
        fake::mqtt::set_auto_complete(AutoComplete::Inline, RC_OK);
    }
    /* The raw text the report logged and the envelope it published, for len bytes 1, 2, 3, ... */
    std::pair<std::string, std::string> report_bytes(UINT_T len)
    {
        std::vector<BYTE_T> bytes;
        for (UINT_T i = 1; i <= len; ++i) {
            bytes.push_back(static_cast<BYTE_T>(i));
        }
        fake::log::clear();
        const size_t before = fake::mqtt::dp_reports().size();
        EXPECT_EQ(RC_OK, sf_raw_dp_report_sync("a1b2c3", 101, bytes.data(), len, 5, FALSE));
        std::string logged;
        for (const auto &entry : fake::log::entries()) {
            if (entry.func == "sf_raw_dp_report_sync_with_time" && entry.level == LOG_LEVEL_PROGRESS) {
                logged = entry.text;
            }
        }
        const std::string sent = fake::mqtt::dp_reports().size() > before ? fake::mqtt::dp_reports().back().text : "";
        return {logged, sent};
    }
};

TEST_F(RawReport, FourBytesAsInTheExample)
{
    const BYTE_T bytes[] = {1, 2, 3, 4};
    EXPECT_EQ(RC_OK, sf_raw_dp_report_sync("a1b2c3", 101, bytes, 4, 5, FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "sf_raw_dp_report_sync_with_time",
                               "Send Raw: {\"101\":\"AQIDBA==\"} retrans:0"));
    ASSERT_EQ(1u, fake::mqtt::dp_reports().size());
    EXPECT_EQ("{\"dps\":{\"101\":\"AQIDBA==\"},\"cid\":\"a1b2c3\"}", fake::mqtt::dp_reports()[0].text);
    EXPECT_EQ(5u, fake::mqtt::dp_reports()[0].timeout);
    EXPECT_EQ(&__sf_dp_report_sync_cb, fake::mqtt::dp_reports()[0].cb);
    EXPECT_EQ(1u, fake::lan::reports().size()) << "raw reports are offered to LAN clients too";
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 101));
    EXPECT_EQ(1, dp("a1b2c3", 101)->rept_cntl.cir_rept_items);
    EXPECT_EQ(0u, sync_starts());
}

TEST_F(RawReport, TextsForZeroToFourBytes)
{
    EXPECT_EQ("Send Raw: {\"101\":\"\"} retrans:0", report_bytes(0).first);
    EXPECT_EQ("{\"dps\":{\"101\":\"\"},\"cid\":\"a1b2c3\"}", report_bytes(0).second);
    EXPECT_EQ("Send Raw: {\"101\":\"AQ==\"} retrans:0", report_bytes(1).first);
    EXPECT_EQ("Send Raw: {\"101\":\"AQI=\"} retrans:0", report_bytes(2).first);
    EXPECT_EQ("Send Raw: {\"101\":\"AQID\"} retrans:0", report_bytes(3).first);
    EXPECT_EQ("Send Raw: {\"101\":\"AQIDBA==\"} retrans:0", report_bytes(4).first);
}

TEST_F(RawReport, ZeroBytesNeedTwentyOneBytesOfBuffer)
{
    const size_t bytes_before = fake::mem::alloc_bytes();
    const size_t calls_before = fake::mem::alloc_calls();
    fake::mem::fail_nth(2); /* the buffer comes first, the rendezvous second */
    EXPECT_EQ(RC_NO_MEMORY, sf_raw_dp_report_sync("a1b2c3", 101, nullptr, 0, 5, FALSE));
    EXPECT_EQ(calls_before + 2, fake::mem::alloc_calls());
    EXPECT_EQ(21u, fake::mem::alloc_bytes() - bytes_before);
}

TEST_F(RawReport, LongPayloadIsEncodedWhole)
{
    std::vector<BYTE_T> bytes(300, 0xff);
    EXPECT_EQ(RC_OK, sf_raw_dp_report_sync("a1b2c3", 255, bytes.data(), 300, 5, FALSE));
    EXPECT_EQ("{\"dps\":{\"255\":\"" + std::string(400, '/') + "\"},\"cid\":\"a1b2c3\"}",
              fake::mqtt::dp_reports()[0].text);
}

TEST_F(RawReport, TimeGoesIntoTheEnvelope)
{
    const BYTE_T bytes[] = {1, 2, 3};
    EXPECT_EQ(RC_OK, sf_raw_dp_report_sync_with_time("a1b2c3", 101, bytes, 3, 5, TRUE, "1700000000"));
    EXPECT_EQ("{\"dps\":{\"101\":\"AQID\"},\"cid\":\"a1b2c3\",\"t\":1700000000}", fake::mqtt::dp_reports()[0].text);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "sf_raw_dp_report_sync_with_time", "Send Raw: {\"101\":\"AQID\"} retrans:1"));
}

TEST_F(RawReport, ObjectDpIsRefusedAndNothingIsSent)
{
    const BYTE_T bytes[] = {1};
    const size_t waits = fake::sem::waits();
    EXPECT_EQ(RC_OK, sf_raw_dp_report_sync("a1b2c3", 1, bytes, 1, 5, FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__check_dp_type", "DP ID:1 Verify Fails 0 0 1 0"));
    EXPECT_TRUE(fake::mqtt::dp_reports().empty());
    EXPECT_EQ(waits, fake::sem::waits());
    EXPECT_EQ(PV_STAT_INVALID, pv("a1b2c3", 1));
}

TEST_F(RawReport, TimeoutWithoutRetransmissionLeavesStateZero)
{
    fake::mqtt::set_auto_complete(AutoComplete::OnThread, -16);
    const BYTE_T bytes[] = {9};
    dp("a1b2c3", 101)->pv_stat = PV_STAT_CLOUD;
    EXPECT_EQ(-16, sf_raw_dp_report_sync("a1b2c3", 101, bytes, 1, 5, FALSE));
    EXPECT_EQ(PV_STAT_INVALID, pv("a1b2c3", 101));
    EXPECT_EQ(0, dp("a1b2c3", 101)->rept_cntl.cir_rept_items);
    EXPECT_EQ(0u, sync_starts());
}

TEST_F(RawReport, TimeoutWithRetransmissionLeavesItUnconfirmedWithoutSync)
{
    fake::mqtt::set_auto_complete(AutoComplete::OnThread, -16);
    const BYTE_T bytes[] = {9};
    EXPECT_EQ(-16, sf_raw_dp_report_sync("a1b2c3", 101, bytes, 1, 5, TRUE));
    EXPECT_EQ(PV_STAT_LOCAL, pv("a1b2c3", 101));
    EXPECT_EQ(0u, sync_starts());
}

TEST_F(RawReport, ReportThatCannotBeSentLeavesStateThree)
{
    set_nw_status(GW_NW_NONE);
    const BYTE_T bytes[] = {9};
    EXPECT_EQ(RC_NET_DOWN, sf_raw_dp_report_sync("a1b2c3", 101, bytes, 1, 5, TRUE));
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 101));
    EXPECT_EQ(0u, sync_starts());
}

TEST_F(RawReport, RawValuesAreSubjectToFlowControl)
{
    dp("a1b2c3", 101)->rept_cntl = {60, 1, 1, fake::clock::posix()};
    const BYTE_T bytes[] = {9};
    EXPECT_EQ(RC_OK, sf_raw_dp_report_sync("a1b2c3", 101, bytes, 1, 5, FALSE));
    EXPECT_TRUE(fake::mqtt::dp_reports().empty());
}

TEST_F(RawReport, MissingBytesAreRefused)
{
    EXPECT_EQ(RC_BAD_PARAM, sf_raw_dp_report_sync("a1b2c3", 101, nullptr, 3, 5, FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "sf_raw_dp_report_sync_with_time", "Invalid Param"));
    EXPECT_EQ(RC_BAD_PARAM, sf_raw_dp_report_sync("a1b2c3", 101, reinterpret_cast<const BYTE_T *>("x"), 0xFFFFFFF0u, 5,
                                                  FALSE));
    EXPECT_TRUE(fake::mqtt::dp_reports().empty());
}

TEST_F(RawReport, BufferAllocationFailureIsLoggedWithTheLength)
{
    const BYTE_T bytes[] = {1, 2, 3, 4};
    fake::mem::fail_nth(1);
    EXPECT_EQ(RC_NO_MEMORY, sf_raw_dp_report_sync("a1b2c3", 101, bytes, 4, 5, FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "sf_raw_dp_report_sync_with_time", "Malloc Fails 4"));
}

TEST_F(RawReport, UnknownDeviceChangesNothing)
{
    const BYTE_T bytes[] = {1};
    EXPECT_EQ(RC_DEV_NOT_FOUND, sf_raw_dp_report_sync("nosuch", 101, bytes, 1, 5, FALSE));
    EXPECT_EQ(0u, fake::sem::live());
}

TEST_F(RawReport, AllocationFailureSweep)
{
    fake::lan::set_result(RC_OK);
    const BYTE_T bytes[] = {1, 2, 3, 4};
    sweep_sync_report(101, [&] { return sf_raw_dp_report_sync_with_time("a1b2c3", 101, bytes, 4, 5, FALSE, "17"); });
}

} // namespace
