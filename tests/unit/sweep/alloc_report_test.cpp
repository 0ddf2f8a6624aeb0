/*
 * Allocation-failure sweeps of the report road: every report entry point,
 * the composition, the local packing and the publication completions.
 *
 * Codes a run may return:
 *   sf_obj_dp_report_async: RC_OK, RC_JSON_FAIL (the report could not be
 *     parsed or the reduced object not made), RC_FAIL (the reduced object
 *     could not be printed), RC_NO_MEMORY (envelope or message block).
 *   sf_stat_dp_report_sync, sf_raw_dp_report_sync(_with_time): the same
 *     codes (the raw text buffer and the rendezvous give RC_NO_MEMORY).
 *   sf_multi_dp_report_async: RC_OK, RC_NO_MEMORY (message block).
 *   sf_dp_data_composition: RC_OK, RC_NO_MEMORY.
 *   sf_pack_local_obj_dp_data: a text, or NULL when nothing could be packed
 *     (the all-packed flag is then written only if the walk was done before
 *     the failure, as for a failed printing).
 *   Completions return nothing; a failure inside them leaves the publish
 *   state as it was (the values stay known as in flight).
 */
#include "sweep_fixture.h"

#include "smart_frame/report/report.h"

using namespace sweep;
using namespace fake::every_dp;

namespace {

const std::vector<OPERATE_RET> REPORT_CODES = {RC_OK, RC_JSON_FAIL, RC_FAIL, RC_NO_MEMORY};

/* The single DP report publication of a normal run, with this envelope. */
std::function<bool()> published(const std::string &text)
{
    return [text] {
        const auto &reports = fake::mqtt::dp_reports();
        return reports.size() == 1 && reports[0].text == text && reports[0].completed;
    };
}

using SweepReport = SweepTest;

TEST_F(SweepReport, ObjectReportsSurviveEveryFailingAllocation)
{
    Path sub;
    sub.name = "sf_obj_dp_report_async, sub-device";
    sub.run = [] {
        return sf_obj_dp_report_async(SUB_ID, "{\"1\":false,\"2\":26,\"3\":\"xyz\",\"4\":\"high\",\"5\":6,\"10\":true}",
                                      FALSE);
    };
    sub.allowed = REPORT_CODES;
    sub.effect = published("{\"dps\":{\"1\":false,\"2\":26,\"3\":\"xyz\",\"4\":\"high\",\"5\":6,\"10\":true},"
                           "\"cid\":\"sub01\"}");
    Path gw;
    gw.name = "sf_obj_dp_report_async, gateway, forced";
    gw.run = [] { return sf_obj_dp_report_async(nullptr, "{\"1\":true,\"2\":25}", TRUE); };
    gw.allowed = REPORT_CODES;
    gw.effect = published("{\"dps\":{\"1\":true,\"2\":25}}");
    Path lan = sub;
    lan.name = "sf_obj_dp_report_async, sub-device, LAN client connected";
    lan.prepare = [] { fake::lan::set_result(RC_OK); };
    sweep_all({sub, gw, lan});
}

TEST_F(SweepReport, SynchronousReportsSurviveEveryFailingAllocation)
{
    Path stat;
    stat.name = "sf_stat_dp_report_sync";
    stat.run = [] { return sf_stat_dp_report_sync(SUB_ID, "{\"1\":true,\"4\":\"low\"}", "1600000000", 5, TRUE); };
    stat.allowed = REPORT_CODES;
    stat.effect = published("{\"dps\":{\"1\":true,\"4\":\"low\"},\"cid\":\"sub01\",\"t\":1600000000}");

    static const BYTE_T bytes[] = {1, 2, 3, 4};
    Path raw;
    raw.name = "sf_raw_dp_report_sync";
    raw.run = [] { return sf_raw_dp_report_sync(SUB_ID, DP_RAW, bytes, sizeof bytes, 5, FALSE); };
    raw.allowed = REPORT_CODES;
    raw.effect = published("{\"dps\":{\"6\":\"AQIDBA==\"},\"cid\":\"sub01\"}");

    Path raw_time;
    raw_time.name = "sf_raw_dp_report_sync_with_time";
    raw_time.run = [] {
        return sf_raw_dp_report_sync_with_time(nullptr, DP_RAW, bytes, 3, 5, TRUE, "1700000000");
    };
    raw_time.allowed = REPORT_CODES;
    raw_time.effect = published("{\"dps\":{\"6\":\"AQID\"},\"t\":1700000000}");
    sweep_all({stat, raw, raw_time});
}

TEST_F(SweepReport, MultiReportSurvivesEveryFailingAllocation)
{
    static const char text[] = "{\"devId\":\"sub01\",\"dps\":{\"1\":true}}";
    Path p;
    p.name = "sf_multi_dp_report_async";
    p.run = [] { return sf_multi_dp_report_async(text, sizeof text - 1, 5, nullptr); };
    p.allowed = {RC_OK, RC_NO_MEMORY};
    p.effect = published(text);
    EXPECT_EQ(2u, sweep(p)); /* the message and its block */
    p.name = "sf_multi_dp_report_async, LAN client connected";
    p.prepare = [] { fake::lan::set_result(RC_OK); };
    EXPECT_EQ(2u, sweep(p));
}

TEST_F(SweepReport, CompositionSurvivesEveryFailingAllocation)
{
    Path p;
    p.name = "sf_dp_data_composition";
    p.run = [] {
        KL_OBJ_DP_S dps[3] = {};
        dps[0].dpid = DP_BOOL;
        dps[0].type = PROP_BOOL;
        dps[0].value.dp_bool = TRUE;
        dps[1].dpid = DP_STR;
        dps[1].type = PROP_STR;
        dps[1].value.dp_str = const_cast<CHAR_T *>("ab");
        dps[1].time_stamp = 1700000000;
        dps[2].dpid = DP_ENUM;
        dps[2].type = PROP_ENUM;
        dps[2].value.dp_enum = 2;
        CHAR_T *data = nullptr;
        CHAR_T *time = nullptr;
        const OPERATE_RET rc = sf_dp_data_composition(SUB_ID, dps, 3, &data, &time);
        if (rc == RC_OK) {
            const bool right = std::string(data) == "{\"1\":true,\"3\":\"ab\",\"4\":\"high\"}" &&
                               std::string(time) == "{\"3\":1700000000}";
            Free(data);
            Free(time);
            return right ? RC_OK : RC_FAIL;
        }
        return rc;
    };
    p.allowed = {RC_OK, RC_NO_MEMORY};
    EXPECT_EQ(2u, sweep(p)); /* the data text and the time text */
}

TEST_F(SweepReport, PackingReturnsNothingWhenItCannotAllocate)
{
    auto pack_path = [](const std::string &name, BOOL_T add_dev_id, const std::string &expected) {
        Path p;
        p.name = name;
        p.prepare = [] {
            /* three values waiting for their confirmation */
            fake::registry::dp(SUB_ID, DP_BOOL)->pv_stat = PV_STAT_SENDING;
            fake::registry::dp(SUB_ID, DP_STR)->pv_stat = PV_STAT_LOCAL;
        };
        p.run = [add_dev_id, expected] {
            BOOL_T all = 7;
            CHAR_T *text = sf_pack_local_obj_dp_data(fake::registry::device(SUB_ID), 300, add_dev_id, &all, TRUE);
            if (text == nullptr) {
                return RC_NO_MEMORY;
            }
            const bool right = expected == text && all == TRUE;
            Free(text);
            return right ? RC_OK : RC_FAIL;
        };
        p.allowed = {RC_OK, RC_NO_MEMORY};
        return p;
    };
    sweep_all({
        pack_path("sf_pack_local_obj_dp_data", FALSE, "{\"1\":true,\"2\":25,\"3\":\"abc\"}"),
        pack_path("sf_pack_local_obj_dp_data, with the device id", TRUE,
                  "{\"dps\":{\"1\":true,\"2\":25,\"3\":\"abc\"},\"cid\":\"sub01\"}"),
    });
}

class SweepCompletion : public SweepTest {
protected:
    void SetUp() override
    {
        SweepTest::SetUp();
        fake::mqtt::set_auto_complete(fake::mqtt::AutoComplete::Off); /* the test completes */
    }
};

TEST_F(SweepCompletion, ObjectReportCompletionsSurviveEveryFailingAllocation)
{
    auto completion = [](const std::string &name, OPERATE_RET op_ret, DP_PV_STAT_E after) {
        Path p;
        p.name = name;
        p.prepare = [] { ASSERT_EQ(RC_OK, sf_obj_dp_report_async(SUB_ID, "{\"1\":false}", FALSE)); };
        p.run = [op_ret] {
            fake::mqtt::complete(0, op_ret);
            return RC_OK;
        };
        p.allowed = {RC_OK};
        p.effect = [after] { return fake::registry::dp(SUB_ID, DP_BOOL)->pv_stat == after; };
        return p;
    };
    sweep_all({
        completion("__sf_obj_dp_report_async_cb, confirmed", RC_OK, PV_STAT_CLOUD),
        completion("__sf_obj_dp_report_async_cb, failed", RC_FAIL, PV_STAT_LOCAL),
    });
}

TEST_F(SweepCompletion, MultiReportCompletionAllocatesNothing)
{
    Path p;
    p.name = "__sf_multi_dp_report_async";
    p.prepare = [] { ASSERT_EQ(RC_OK, sf_multi_dp_report_async("{}", 2, 5, nullptr)); };
    p.run = [] {
        fake::mqtt::complete(0, RC_FAIL);
        return RC_OK;
    };
    p.allowed = {RC_OK};
    EXPECT_EQ(0u, sweep(p));
}

} // namespace
