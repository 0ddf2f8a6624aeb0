#include <gtest/gtest.h>

#include "sfcloud/options.h"
#include "sfgw/options.h"

namespace {

TEST(GatewayOptions, OverridesAndTheDescriptionAreRead)
{
    sfgw::Options o;
    std::string why;
    ASSERT_TRUE(sfgw::parse_options({"--mqtt-port", "1884", "gw.json", "--lan-port", "0", "--log-level", "detail"}, &o, &why))
        << why;
    EXPECT_EQ("gw.json", o.description);
    EXPECT_EQ(1884, o.mqtt_port);
    EXPECT_EQ(0, o.lan_port);
    EXPECT_EQ(5, o.log_level);
}

TEST(GatewayOptions, TheMqttProtocolIsFiveOrThreeOneOneAndNothingElse)
{
    sfgw::Options unset;
    sfgw::Options v311;
    sfgw::Options v5;
    sfgw::Options bad;
    std::string why;
    ASSERT_TRUE(sfgw::parse_options({"gw.json"}, &unset, &why)) << why;
    ASSERT_TRUE(sfgw::parse_options({"--mqtt-protocol", "311", "gw.json"}, &v311, &why)) << why;
    ASSERT_TRUE(sfgw::parse_options({"--mqtt-protocol", "5", "gw.json"}, &v5, &why)) << why;
    EXPECT_EQ(0, unset.mqtt_protocol);
    EXPECT_EQ(311, v311.mqtt_protocol);
    EXPECT_EQ(5, v5.mqtt_protocol);
    EXPECT_FALSE(sfgw::parse_options({"--mqtt-protocol", "4", "gw.json"}, &bad, &why));
    EXPECT_EQ("--mqtt-protocol: expected 5 or 311, got 4", why);
}

TEST(GatewayOptions, CommandsAreCheckedAtTheEdgeUnlessLenientIsAsked)
{
    sfgw::Options checked;
    sfgw::Options lenient;
    std::string why;
    ASSERT_TRUE(sfgw::parse_options({"gw.json"}, &checked, &why)) << why;
    ASSERT_TRUE(sfgw::parse_options({"--lenient-commands", "gw.json"}, &lenient, &why)) << why;
    EXPECT_FALSE(checked.lenient_commands);
    EXPECT_TRUE(lenient.lenient_commands);
}

TEST(GatewayOptions, BadCommandLinesAreRefusedWithAReason)
{
    sfgw::Options o;
    std::string why;
    EXPECT_FALSE(sfgw::parse_options({"--mqtt-port", "0", "gw.json"}, &o, &why));
    EXPECT_EQ("--mqtt-port: expected a port number, got 0", why);
    sfgw::Options o2;
    EXPECT_FALSE(sfgw::parse_options({"a.json", "b.json"}, &o2, &why));
    EXPECT_EQ("one description only (got a.json and b.json)", why);
    sfgw::Options o3;
    EXPECT_FALSE(sfgw::parse_options({"gw.json", "--connect-timeout"}, &o3, &why));
    EXPECT_EQ("--connect-timeout: expected seconds", why);
}

TEST(GatewayOptions, TheStateFileHasAGatewayDefaultAndCanBeChangedOrLeftOut)
{
    sfgw::Options o;
    std::string why;
    ASSERT_TRUE(sfgw::parse_options({"gw.json"}, &o, &why)) << why;
    EXPECT_EQ("/var/lib/sfgw/state.db", o.state_file);
    EXPECT_FALSE(o.no_state);
    EXPECT_EQ(200, o.state_interval_ms);
    EXPECT_EQ(0, o.connect_timeout_s); /* no waiting for the broker unless asked */
    EXPECT_NE(std::string::npos, std::string(sfgw::usage_text()).find("(default /var/lib/sfgw/state.db;"));
    sfgw::Options o2;
    ASSERT_TRUE(sfgw::parse_options({"--state", "/tmp/s.db", "--state-interval", "50", "gw.json", "--no-state"}, &o2,
                                    &why))
        << why;
    EXPECT_EQ("/tmp/s.db", o2.state_file);
    EXPECT_EQ(50, o2.state_interval_ms);
    EXPECT_TRUE(o2.no_state);
    sfgw::Options o3;
    EXPECT_FALSE(sfgw::parse_options({"--state-interval", "5", "gw.json"}, &o3, &why));
    EXPECT_EQ("--state-interval: expected milliseconds (20..60000), got 5", why);
    sfgw::Options o4;
    EXPECT_FALSE(sfgw::parse_options({"gw.json", "--state"}, &o4, &why));
    EXPECT_EQ("--state: expected a file name", why);
}

TEST(GatewayOptions, LogLevelsAreNumbersOrNames)
{
    EXPECT_EQ(0, sfgw::parse_log_level("error"));
    EXPECT_EQ(4, sfgw::parse_log_level("progress"));
    EXPECT_EQ(3, sfgw::parse_log_level("3"));
    EXPECT_EQ(-1, sfgw::parse_log_level("6"));
    EXPECT_EQ(-1, sfgw::parse_log_level("loud"));
}

TEST(ConsoleOptions, OptionsMayStandAnywhereAroundTheCommand)
{
    sfcloud::Options o;
    std::string why;
    ASSERT_TRUE(sfcloud::parse_options({"set", "--json", "plug01", "switch=on", "--timeout", "3"}, &o, &why)) << why;
    EXPECT_TRUE(o.json);
    EXPECT_EQ(3, o.timeout_s);
    EXPECT_EQ((std::vector<std::string>{"set", "plug01", "switch=on"}), o.words);
}

TEST(ConsoleOptions, BadCommandLinesAreRefusedWithAReason)
{
    sfcloud::Options o;
    std::string why;
    EXPECT_FALSE(sfcloud::parse_options({"watch", "--count"}, &o, &why));
    EXPECT_EQ("--count: expected a value", why);
    sfcloud::Options o2;
    EXPECT_FALSE(sfcloud::parse_options({"--timeout", "0", "watch"}, &o2, &why));
    EXPECT_EQ("--timeout: expected a number from 1 to 3600, got 0", why);
    sfcloud::Options o3;
    EXPECT_FALSE(sfcloud::parse_options({"--json"}, &o3, &why));
    EXPECT_EQ("missing the command", why);
}

} // namespace

namespace {

TEST(GatewayBrokerOptions, RepeatedBrokersAreKeptInTheOrderGiven)
{
    sfgw::Options o;
    std::string why;
    ASSERT_TRUE(sfgw::parse_options({"--mqtt-broker", "n1:1883", "gw.json", "--mqtt-broker", "[::1]:1884"}, &o, &why))
        << why;
    ASSERT_EQ(2u, o.mqtt_brokers.size());
    EXPECT_EQ("n1", o.mqtt_brokers[0].first);
    EXPECT_EQ(1883, o.mqtt_brokers[0].second);
    EXPECT_EQ("::1", o.mqtt_brokers[1].first);
    EXPECT_EQ(1884, o.mqtt_brokers[1].second);
}

TEST(GatewayBrokerOptions, ABadBrokerOrOneWithTheSingleFormIsRefused)
{
    sfgw::Options o1;
    sfgw::Options o2;
    std::string why;
    EXPECT_FALSE(sfgw::parse_options({"--mqtt-broker", "n1", "gw.json"}, &o1, &why));
    EXPECT_EQ("--mqtt-broker: expected HOST:PORT ([ADDRESS]:PORT for IPv6), got n1", why);
    EXPECT_FALSE(sfgw::parse_options({"--mqtt-broker", "n1:1", "--mqtt-port", "1884", "gw.json"}, &o2, &why));
    EXPECT_EQ("--mqtt-broker: not with --mqtt-host or --mqtt-port (name every broker with --mqtt-broker)", why);
}

} // namespace

namespace {

std::vector<std::string> broker_names(const std::vector<sf_mqtt::Broker> &brokers)
{
    std::vector<std::string> out;
    for (const sf_mqtt::Broker &b : brokers) {
        out.push_back(b.name());
    }
    return out;
}

TEST(ConsoleBrokerList, BrokerOptionsComeFirstInTheOrderGiven)
{
    sfcloud::Options options;
    options.brokers = {{"n2", 1884}, {"n1", 1883}};
    apps::MqttSettings defaults;
    defaults.brokers.push_back({"d1", 1999, "", "", "", "", ""});
    EXPECT_EQ(broker_names(sfcloud::broker_list(options, defaults)), (std::vector<std::string>{"n2:1884", "n1:1883"}));
}

TEST(ConsoleBrokerList, HostAndPortNameOneBrokerAndReplaceTheDescriptionsList)
{
    sfcloud::Options options;
    options.port = 1999;
    apps::MqttSettings defaults;
    defaults.host = "broker";
    defaults.brokers.push_back({"d1", 1884, "", "", "", "", ""});
    EXPECT_EQ(broker_names(sfcloud::broker_list(options, defaults)), (std::vector<std::string>{"broker:1999"}));
}

TEST(ConsoleBrokerList, TheDescriptionsListIsUsedWhenTheCommandLineNamesNoBroker)
{
    sfcloud::Options options;
    apps::MqttSettings defaults;
    defaults.brokers.push_back({"d1", 1884, "", "", "", "", ""});
    defaults.brokers.push_back({"d2", 0, "", "", "", "", ""});
    EXPECT_EQ(broker_names(sfcloud::broker_list(options, defaults)), (std::vector<std::string>{"d1:1884", "d2:1883"}));
    EXPECT_EQ(broker_names(sfcloud::broker_list(options, apps::MqttSettings())),
              (std::vector<std::string>{"127.0.0.1:1883"}));
}

} // namespace
