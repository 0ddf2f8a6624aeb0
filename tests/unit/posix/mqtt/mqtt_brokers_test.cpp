/*
 * The broker list: order, back-off, no spinning round the list, staying on
 * a broker that works.
 */
#include "port/posix/mqtt/mqtt_brokers.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using sf_mqtt::Broker;
using sf_mqtt::BrokerList;

Broker at(const std::string &host, int port)
{
    Broker b;
    b.host = host;
    b.port = port;
    return b;
}

BrokerList three() { return BrokerList({at("10.0.0.1", 1883), at("10.0.0.2", 1884), at("10.0.0.3", 1885)}, 1, 30); }

TEST(BrokerList, StartsWithTheFirstBrokerGiven)
{
    BrokerList list = three();
    EXPECT_EQ(list.index(), 0u);
    EXPECT_EQ(list.current().name(), "10.0.0.1:1883");
}

TEST(BrokerList, FailedConnectsTryTheBrokersInTheOrderGivenRoundAndRound)
{
    BrokerList list = three();
    std::vector<std::string> tried;
    for (int i = 0; i < 7; ++i) {
        tried.push_back(list.current().name());
        list.after_attempt(false);
    }
    EXPECT_EQ(tried, (std::vector<std::string>{"10.0.0.1:1883", "10.0.0.2:1884", "10.0.0.3:1885", "10.0.0.1:1883",
                                               "10.0.0.2:1884", "10.0.0.3:1885", "10.0.0.1:1883"}));
}

TEST(BrokerList, TheWaitDoublesAfterEachWholeRoundUpToTheCap)
{
    BrokerList list({at("a", 1), at("b", 2)}, 1, 5);
    std::vector<unsigned> waits;
    for (int i = 0; i < 10; ++i) {
        waits.push_back(list.after_attempt(false));
    }
    EXPECT_EQ(waits, (std::vector<unsigned>{1, 1, 2, 2, 4, 4, 5, 5, 5, 5}));
}

TEST(BrokerList, GoingRoundTheListNeverSpins)
{
    BrokerList list({at("a", 1), at("b", 2), at("c", 3), at("d", 4)}, 1, 30);
    unsigned waited_s = 0;
    for (int i = 0; i < 100; ++i) {
        const unsigned wait_s = list.after_attempt(false);
        ASSERT_GE(wait_s, 1u) << "attempt " << i;
        waited_s += wait_s;
    }
    // 4 rounds of 4 at 1, 2, 4, 8, 16 s, then 30 s each: nothing like 100 attempts a second.
    EXPECT_EQ(waited_s, 4u * (1 + 2 + 4 + 8 + 16) + 80u * 30);
}

TEST(BrokerList, ASingleBrokerKeepsTheBackOffTheClientAlwaysHad)
{
    BrokerList list({at("127.0.0.1", 1883)}, 1, 30);
    std::vector<unsigned> waits;
    for (int i = 0; i < 7; ++i) {
        waits.push_back(list.after_attempt(false));
        EXPECT_EQ(list.index(), 0u);
    }
    EXPECT_EQ(waits, (std::vector<unsigned>{1, 2, 4, 8, 16, 30, 30}));
    list.accepted();
    EXPECT_EQ(list.after_attempt(true), 1u);
    EXPECT_EQ(list.after_attempt(false), 2u);
}

TEST(BrokerList, ALostSessionMovesToTheNextBrokerAfterTheFirstBackOffStep)
{
    BrokerList list = three();
    list.after_attempt(false);
    list.after_attempt(false);
    list.after_attempt(false);
    list.after_attempt(false); // the waits are at 2 s now, on the second broker
    ASSERT_EQ(list.index(), 1u);
    list.accepted();
    EXPECT_EQ(list.after_attempt(true), 1u);
    EXPECT_EQ(list.current().name(), "10.0.0.3:1885");
}

TEST(BrokerList, TheBrokerOfTheLostSessionIsTriedLastInTheNextRound)
{
    BrokerList list = three();
    list.accepted();
    std::vector<std::string> tried;
    std::vector<unsigned> waits;
    waits.push_back(list.after_attempt(true));
    for (int i = 0; i < 3; ++i) {
        tried.push_back(list.current().name());
        waits.push_back(list.after_attempt(false));
    }
    EXPECT_EQ(tried, (std::vector<std::string>{"10.0.0.2:1884", "10.0.0.3:1885", "10.0.0.1:1883"}));
    EXPECT_EQ(waits, (std::vector<unsigned>{1, 1, 1, 2}));
}

TEST(BrokerList, StaysOnABrokerThatWorks)
{
    BrokerList list = three();
    list.accepted();
    list.after_attempt(true);
    ASSERT_EQ(list.index(), 1u);
    EXPECT_TRUE(list.accepted());
    // Accepted again on the same broker (a session that ended cleanly and came back): no change, no move.
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(list.accepted());
        EXPECT_EQ(list.index(), 1u);
    }
    EXPECT_EQ(list.changes(), 1u);
}

TEST(BrokerList, TheFirstSessionIsNoChangeOfBroker)
{
    BrokerList list = three();
    EXPECT_EQ(list.in_use(), nullptr);
    EXPECT_FALSE(list.accepted());
    ASSERT_NE(list.in_use(), nullptr);
    EXPECT_EQ(list.in_use()->name(), "10.0.0.1:1883");
    EXPECT_EQ(list.changes(), 0u);
}

TEST(BrokerList, EachMoveToAnotherWorkingBrokerCountsOneChange)
{
    BrokerList list({at("a", 1), at("b", 2)}, 1, 30);
    EXPECT_FALSE(list.accepted());
    list.after_attempt(true);
    EXPECT_TRUE(list.accepted());
    EXPECT_EQ(list.current().name(), "b:2");
    list.after_attempt(true);
    list.after_attempt(false); // a is down too: back round to b
    EXPECT_FALSE(list.accepted());
    list.after_attempt(true);
    EXPECT_TRUE(list.accepted());
    EXPECT_EQ(list.current().name(), "a:1");
    EXPECT_EQ(list.changes(), 2u);
}

TEST(BrokerList, AnAcceptedSessionStartsTheBackOffAnew)
{
    BrokerList list({at("a", 1), at("b", 2)}, 1, 30);
    for (int i = 0; i < 6; ++i) {
        list.after_attempt(false);
    }
    EXPECT_EQ(list.after_attempt(false), 8u);
    list.accepted();
    EXPECT_EQ(list.after_attempt(true), 1u);
    EXPECT_EQ(list.after_attempt(false), 1u);
    EXPECT_EQ(list.after_attempt(false), 2u);
}

TEST(BrokerList, AZeroFirstStepIsTakenAsOneSecond)
{
    BrokerList list({at("a", 1)}, 0, 0);
    EXPECT_EQ(list.after_attempt(false), 1u);
    EXPECT_EQ(list.after_attempt(false), 1u);
}

TEST(BrokerList, AnIpv6AddressIsNamedInBrackets)
{
    EXPECT_EQ(at("::1", 1883).name(), "[::1]:1883");
    EXPECT_EQ(at("broker.example", 8883).name(), "broker.example:8883");
}

} // namespace
