#include "common/description.h"
#include "gateway/registry/gw_registry.h"

#include <gtest/gtest.h>

#include <set>

namespace {

const char *const SAMPLE = R"({
  "connection": { "mqtt": { "host": "broker", "port": 1884, "reconnect_max_s": 2 }, "lan": { "port": 0 } },
  "gateway": { "id": "gw1", "local_key": "k1", "dps": [ { "id": 1, "prop": "bool" } ] },
  "devices": [
    { "id": "t1",
      "dps": [ { "id": 2, "name": "set", "prop": "value", "min": 0, "max": 300, "scale": 1 },
               { "id": 3, "name": "now", "mode": "ro", "prop": "value", "min": 0, "max": 300 } ],
      "sim": { "kind": "thermostat", "heartbeat_s": 5, "hb_timeout_s": 90, "probe_limit": 3,
               "initial": { "set": 200 }, "drift": { "dp": "now", "toward": "set", "step": 2, "every_s": 4 } } }
  ]
})";

TEST(Description, ReadsConnectionAndSimulationAndTheRegistrysModelFromOneParse)
{
    apps::Description d;
    std::string why;
    ASSERT_TRUE(apps::read_description_text(SAMPLE, "gw.json", &d, &why)) << why;
    EXPECT_EQ("gw1", d.gateway_id);
    EXPECT_EQ("k1", d.local_key);
    EXPECT_EQ("broker", d.mqtt.host);
    EXPECT_EQ(1884, d.mqtt.port);
    EXPECT_EQ(2, d.mqtt.reconnect_max_s);
    EXPECT_EQ(0, d.lan.port);
    ASSERT_EQ(2u, d.devices.size());
    const apps::DeviceDescription *t1 = d.find("t1");
    ASSERT_NE(nullptr, t1);
    EXPECT_TRUE(t1->has_sim);
    EXPECT_EQ("thermostat", t1->sim.kind);
    EXPECT_EQ(5, t1->sim.heartbeat_s);
    EXPECT_EQ(90, t1->sim.hb_timeout_s);
    EXPECT_EQ(3, t1->sim.probe_limit);
    ASSERT_EQ(1u, t1->sim.initial.size());
    EXPECT_EQ(2, t1->sim.initial[0].first);
    EXPECT_EQ("200", t1->sim.initial[0].second);
    EXPECT_TRUE(t1->sim.has_drift);
    EXPECT_EQ(3, t1->sim.drift.dp);
    EXPECT_EQ(2, t1->sim.drift.toward);
    EXPECT_EQ(2, t1->sim.drift.step);
    EXPECT_EQ(4, t1->sim.drift.every_s);
    EXPECT_EQ("gw1", d.layout.id);
    EXPECT_EQ("k1", d.layout.local_key);
    ASSERT_EQ(1u, d.layout.devices.size());
    ASSERT_EQ(2u, d.layout.devices[0].dps.size());
    EXPECT_EQ(300, d.layout.devices[0].dps[0].limits.prop_value.max);
    EXPECT_EQ(1, d.layout.devices[0].dps[0].limits.prop_value.scale);
}

TEST(Description, TheMqttProtocolIsReadAndAnyOtherVersionIsRefused)
{
    apps::Description d;
    std::string why;
    ASSERT_TRUE(apps::read_description_text(
        R"({"connection":{"mqtt":{"protocol":311}},"gateway":{"id":"g"},"devices":[{"id":"a"}]})", "f", &d, &why))
        << why;
    EXPECT_EQ(311, d.mqtt.protocol);
    apps::Description bad;
    EXPECT_FALSE(apps::read_description_text(
        R"({"connection":{"mqtt":{"protocol":4}},"gateway":{"id":"g"},"devices":[{"id":"a"}]})", "f", &bad, &why));
    EXPECT_EQ("f: connection.mqtt.protocol: expected 5 or 311, got 4", why);
}

std::string error_of(const std::string &text)
{
    apps::Description d;
    std::string why;
    EXPECT_FALSE(apps::read_description_text(text, "gw.json", &d, &why));
    return why;
}

TEST(Description, SessionAndCommandSettingsAreReadAndCheckedForRange)
{
    apps::Description d;
    std::string why;
    ASSERT_TRUE(apps::read_description_text(
        R"({"connection":{"mqtt":{"persistent_session":false,"session_expiry_s":600,"takeover_backoff_s":9},
            "commands":{"max_age_s":0,"journal":false}},"gateway":{"id":"g"},"devices":[{"id":"a"}]})",
        "f", &d, &why))
        << why;
    EXPECT_FALSE(d.mqtt.persistent_session);
    EXPECT_EQ(600, d.mqtt.session_expiry_s);
    EXPECT_EQ(9, d.mqtt.takeover_backoff_s);
    EXPECT_EQ(0, d.commands.max_age_s);
    EXPECT_FALSE(d.commands.journal);
    EXPECT_EQ("gw.json: connection.mqtt.session_expiry_s: out of range (1..4294967294): 0",
              error_of(R"({"connection":{"mqtt":{"session_expiry_s":0}},"gateway":{"id":"g"}})"));
    EXPECT_EQ("gw.json: connection.commands.max_age_s: out of range (0..31536000): -1",
              error_of(R"({"connection":{"commands":{"max_age_s":-1}},"gateway":{"id":"g"}})"));
    EXPECT_EQ("gw.json: connection.commands.journal: expected true or false",
              error_of(R"({"connection":{"commands":{"journal":1}},"gateway":{"id":"g"}})"));
    EXPECT_EQ("gw.json: connection.commands.replay: unknown key",
              error_of(R"({"connection":{"commands":{"replay":true}},"gateway":{"id":"g"}})"));
}

TEST(Description, DefaultsApplyWithoutTheAppsSections)
{
    apps::Description d;
    std::string why;
    ASSERT_TRUE(apps::read_description_text(R"({"gateway":{"id":"g"},"devices":[{"id":"a"}]})", "f", &d, &why));
    EXPECT_EQ("127.0.0.1", d.mqtt.host);
    EXPECT_EQ(0, d.mqtt.port); /* not set: 1883, or 8883 with ca_file (common/broker_port.h) */
    EXPECT_EQ("sf", d.mqtt.topic_root);
    EXPECT_EQ(6668, d.lan.port);
    EXPECT_FALSE(d.lan.plain); // TLS unless the description says otherwise
    EXPECT_FALSE(d.lan.allow_plain_on_network);
    EXPECT_TRUE(d.mqtt.persistent_session);
    EXPECT_EQ(0, d.mqtt.session_expiry_s) << "the client's default, one day";
    EXPECT_EQ(-1, d.commands.max_age_s) << "the edge's default, SF_COMMAND_MAX_AGE_S";
    EXPECT_TRUE(d.commands.journal);
    EXPECT_FALSE(d.devices[1].has_sim);
    EXPECT_EQ(10, d.devices[1].sim.heartbeat_s);
    EXPECT_EQ(60, d.devices[1].sim.hb_timeout_s);
}

/* The LAN settings of a description whose connection.lan is lan, which must be accepted. */
apps::LanSettings lan_of(const std::string &lan)
{
    apps::Description d;
    std::string why;
    EXPECT_TRUE(apps::read_description_text(
        R"({"connection":{"lan":)" + lan + R"(},"gateway":{"id":"g"},"devices":[{"id":"a"}]})", "f", &d, &why))
        << why;
    return d.lan;
}

TEST(Description, PlainLanIsTakenOnLoopbackAndBeyondItOnlyWithTheOperatorsConsent)
{
    EXPECT_TRUE(lan_of(R"({"bind_addr":"127.0.0.2","security":"plain"})").plain);
    const apps::LanSettings network =
        lan_of(R"({"bind_addr":"192.168.1.5","security":"plain","allow_plain_on_network":true})");
    EXPECT_TRUE(network.plain);
    EXPECT_TRUE(network.allow_plain_on_network);
    EXPECT_FALSE(lan_of(R"({"bind_addr":"0.0.0.0","security":"tls"})").plain);
}

TEST(Description, ErrorsNameTheFileTheKeyPathAndWhy)
{
    EXPECT_EQ("gw.json: not valid JSON (near line 2, column 2)", error_of("{\n]"));
    EXPECT_EQ("gw.json: document: expected an object", error_of("[]"));
    EXPECT_EQ("gw.json: connection.lan.port: out of range (0..65535): 70000",
              error_of(R"({"connection":{"lan":{"port":70000}},"gateway":{"id":"g"}})"));
    EXPECT_EQ("gw.json: connection.tls: unknown key", error_of(R"({"connection":{"tls":{}},"gateway":{"id":"g"}})"));
    EXPECT_EQ("gw.json: connection.lan.security: \"plain\" on 192.168.1.5 would send the local key and every frame "
              "readable on the network: use \"tls\", or set connection.lan.allow_plain_on_network to true to accept it",
              error_of(R"({"connection":{"lan":{"bind_addr":"192.168.1.5","security":"plain"}},"gateway":{"id":"g"}})"));
    EXPECT_EQ("gw.json: connection.lan.security: expected \"tls\" or \"plain\", got \"none\"",
              error_of(R"({"connection":{"lan":{"security":"none"}},"gateway":{"id":"g"}})"));
    EXPECT_EQ("gw.json: devices[0].sim.heartbeat_s: not below hb_timeout_s: the device would look silent",
              error_of(R"({"gateway":{"id":"g"},"devices":[{"id":"a","sim":{"heartbeat_s":60}}]})"));
    EXPECT_EQ("gw.json: devices[0].sim.raw_sample.dp: a raw sample needs a raw DP",
              error_of(R"({"gateway":{"id":"g"},"devices":[{"id":"a","dps":[{"id":1,"prop":"bool"}],
                          "sim":{"raw_sample":{"dp":1}}}]})"));
    EXPECT_EQ("gw.json: gateway.sim.heartbeat_s: unknown key",
              error_of(R"({"gateway":{"id":"g","sim":{"heartbeat_s":5}}})"));
}

TEST(Description, TheRegistryLeavesTheAppsSectionsToTheApps)
{
    gw_desc::Json root(cJSON_Parse(SAMPLE));
    ASSERT_NE(nullptr, root);
    gw_registry::LoadError error;
    EXPECT_FALSE(gw_registry::load_document(root.get(), "gw.json", {}, &error));
    EXPECT_EQ("gw.json: connection: unknown key", error.text());
    ASSERT_TRUE(gw_registry::load_document(root.get(), "gw.json", apps::apps_sections(), &error)) << error.text();
    EXPECT_EQ(2u, gw_registry::device_count());
    EXPECT_EQ("k1", gw_registry::local_key());
    gw_registry::unload();
}

TEST(Description, AMissingFileSaysWhy)
{
    apps::Description d;
    std::string why;
    EXPECT_FALSE(apps::read_description("/nonexistent/gw.json", &d, &why));
    EXPECT_EQ("/nonexistent/gw.json: cannot read the file: No such file or directory", why);
}

TEST(Description, TheExampleDescriptionCoversEveryDpKind)
{
    apps::Description d;
    std::string why;
    ASSERT_TRUE(apps::read_description(SF_SOURCE_DIR "/examples/gateway.json", &d, &why)) << why;
    std::set<std::string> kinds;
    bool passive = false;
    bool flow = false;
    for (const apps::DeviceDescription &device : d.devices) {
        for (const apps::DpSchema &dp : device.schema.dps) {
            kinds.insert(dp.type == "obj" ? dp.prop : dp.type);
            passive = passive || dp.passive;
            flow = flow || dp.has_flow;
        }
    }
    EXPECT_EQ((std::set<std::string>{"bool", "value", "str", "enum", "bitmap", "raw", "file"}), kinds);
    EXPECT_TRUE(passive);
    EXPECT_TRUE(flow);
    EXPECT_GE(d.devices.size(), 5u);
}

} // namespace

namespace {

bool read_mqtt_text(const std::string &mqtt, apps::Description *d, std::string *why)
{
    return apps::read_description_text(R"({"connection":{"mqtt":)" + mqtt +
                                           R"(},"gateway":{"id":"g"},"devices":[{"id":"a"}]})",
                                       "f", d, why);
}

TEST(DescriptionBrokers, AListOfBrokersIsReadInOrderWithItsOwnSettings)
{
    apps::Description d;
    std::string why;
    ASSERT_TRUE(read_mqtt_text(R"({"username":"u","brokers":[{"host":"n1","port":1884},
        {"host":"n2","port":1885,"username":"u2","password":"p2"},{"host":"n3"}]})", &d, &why)) << why;
    ASSERT_EQ(3u, d.mqtt.brokers.size());
    EXPECT_EQ("n1", d.mqtt.brokers[0].host);
    EXPECT_EQ(1884, d.mqtt.brokers[0].port);
    EXPECT_EQ("", d.mqtt.brokers[0].username);
    EXPECT_EQ("u2", d.mqtt.brokers[1].username);
    EXPECT_EQ("p2", d.mqtt.brokers[1].password);
    EXPECT_EQ("n3", d.mqtt.brokers[2].host);
    EXPECT_EQ(0, d.mqtt.brokers[2].port);
    EXPECT_EQ("u", d.mqtt.username);
}

TEST(DescriptionBrokers, TheSingleHostAndPortFormLeavesTheListEmpty)
{
    apps::Description d;
    std::string why;
    ASSERT_TRUE(read_mqtt_text(R"({"host":"b","port":1999})", &d, &why)) << why;
    EXPECT_TRUE(d.mqtt.brokers.empty());
    EXPECT_EQ("b", d.mqtt.host);
}

TEST(DescriptionBrokers, BadListsAreRefusedWithTheirKeyPath)
{
    const struct {
        const char *mqtt;
        const char *error;
    } cases[] = {
        {R"({"brokers":[]})", "f: connection.mqtt.brokers: expected a non-empty array of brokers"},
        {R"({"brokers":{"host":"a"}})", "f: connection.mqtt.brokers: expected a non-empty array of brokers"},
        {R"({"brokers":[{"host":"a"},{"port":1}]})", "f: connection.mqtt.brokers[1].host: missing key"},
        {R"({"brokers":[{"host":""}]})", "f: connection.mqtt.brokers[0].host: empty"},
        {R"({"brokers":[{"host":"a","port":70000}]})",
         "f: connection.mqtt.brokers[0].port: out of range (1..65535): 70000"},
        {R"({"brokers":[{"host":"a","tls":true}]})", "f: connection.mqtt.brokers[0].tls: unknown key"},
        {R"({"host":"a","brokers":[{"host":"b"}]})",
         "f: connection.mqtt.brokers: not with host or port (name every broker in the list)"},
    };
    for (const auto &c : cases) {
        apps::Description d;
        std::string why;
        EXPECT_FALSE(read_mqtt_text(c.mqtt, &d, &why)) << c.mqtt;
        EXPECT_EQ(c.error, why) << c.mqtt;
    }
}

} // namespace
