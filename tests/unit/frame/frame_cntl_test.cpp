#include <gtest/gtest.h>

#include "smart_frame/frame_cntl.h"
#include "tests/fakes/sf_fixture.h"

namespace {

using FrameCntl = SfFakesTest;

TEST_F(FrameCntl, TheModuleCountsAsStartedOnlyAfterASuccessfulStartUp)
{
    EXPECT_FALSE(sf::frame_inited());

    fake::msgq::fail(fake::msgq::Call::cr_tm_msg_hand, RC_NO_MEMORY);
    ASSERT_EQ(RC_NO_MEMORY, smart_frame_init());
    EXPECT_FALSE(sf::frame_inited());

    ASSERT_EQ(RC_OK, smart_frame_init());
    EXPECT_TRUE(sf::frame_inited());
}

} // namespace
