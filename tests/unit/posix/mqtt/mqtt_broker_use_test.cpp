/*
 * The MQTT client's broker list built from its settings: the single
 * host/port form, each broker's own credentials over the shared ones,
 * default ports, and the lists it refuses.
 */
#include <gtest/gtest.h>

#include "port/posix/metrics/metrics.h"
#include "port/posix/mqtt/mqtt_client_state.h"

namespace {

using sf_mqtt::Client;

/* A client whose shared settings are set as configure() leaves them before the list. */
void shared(Client *client)
{
    client->host = "127.0.0.1";
    client->port = 1883;
    client->username = "shared-user";
    client->password = "shared-pass";
    client->reconnect_min_s = 1;
    client->reconnect_max_s = 30;
}

TEST(MqttBrokerUse, WithoutAListTheHostAndPortAreTheOnlyBroker)
{
    Client client;
    shared(&client);
    MQC_CONFIG_S cfg{};
    ASSERT_TRUE(sf_mqtt::configure_brokers(&client, &cfg));
    ASSERT_EQ(1u, client.brokers->size());
    EXPECT_EQ("127.0.0.1:1883", client.brokers->current().name());
    EXPECT_EQ("shared-user", client.brokers->current().username);
    EXPECT_EQ("127.0.0.1:1883", sf_metrics::mqtt_broker_in_use());
}

TEST(MqttBrokerUse, EachBrokerTakesItsOwnSettingsOverTheSharedOnes)
{
    Client client;
    shared(&client);
    const MQC_BROKER_S list[] = {{"n1", 1884, nullptr, nullptr, nullptr, nullptr, nullptr},
                                 {"n2", 0, "own-user", "own-pass", nullptr, nullptr, nullptr}};
    MQC_CONFIG_S cfg{};
    cfg.brokers = list;
    cfg.broker_count = 2;
    ASSERT_TRUE(sf_mqtt::configure_brokers(&client, &cfg));
    ASSERT_EQ(2u, client.brokers->size());
    // the client's fields are those of the first broker, tried first
    EXPECT_EQ("n1", client.host);
    EXPECT_EQ(1884, client.port);
    EXPECT_EQ("shared-user", client.username);
    EXPECT_EQ("n1:1884", sf_metrics::mqtt_broker_in_use());
    client.brokers->after_attempt(false);
    EXPECT_EQ("n2:1883", client.brokers->current().name());
    EXPECT_EQ("own-user", client.brokers->current().username);
    EXPECT_EQ("own-pass", client.brokers->current().password);
}

TEST(MqttBrokerUse, ATlsListTakesPort8883ByDefault)
{
    Client client;
    shared(&client);
    client.ca_file = "/etc/ca.pem";
    const MQC_BROKER_S list[] = {{"n1", 0, nullptr, nullptr, nullptr, nullptr, nullptr},
                                 {"n2", 0, nullptr, nullptr, "/etc/other-ca.pem", nullptr, nullptr}};
    MQC_CONFIG_S cfg{};
    cfg.brokers = list;
    cfg.broker_count = 2;
    ASSERT_TRUE(sf_mqtt::configure_brokers(&client, &cfg));
    EXPECT_EQ("n1:8883", client.brokers->current().name());
    EXPECT_EQ("/etc/ca.pem", client.brokers->current().ca_file);
    client.brokers->after_attempt(false);
    EXPECT_EQ("n2:8883", client.brokers->current().name());
    EXPECT_EQ("/etc/other-ca.pem", client.brokers->current().ca_file);
}

TEST(MqttBrokerUse, ABrokerWithoutHostOrAMixOfTlsAndPlainIsRefused)
{
    const MQC_BROKER_S nameless[] = {{"n1", 0, nullptr, nullptr, nullptr, nullptr, nullptr},
                                     {nullptr, 1883, nullptr, nullptr, nullptr, nullptr, nullptr}};
    const MQC_BROKER_S mixed[] = {{"n1", 0, nullptr, nullptr, nullptr, nullptr, nullptr},
                                  {"n2", 0, nullptr, nullptr, "/etc/ca.pem", nullptr, nullptr}};
    for (const MQC_BROKER_S *list : {nameless, mixed}) {
        Client client;
        shared(&client);
        MQC_CONFIG_S cfg{};
        cfg.brokers = list;
        cfg.broker_count = 2;
        EXPECT_FALSE(sf_mqtt::configure_brokers(&client, &cfg));
        EXPECT_EQ(nullptr, client.brokers);
    }
}

} // namespace
