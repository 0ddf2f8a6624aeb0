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

namespace fake {

/*
 * What a finished scenario left behind, one line per problem; empty when
 * clean. The LAN channel first writes (releases) what it holds and the
 * MQTT completion threads are joined.
 */
inline std::string unclean()
{
    mqtt::join_threads();
    lan::release_held();
    std::string problems;
    if (mqtt::pending() != 0) {
        problems += std::to_string(mqtt::pending()) + " publications accepted but never completed\n";
    }
    if (msgq::pending() != 0) {
        problems += std::to_string(msgq::pending()) + " posted messages never handled\n";
    }
    if (rfc::live() != 0) {
        problems += std::to_string(rfc::live()) + " message blocks still referenced\n";
    }
    if (mem::live_blocks() != 0) {
        problems += std::to_string(mem::live_blocks()) + " leaked blocks:\n" + mem::leak_report();
    }
    for (const std::string &v : contract::violations()) {
        problems += "contract broken: " + v + "\n";
    }
    return problems;
}

inline void expect_clean()
{
    EXPECT_EQ("", unclean());
}

} // namespace fake

/* Fakes reset, a gateway "gw0001" without DPs, module not started. */
class SfFakesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::reset_all();
        fake::registry::set_gateway("gw0001");
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
