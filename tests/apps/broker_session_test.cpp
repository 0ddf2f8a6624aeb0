#include "common/broker_session.h"

#include <gtest/gtest.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>


namespace {

std::vector<std::string> names(const std::vector<sf_mqtt::Broker> &brokers)
{
    std::vector<std::string> out;
    for (const sf_mqtt::Broker &b : brokers) {
        out.push_back(b.name());
    }
    return out;
}

TEST(BrokersOf, TheDescriptionsListElseItsHostAndPort)
{
    apps::MqttSettings mqtt;
    mqtt.host = "broker";
    mqtt.port = 1999;
    EXPECT_EQ(names(apps::brokers_of(mqtt)), (std::vector<std::string>{"broker:1999"}));
    mqtt.brokers.push_back({"d1", 1884, "", "", "", "", ""});
    mqtt.brokers.push_back({"d2", 0, "", "", "", "", ""});
    mqtt.brokers.push_back({"d3", 0, "", "", "ca.pem", "", ""});
    EXPECT_EQ(names(apps::brokers_of(mqtt)), (std::vector<std::string>{"d1:1884", "d2:1883", "d3:8883"}));
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
    apps::BrokerSession session;
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
