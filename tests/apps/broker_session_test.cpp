#include "sfcloud/broker_session.h"

#include <gtest/gtest.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "sfcloud/options.h"

namespace {

std::vector<std::string> names(const std::vector<sf_mqtt::Broker> &brokers)
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
    EXPECT_EQ(names(sfcloud::broker_list(options, defaults)), (std::vector<std::string>{"n2:1884", "n1:1883"}));
}

TEST(ConsoleBrokerList, HostAndPortNameOneBrokerAndReplaceTheDescriptionsList)
{
    sfcloud::Options options;
    options.port = 1999;
    apps::MqttSettings defaults;
    defaults.host = "broker";
    defaults.brokers.push_back({"d1", 1884, "", "", "", "", ""});
    EXPECT_EQ(names(sfcloud::broker_list(options, defaults)), (std::vector<std::string>{"broker:1999"}));
}

TEST(ConsoleBrokerList, TheDescriptionsListIsUsedWhenTheCommandLineNamesNoBroker)
{
    sfcloud::Options options;
    apps::MqttSettings defaults;
    defaults.brokers.push_back({"d1", 1884, "", "", "", "", ""});
    defaults.brokers.push_back({"d2", 0, "", "", "", "", ""});
    EXPECT_EQ(names(sfcloud::broker_list(options, defaults)), (std::vector<std::string>{"d1:1884", "d2:1883"}));
    EXPECT_EQ(names(sfcloud::broker_list(options, apps::MqttSettings())),
              (std::vector<std::string>{"127.0.0.1:1883"}));
}

/* A loopback port nobody listens on: bound, then closed. */
int closed_port()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

TEST(BrokerSession, WhenEveryBrokerRefusesTheFirstWaitEndsAfterOneRoundNamingTheLastFailure)
{
    mosquitto_lib_init();
    mosquitto *mosq = mosquitto_new(nullptr, true, nullptr);
    ASSERT_NE(nullptr, mosq);
    sf_mqtt::Broker a;
    a.host = "127.0.0.1";
    a.port = closed_port();
    sf_mqtt::Broker b = a;
    b.port = closed_port();
    sfcloud::BrokerSession session;
    const auto started = std::chrono::steady_clock::now();
    session.start(mosq, {a, b});
    std::string why;
    EXPECT_FALSE(session.wait_first(started + std::chrono::seconds(30), &why));
    // one wait of the first back-off step between the two, not the whole 30 s
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
    EXPECT_EQ("cannot connect to the MQTT broker at " + b.name() + ": Connection refused", why);
    EXPECT_EQ("", session.broker());
    session.stop();
    mosquitto_destroy(mosq);
}

} // namespace
