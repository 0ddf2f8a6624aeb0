#include "sfcloud/uplink.h"

#include <gtest/gtest.h>

namespace {

const apps::Topics TOPICS{"sf", "gw1"};

apps::Description names()
{
    apps::Description d;
    std::string why;
    EXPECT_TRUE(apps::read_description_text(R"({"gateway":{"id":"gw1","dps":[{"id":1,"name":"siren","prop":"bool"}]},
        "devices":[{"id":"t1","dps":[{"id":2,"name":"temp","prop":"value","min":0,"max":500,"scale":1}]}]})",
                                            "gw.json", &d, &why))
        << why;
    return d;
}

sfcloud::Message up(const std::string &payload)
{
    sfcloud::Message m;
    EXPECT_TRUE(sfcloud::decode_mqtt(TOPICS, "sf/gw1/up", payload, "gw1", &m));
    return m;
}

TEST(Uplink, AReportIsShownWithDeviceAndDpNames)
{
    const apps::Description d = names();
    const sfcloud::Message m = up(R"({"serno":17,"pro":4,"data":{"dps":{"2":215},"cid":"t1"}})");
    EXPECT_EQ(sfcloud::Kind::REPORT, m.kind);
    EXPECT_EQ("#17 report   t1 temp=21.5", sfcloud::describe(m, &d));
    EXPECT_EQ(R"({"kind":"report","serno":17,"pro":4,"cid":"t1","dps":{"temp":215}})", sfcloud::to_json(m, &d));
}

TEST(Uplink, TheGatewaysOwnDpsCarryNoCid)
{
    const apps::Description d = names();
    const sfcloud::Message m = up(R"({"serno":3,"pro":16,"data":{"dps":{"1":true}}})");
    EXPECT_EQ(sfcloud::Kind::ANSWER, m.kind);
    EXPECT_EQ("gw1", m.cid);
    EXPECT_EQ(0u, sfcloud::describe(m, &d).find("#3 answer   gw1 siren=true"));
}

TEST(Uplink, PresenceGroupAndSceneAnswersAreDecoded)
{
    sfcloud::Message m = up(R"({"serno":5,"pro":25,"data":{"offline":["t1"]}})");
    EXPECT_EQ("#5 presence online: -   offline: t1", sfcloud::describe(m, nullptr));
    m = up(R"({"serno":6,"pro":203,"data":{"action":0,"rets":[0,-1],"gid":"5"}})");
    EXPECT_EQ(R"({"kind":"group","serno":6,"pro":203,"action":0,"gid":"5","rets":[0,-1]})", sfcloud::to_json(m, nullptr));
    EXPECT_EQ("#6 group    add group 5: results 0 -1 (in the order of the command's cids)", sfcloud::describe(m, nullptr));
    m = up(R"({"serno":7,"pro":205,"data":{"action":1,"cids":["t1"],"rets":[0],"sid":"01","gid":"5"}})");
    EXPECT_EQ("#7 scene    del scene 01 of group 5: t1=0", sfcloud::describe(m, nullptr));
}

TEST(Uplink, SimulatorEventsAndStatusAreDecoded)
{
    sfcloud::Message m;
    ASSERT_TRUE(sfcloud::decode_mqtt(TOPICS, "sf/gw1/sim/event", R"({"event":"probe","cid":"t1","answered":false})",
                                     "gw1", &m));
    EXPECT_EQ("-- probe    t1 did not answer the heartbeat probe (silent)", sfcloud::describe(m, nullptr));
    ASSERT_TRUE(sfcloud::decode_mqtt(TOPICS, "sf/gw1/status", R"({"online":false})", "gw1", &m));
    EXPECT_EQ(R"({"kind":"status","cid":"gw1","online":false})", sfcloud::to_json(m, nullptr));
    EXPECT_FALSE(sfcloud::decode_mqtt(TOPICS, "sf/other/up", R"({"pro":4})", "gw1", &m));
    EXPECT_FALSE(sfcloud::decode_mqtt(TOPICS, "sf/gw1/up", "not json", "gw1", &m));
}

TEST(Uplink, AStatusCarriesItsSessionAndAnOlderOneIsIgnored)
{
    sfcloud::Message m;
    ASSERT_TRUE(sfcloud::decode_mqtt(TOPICS, "sf/gw1/status", R"({"online":true,"session":12})", "gw1", &m));
    EXPECT_TRUE(m.flag);
    EXPECT_EQ(12, m.session);
    long long newest = 0;
    EXPECT_TRUE(sfcloud::status_is_current(12, &newest));
    EXPECT_FALSE(sfcloud::status_is_current(11, &newest)) << "the late will of session 11";
    EXPECT_EQ(12, newest);
    EXPECT_TRUE(sfcloud::status_is_current(12, &newest)) << "the same session's offline status counts";
    EXPECT_TRUE(sfcloud::status_is_current(13, &newest));
    EXPECT_EQ(13, newest);
}

TEST(Uplink, LanFramesAreDecodedLikeTheirMqttCounterparts)
{
    sfcloud::Message m;
    ASSERT_TRUE(sfcloud::decode_lan(R"({"type":4,"serno":9,"data":{"dps":{"2":100},"cid":"t1"}})", "gw1", &m));
    EXPECT_EQ(sfcloud::Kind::REPORT, m.kind);
    EXPECT_EQ("100", m.dps.at(2));
    ASSERT_TRUE(sfcloud::decode_lan(R"({"type":208,"flag":0,"data":{"action":0,"rets":[0],"gid":"5"}})", "gw1", &m));
    EXPECT_EQ(sfcloud::Kind::GROUP, m.kind);
    EXPECT_FALSE(sfcloud::decode_lan("[1]", "gw1", &m));
}

} // namespace
