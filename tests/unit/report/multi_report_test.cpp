#include <gtest/gtest.h>

#include <cstring>

#include "smart_frame/report/report.h"
#include "tests/fakes/sf_fixture.h"

namespace {

const char *const FN = "sf_multi_dp_report_async";
const char *const CB = "__sf_multi_dp_report_async";
const char *const TEXT = "{\"devId\":\"sub01\",\"ctype\":2,\"mbid\":\"m1\",\"dps\":{\"1\":true}}";

class MultiReport : public SfStartedTest {
protected:
    OPERATE_RET report(const char *text, UINT_T to_lmt = 0)
    {
        return sf_multi_dp_report_async(text, static_cast<INT_T>(std::strlen(text)), to_lmt, nullptr);
    }
};

TEST_F(MultiReport, TextReachesMqttByteForByte)
{
    EXPECT_EQ(RC_OK, report(TEXT, 9));

    ASSERT_EQ(1u, fake::mqtt::dp_reports().size());
    const fake::mqtt::DpReport &r = fake::mqtt::dp_reports()[0];
    EXPECT_EQ(TEXT, r.text);
    EXPECT_EQ(9u, r.timeout);
    EXPECT_EQ(&__sf_multi_dp_report_async, r.cb);
    EXPECT_EQ(r.block, r.prv_data); /* the block is its own completion argument */
    EXPECT_EQ(2u, r.refs_at_call);  /* creator's and completion's */
    EXPECT_EQ(2u, fake::rfc::count(r.block)); /* the completion's and the client's own */
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, FN, std::string("multi reponse:") + TEXT + " length:" +
                                                           std::to_string(std::strlen(TEXT))));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, FN, "Lan Send"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, FN, "Mqtt Send"));
    fake::mqtt::complete(0, RC_OK);
}

TEST_F(MultiReport, OnlyLenBytesAreCopied)
{
    EXPECT_EQ(RC_OK, sf_multi_dp_report_async("{\"1\":true}tail", 10, 0, nullptr));

    ASSERT_EQ(1u, fake::mqtt::dp_reports().size());
    EXPECT_EQ("{\"1\":true}", fake::mqtt::dp_reports()[0].text);
    fake::mqtt::complete(0, RC_OK);
}

TEST_F(MultiReport, LanWithoutClientsIsSilent)
{
    fake::lan::set_result(RC_LAN_NOT_SENT);

    EXPECT_EQ(RC_OK, report(TEXT));

    ASSERT_EQ(1u, fake::lan::reports().size());
    EXPECT_EQ(4u, fake::lan::reports()[0].kind);
    EXPECT_EQ(TEXT, fake::lan::reports()[0].text);
    EXPECT_EQ(0u, fake::log::count("lan_dp_sata_report error:-940"));
    fake::mqtt::complete(0, RC_OK);
}

TEST_F(MultiReport, OtherLanFailureIsLoggedAndDoesNotDecide)
{
    fake::lan::set_result(-5);

    EXPECT_EQ(RC_OK, report(TEXT));

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "lan_dp_sata_report error:-5"));
    EXPECT_EQ(1u, fake::mqtt::dp_reports().size());
    fake::mqtt::complete(0, RC_OK);
}

TEST_F(MultiReport, LanThatTakesTheBlockKeepsItsReference)
{
    fake::lan::set_result(RC_OK);

    EXPECT_EQ(RC_OK, report(TEXT));

    EXPECT_EQ(1u, fake::lan::held());
    EXPECT_EQ(3u, fake::mqtt::dp_reports()[0].refs_at_call);
    fake::mqtt::complete(0, RC_OK);
    EXPECT_EQ(1u, fake::rfc::count(fake::lan::reports()[0].block));
}

TEST_F(MultiReport, RefusedPublishReturnsTheCodeAndReleasesBothReferences)
{
    fake::mqtt::push_dp_report_result(-9);

    EXPECT_EQ(-9, report(TEXT));

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "mqtt async send fail -9"));
    EXPECT_EQ(0u, fake::rfc::live());
}

TEST_F(MultiReport, CompletionOnlyLogsAndReleases)
{
    EXPECT_EQ(RC_OK, report(TEXT));
    fake::log::clear();

    fake::mqtt::complete(0, -3);

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, CB, "mqtt async dp cb -3"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, CB, std::string("msg_data:") + TEXT + " , mqtt async dp cb:-3"));
    EXPECT_EQ(2u, fake::log::entries().size());
    EXPECT_EQ(0u, fake::rfc::live());
    EXPECT_EQ(0u, fake::timers::starts().size()); /* nothing is retried */
}

TEST_F(MultiReport, CallerArgumentIsReleasedAsABlockByTheCompletion)
{
    RFC_DATA_S *other = nullptr;
    ASSERT_EQ(RC_OK, __sf_mk_rfc_msg_data(reinterpret_cast<const BYTE_T *>("x"), 1, &other));

    EXPECT_EQ(RC_OK, sf_multi_dp_report_async(TEXT, static_cast<INT_T>(std::strlen(TEXT)), 0, other));

    EXPECT_EQ(other, fake::mqtt::dp_reports()[0].prv_data);
    EXPECT_EQ(1u, fake::mqtt::dp_reports()[0].refs_at_call); /* no completion reference taken */
    fake::mqtt::complete(0, RC_OK);
    EXPECT_EQ(1u, fake::rfc::count(other));
    put_rfc_data(other);
}

TEST_F(MultiReport, MissingTextIsRefused)
{
    EXPECT_EQ(RC_BAD_PARAM, sf_multi_dp_report_async(nullptr, 3, 0, nullptr));
    EXPECT_EQ(RC_BAD_PARAM, sf_multi_dp_report_async("abc", -1, 0, nullptr));
    EXPECT_EQ(2u, fake::log::count("Invalid Param"));
    EXPECT_TRUE(fake::mqtt::dp_reports().empty());
}

TEST_F(MultiReport, AllocationFailuresReturnTheCodeAndLeakNothing)
{
    fake::lan::set_result(RC_OK);
    size_t n = 1;
    for (; n < 20; ++n) {
        fake::mem::fail_nth(n);
        const OPERATE_RET rc = report(TEXT);
        const bool fired = fake::mem::failure_fired();
        fake::mem::fail_nth(0);
        fake::mqtt::complete_all(RC_OK);
        fake::lan::release_held();
        EXPECT_EQ(0u, fake::mem::live_blocks()) << "failing allocation " << n;
        EXPECT_EQ(0u, fake::rfc::live()) << "failing allocation " << n;
        if (!fired) {
            EXPECT_EQ(RC_OK, rc);
            break;
        }
        EXPECT_EQ(RC_NO_MEMORY, rc) << "failing allocation " << n;
        EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "md rfc fail -3"));
    }
    EXPECT_GT(n, 1u);
    EXPECT_LT(n, 20u);
}

} // namespace
