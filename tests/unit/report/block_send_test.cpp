#include <gtest/gtest.h>

#include "smart_frame/report/block_send.h"
#include "smart_frame/report/report.h"
#include "tests/fakes/sf_fixture.h"

namespace {

class BlockSend : public SfStartedTest {
protected:
    RFC_DATA_S *make_block()
    {
        RFC_DATA_S *block = nullptr;
        EXPECT_EQ(RC_OK, __sf_mk_rfc_msg_data(reinterpret_cast<const BYTE_T *>("{}"), 2, &block));
        return block;
    }
};

void ignore_completion(OPERATE_RET, const void *) {}

void drop_completion(OPERATE_RET, const void *prv_data)
{
    put_rfc_data(static_cast<RFC_DATA_S *>(const_cast<void *>(prv_data)));
}

TEST_F(BlockSend, LanThatTakesTheBlockKeepsTheReference)
{
    RFC_DATA_S *block = make_block();
    fake::lan::set_result(RC_OK);

    EXPECT_EQ(RC_OK, sf::offer_block_to_lan(block));

    EXPECT_EQ(2u, fake::rfc::count(block));
    EXPECT_EQ(4u, fake::lan::reports()[0].kind);
    put_rfc_data(block);
}

TEST_F(BlockSend, LanThatTakesNothingCostsOneReference)
{
    RFC_DATA_S *block = make_block();
    fake::lan::set_result(-5);

    EXPECT_EQ(-5, sf::offer_block_to_lan(block));

    EXPECT_EQ(1u, fake::rfc::count(block));
    put_rfc_data(block);
}

TEST_F(BlockSend, OnlyRealLanFailuresAreErrors)
{
    EXPECT_FALSE(sf::lan_failure_is_error(RC_OK));
    EXPECT_FALSE(sf::lan_failure_is_error(RC_LAN_NOT_SENT));
    EXPECT_TRUE(sf::lan_failure_is_error(-5));
}

TEST_F(BlockSend, BlockServesAsItsOwnCompletionArgument)
{
    RFC_DATA_S *block = make_block();
    put_rfc_data(block); /* as after the LAN offer */

    EXPECT_EQ(RC_OK, sf::publish_block_async(block, 6, drop_completion, nullptr));

    EXPECT_EQ(block, fake::mqtt::dp_reports()[0].prv_data);
    EXPECT_EQ(6u, fake::mqtt::dp_reports()[0].timeout);
    EXPECT_EQ(2u, fake::mqtt::dp_reports()[0].refs_at_call);
    fake::mqtt::complete(0, RC_OK);
    EXPECT_FALSE(fake::rfc::is_live(block));
}

TEST_F(BlockSend, CallerArgumentGetsNoReference)
{
    RFC_DATA_S *block = make_block();
    put_rfc_data(block);
    int token = 0;

    EXPECT_EQ(RC_OK, sf::publish_block_async(block, 6, ignore_completion, &token));

    EXPECT_EQ(&token, fake::mqtt::dp_reports()[0].prv_data);
    EXPECT_EQ(1u, fake::mqtt::dp_reports()[0].refs_at_call);
    fake::mqtt::complete(0, RC_OK);
    EXPECT_FALSE(fake::rfc::is_live(block));
}

TEST_F(BlockSend, RefusedPublishReleasesEveryReferenceTaken)
{
    RFC_DATA_S *block = make_block();
    put_rfc_data(block);
    fake::mqtt::push_dp_report_result(-9);

    EXPECT_EQ(-9, sf::publish_block_async(block, 6, drop_completion, nullptr));

    EXPECT_FALSE(fake::rfc::is_live(block));
}

} // namespace
