#include <gtest/gtest.h>

#include <cstring>

#include "report_fixture.h"

using namespace fake::registry;
using report_test::filter;
using report_test::pv;

namespace {

class Verify : public SfStartedTest {
protected:
    void SetUp() override
    {
        SfStartedTest::SetUp();
        dev = add_device("a1b2c3", {dp_bool(1), dp_value(2, 0, 100), dp_enum(4, {"low", "high"}), dp_str(5, 8),
                                    dp_bitmap(6, 7), dp_raw(101)});
        /* the worked example: DP 1 false and DP 2 25 confirmed, DP 4 "low" whose publication failed */
        dp("a1b2c3", 1)->prop.prop_bool.value = FALSE;
        dp("a1b2c3", 1)->pv_stat = PV_STAT_CLOUD;
        dp("a1b2c3", 2)->prop.prop_value.value = 25;
        dp("a1b2c3", 2)->pv_stat = PV_STAT_CLOUD;
        dp("a1b2c3", 4)->prop.prop_enum.value = 0;
        dp("a1b2c3", 4)->pv_stat = PV_STAT_LOCAL;
    }
    DEV_CNTL_N_S *dev = nullptr;
};

TEST_F(Verify, WorkedExampleSendsChangedAndUnconfirmedValuesOnly)
{
    const auto out = filter(dev, SF_FILTER_OBJ, "{\"1\":true,\"2\":25,\"4\":\"low\",\"9\":3}");
    EXPECT_EQ(RC_OK, out.code);
    EXPECT_EQ("{\"1\":true,\"4\":\"low\"}", out.text);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__dp_verify_flowctl_update", "DP ID:9 Not Find"));
    EXPECT_EQ(TRUE, dp("a1b2c3", 1)->prop.prop_bool.value);
    EXPECT_EQ(PV_STAT_SENDING, pv("a1b2c3", 1));
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 2));
    EXPECT_EQ(PV_STAT_SENDING, pv("a1b2c3", 4));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "__dp_verify_flowctl_update", "Need Send {\"1\":true,\"4\":\"low\"}"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__append_send_json",
                               "dp<2> check. need_update:0 pv_stat:3 trig_t:0 filter_type:0 force_send:0"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__append_send_json",
                               "dp<4> check. need_update:1 pv_stat:1 trig_t:0 filter_type:0 force_send:0"));
}

TEST_F(Verify, WorkedExampleAsStatusReportSendsEveryVerifiedValue)
{
    const auto out = filter(dev, SF_FILTER_STAT, "{\"1\":true,\"2\":25,\"4\":\"low\",\"9\":3}");
    EXPECT_EQ(RC_OK, out.code);
    EXPECT_EQ("{\"1\":true,\"2\":25,\"4\":\"low\"}", out.text);
    EXPECT_EQ(PV_STAT_SENDING, pv("a1b2c3", 2));
}

TEST_F(Verify, UnchangedConfirmedValuesLeaveNothingToSend)
{
    const auto out = filter(dev, SF_FILTER_OBJ, "{\"1\":false,\"2\":25}");
    EXPECT_EQ(RC_OK, out.code);
    EXPECT_EQ("<null>", out.text);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__dp_verify_flowctl_update", "Need NOT Send"));
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 1));
}

TEST_F(Verify, ValueNeverReportedIsSentEvenWhenEqual)
{
    dp("a1b2c3", 2)->pv_stat = PV_STAT_INVALID;
    EXPECT_EQ("{\"2\":25}", filter(dev, SF_FILTER_OBJ, "{\"2\":25}").text);
}

TEST_F(Verify, ReportAlwaysDpIsSentUnchanged)
{
    dp("a1b2c3", 2)->dp_desc.trig_t = TRIG_ALWAYS;
    EXPECT_EQ("{\"2\":25}", filter(dev, SF_FILTER_OBJ, "{\"2\":25}").text);
    EXPECT_EQ(PV_STAT_SENDING, pv("a1b2c3", 2));
}

TEST_F(Verify, ForceSendResendsUnchangedButNotOverLimitValues)
{
    dp("a1b2c3", 1)->rept_cntl = {60, 1, 1, fake::clock::posix() - 5};
    const auto out = filter(dev, SF_FILTER_OBJ, "{\"1\":false,\"2\":25}", TRUE);
    EXPECT_EQ("{\"2\":25}", out.text);
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 1));
}

TEST_F(Verify, InputFractionsAreDroppedAndStoredAsIntegers)
{
    EXPECT_EQ("{\"2\":30}", filter(dev, SF_FILTER_OBJ, "{\"2\":30.7}").text);
    EXPECT_EQ(30, dp("a1b2c3", 2)->prop.prop_value.value);
}

TEST_F(Verify, StringIsCopiedIntoTheRegistryBuffer)
{
    EXPECT_EQ("{\"5\":\"abcdefgh\"}", filter(dev, SF_FILTER_OBJ, "{\"5\":\"abcdefgh\"}").text);
    EXPECT_STREQ("abcdefgh", dp("a1b2c3", 5)->prop.prop_str.value);
    dp("a1b2c3", 5)->pv_stat = PV_STAT_CLOUD;
    EXPECT_EQ("<null>", filter(dev, SF_FILTER_OBJ, "{\"5\":\"abcdefgh\"}").text);
    EXPECT_EQ("{\"5\":\"abc\"}", filter(dev, SF_FILTER_OBJ, "{\"5\":\"abc\"}").text);
}

TEST_F(Verify, StringDpWithoutBufferIsRefusedNotWritten)
{
    DEV_CNTL_N_S *bare = add_device("nobuf", {dp_str(5, 8).no_str_buffer(), dp_bool(1)});
    const auto out = filter(bare, SF_FILTER_OBJ, "{\"5\":\"abc\",\"1\":true}");
    EXPECT_EQ("{\"1\":true}", out.text);
    EXPECT_EQ(PV_STAT_INVALID, pv("nobuf", 5));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__append_send_json", "DP ID:5 no string buffer"));
}

TEST_F(Verify, EnumIsStoredByIndexAndSentByTheSchemaName)
{
    EXPECT_EQ("{\"4\":\"high\"}", filter(dev, SF_FILTER_OBJ, "{\"4\":\"high\"}").text);
    EXPECT_EQ(1, dp("a1b2c3", 4)->prop.prop_enum.value);
}

TEST_F(Verify, BitmapIsStoredUnsigned)
{
    EXPECT_EQ("{\"6\":4096}", filter(dev, SF_FILTER_OBJ, "{\"6\":4096}").text);
    EXPECT_EQ(4096u, dp("a1b2c3", 6)->prop.prop_bitmap.value);
}

TEST_F(Verify, RefusedDpDoesNotStopTheOthers)
{
    const auto out = filter(dev, SF_FILTER_OBJ, "{\"2\":101,\"1\":true,\"4\":\"mid\",\"6\":1}");
    EXPECT_EQ("{\"1\":true,\"6\":1}", out.text);
    EXPECT_EQ(25, dp("a1b2c3", 2)->prop.prop_value.value);
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 2));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__check_dp_type", "value check fail 3 101 0 100"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__check_dp_type", "enum check fail mid"));
}

TEST_F(Verify, HeldPassiveDpIsStoredButNotSent)
{
    dev->attr.preprocess = TRUE;
    dp("a1b2c3", 1)->dp_desc.passive = PSV_HOLD;
    const auto out = filter(dev, SF_FILTER_OBJ, "{\"1\":true}");
    EXPECT_EQ("<null>", out.text);
    EXPECT_EQ(TRUE, dp("a1b2c3", 1)->prop.prop_bool.value);
    EXPECT_EQ(PV_STAT_SENDING, pv("a1b2c3", 1));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__append_send_json", "dp passive is true."));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, "__dp_verify_flowctl_update", "Need NOT Send"));
}

TEST_F(Verify, ReleasedPassiveDpIsSent)
{
    dev->attr.preprocess = TRUE;
    dp("a1b2c3", 1)->dp_desc.passive = PSV_RELEASED;
    EXPECT_EQ("{\"1\":true}", filter(dev, SF_FILTER_OBJ, "{\"1\":true}").text);
}

TEST_F(Verify, PassiveDpOnADeviceWithoutPreprocessIsSent)
{
    dp("a1b2c3", 1)->dp_desc.passive = PSV_HOLD;
    EXPECT_EQ("{\"1\":true}", filter(dev, SF_FILTER_OBJ, "{\"1\":true}").text);
}

TEST_F(Verify, RawValueIsAlwaysSentAndNotStored)
{
    dp("a1b2c3", 101)->pv_stat = PV_STAT_CLOUD;
    dev->attr.preprocess = TRUE;
    dp("a1b2c3", 101)->dp_desc.passive = PSV_HOLD; /* the passive rule does not apply to raw DPs */
    EXPECT_EQ("{\"101\":\"AQID\"}", filter(dev, SF_FILTER_RAW, "{\"101\":\"AQID\"}").text);
    EXPECT_EQ(PV_STAT_SENDING, pv("a1b2c3", 101));
    EXPECT_EQ(0, dp("a1b2c3", 101)->prop.prop_bool.value);
    EXPECT_EQ("{\"101\":\"AQID\"}", filter(dev, SF_FILTER_RAW, "{\"101\":\"AQID\"}").text);
}

TEST_F(Verify, MissingArgumentsAreRefused)
{
    CHAR_T *out = nullptr;
    EXPECT_EQ(RC_BAD_PARAM, __sf_dp_verify_flowctl_update(dev, SF_FILTER_OBJ, nullptr, FALSE, &out));
    EXPECT_EQ(RC_BAD_PARAM, __sf_dp_verify_flowctl_update(nullptr, SF_FILTER_OBJ, "{}", FALSE, &out));
    EXPECT_EQ(RC_BAD_PARAM, __sf_dp_verify_flowctl_update(dev, SF_FILTER_OBJ, "{}", FALSE, nullptr));
    EXPECT_EQ(3u, fake::log::find("Invalid Param").size());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__dp_verify_flowctl_update", "Invalid Param"));
}

TEST_F(Verify, UnparsableReportChangesNothing)
{
    EXPECT_EQ(RC_JSON_FAIL, filter(dev, SF_FILTER_OBJ, "{\"1\":true").code);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__dp_verify_flowctl_update", "Json Fails"));
    EXPECT_EQ(FALSE, dp("a1b2c3", 1)->prop.prop_bool.value);
    EXPECT_EQ(PV_STAT_CLOUD, pv("a1b2c3", 1));
}

TEST_F(Verify, ReportThatIsNotAnObjectIsRefusedLikeAnUnparsableOne)
{
    EXPECT_EQ(RC_JSON_FAIL, filter(dev, SF_FILTER_OBJ, "[true]").code);
    EXPECT_EQ(RC_JSON_FAIL, filter(dev, SF_FILTER_OBJ, "3").code);
    EXPECT_EQ(2u, fake::log::count("Json Fails"));
}

TEST_F(Verify, EmptyObjectLeavesNothingToSend)
{
    EXPECT_EQ("<null>", filter(dev, SF_FILTER_OBJ, "{}").text);
}

TEST_F(Verify, FilterRunsUnderDevMutexAndReleasesIt)
{
    MUTEX_HANDLE dev_mutex = gw()->dev_mutex;
    const size_t before = fake::mutex::lock_count(dev_mutex);
    filter(dev, SF_FILTER_OBJ, "{\"1\":true}");
    EXPECT_EQ(before + 1, fake::mutex::lock_count(dev_mutex));
    EXPECT_FALSE(fake::mutex::held(dev_mutex));
}

TEST_F(Verify, UnlockedFilterTakesNoLock)
{
    MUTEX_HANDLE dev_mutex = gw()->dev_mutex;
    const size_t before = fake::mutex::lock_count(dev_mutex);
    CHAR_T *out = nullptr;
    EXPECT_EQ(RC_OK, __dp_verify_flowctl_update(dev, SF_FILTER_OBJ, "{\"1\":true}", FALSE, &out));
    EXPECT_STREQ("{\"1\":true}", out);
    Free(out);
    EXPECT_EQ(before, fake::mutex::lock_count(dev_mutex));
}

TEST_F(Verify, AppendIgnoresFileAndUnknownKinds)
{
    sf::JsonPtr out(cJSON_CreateObject());
    sf::JsonPtr node(cJSON_Parse("true"));
    DP_CNTL_S *dp1 = dp("a1b2c3", 1);
    dp1->dp_desc.type = DP_TYPE_FILE;
    EXPECT_EQ(FALSE, __append_send_json(out.get(), dp1, node.get(), dev, SF_FILTER_OBJ, FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__append_send_json", "file not support"));
    dp1->dp_desc.type = 4;
    EXPECT_EQ(FALSE, __append_send_json(out.get(), dp1, node.get(), dev, SF_FILTER_OBJ, FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__append_send_json", "dp_cntl->dp_desc.prop_tp 0"));
    EXPECT_EQ(nullptr, out->child);
    EXPECT_EQ(PV_STAT_CLOUD, dp1->pv_stat);
}

/* Every allocation of the filter failing in turn: an allowed code, nothing leaked, and a DP is either sent or untouched. */
TEST_F(Verify, AllocationFailuresLeaveEveryDpSentOrUntouched)
{
    for (size_t nth = 1;; ++nth) {
        dp("a1b2c3", 1)->prop.prop_bool.value = FALSE;
        dp("a1b2c3", 1)->pv_stat = PV_STAT_CLOUD;
        std::strcpy(dp("a1b2c3", 5)->prop.prop_str.value, "");
        dp("a1b2c3", 5)->pv_stat = PV_STAT_CLOUD;
        fake::mem::fail_nth(nth);
        const auto out = filter(dev, SF_FILTER_OBJ, "{\"1\":true,\"5\":\"xyz\"}");
        const bool fired = fake::mem::failure_fired();
        fake::mem::fail_nth(0);
        ASSERT_TRUE(out.code == RC_OK || out.code == RC_JSON_FAIL || out.code == RC_FAIL) << nth << ": " << out.code;
        EXPECT_EQ(0u, fake::mem::live_blocks()) << nth;
        if (out.code == RC_OK && out.text != "<null>") {
            for (BYTE_T id : {1, 5}) {
                const bool sent = out.text.find("\"" + std::to_string(id) + "\"") != std::string::npos;
                EXPECT_EQ(sent ? PV_STAT_SENDING : PV_STAT_CLOUD, pv("a1b2c3", id)) << nth;
            }
        }
        if (!fired) {
            EXPECT_EQ("{\"1\":true,\"5\":\"xyz\"}", out.text);
            EXPECT_GT(nth, 3u);
            break;
        }
    }
}

} // namespace
