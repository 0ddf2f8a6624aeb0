#include "common/broker_address.h"

#include <gtest/gtest.h>

namespace {

TEST(BrokerAddress, HostAndPortAreSplitAtTheLastColon)
{
    std::string host;
    int port = 0;
    ASSERT_TRUE(apps::parse_broker_address("broker.example:8883", &host, &port));
    EXPECT_EQ("broker.example", host);
    EXPECT_EQ(8883, port);
    ASSERT_TRUE(apps::parse_broker_address("[::1]:1884", &host, &port));
    EXPECT_EQ("::1", host);
    EXPECT_EQ(1884, port);
}

TEST(BrokerAddress, AnythingElseIsRefusedAndSetsNothing)
{
    for (const char *bad : {"", "host", ":1883", "host:", "host:0", "host:65536", "host:12x", "::1:1883", "[]:1883",
                            "[::1:1883"}) {
        std::string host = "kept";
        int port = 7;
        EXPECT_FALSE(apps::parse_broker_address(bad, &host, &port)) << bad;
        EXPECT_EQ("kept", host) << bad;
        EXPECT_EQ(7, port) << bad;
    }
}

} // namespace
