/*
 * Base fixtures for scenarios on the fakes. Each test runs in its own
 * process (ctest runs every test case alone), because the module keeps
 * static state and has no shutdown.
 *
 * TearDown is the leak and contract check every test ends with: the LAN
 * channel writes what it holds, then no publication may still be open, no
 * message queued, no block from Malloc live and no locking contract broken.
 */
#ifndef SF_TEST_FIXTURE_H
#define SF_TEST_FIXTURE_H

#include <gtest/gtest.h>

#include "../../smart_frame/smart_frame.h"
#include "fakes.h"
#include "unclean.h"

namespace fake {

inline void expect_clean()
{
    EXPECT_EQ("", unclean());
}

} // namespace fake

/*
 * Fakes reset, a gateway "gw0001" without DPs, connected to the cloud
 * (the registry starts at GW_NW_LAN, as the real one does before the MQTT
 * client connects), module not started.
 */
class SfFakesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::reset_all();
        fake::registry::set_gateway("gw0001");
        fake::registry::set_nw_status(GW_NW_CLOUD);
    }
    void TearDown() override { fake::expect_clean(); }
};

/* As SfFakesTest, with smart_frame_init done and the log cleared. */
class SfStartedTest : public SfFakesTest {
protected:
    void SetUp() override
    {
        SfFakesTest::SetUp();
        ASSERT_EQ(RC_OK, smart_frame_init());
        fake::log::clear();
    }
};

#endif /* SF_TEST_FIXTURE_H */
