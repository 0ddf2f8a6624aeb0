#include "sfcloud/watch.h"

#include <gtest/gtest.h>

namespace {

apps::Description names()
{
    apps::Description d;
    std::string why;
    EXPECT_TRUE(apps::read_description_text(R"({"gateway":{"id":"gw1"},
        "devices":[{"id":"t1","dps":[{"id":2,"name":"temp","prop":"value","min":0,"max":500,"scale":1},
                                     {"id":4,"name":"mode","prop":"enum","range":["auto","eco"]}]},
                   {"id":"p1"}]})",
                                            "gw.json", &d, &why))
        << why;
    return d;
}

TEST(DeviceTable, FoldsReportsAndPresenceIntoOneLinePerDevice)
{
    const apps::Description d = names();
    sfcloud::DeviceTable table(&d);
    sfcloud::Message m;
    m.kind = sfcloud::Kind::REPORT;
    m.cid = "t1";
    m.dps = {{2, "215"}, {4, "\"eco\""}};
    table.fold(m);
    m.dps = {{2, "220"}};
    table.fold(m);
    sfcloud::Message batch;
    batch.kind = sfcloud::Kind::PRESENCE;
    batch.online = {"t1"};
    batch.offline = {"p1"};
    table.fold(batch);
    EXPECT_EQ("DEVICE       PRESENCE LAST KNOWN VALUES\n"
              "gw1          gateway  \n"
              "t1           online   temp=22.0  mode=eco\n"
              "p1           offline  \n",
              table.render());
}

TEST(DeviceTable, DevicesUnknownToTheDescriptionGetARowWhenTheyFirstAppear)
{
    sfcloud::DeviceTable table(nullptr);
    sfcloud::Message m;
    m.kind = sfcloud::Kind::ANSWER;
    m.cid = "x9";
    m.dps = {{7, "true"}};
    table.fold(m);
    EXPECT_EQ("DEVICE       PRESENCE LAST KNOWN VALUES\n"
              "x9           ?        7=true\n",
              table.render());
}

TEST(DeviceTable, ALateWillOfAnOlderSessionDoesNotMarkTheGatewayDown)
{
    const apps::Description d = names();
    sfcloud::DeviceTable table(&d);
    sfcloud::Message online;
    online.kind = sfcloud::Kind::STATUS;
    online.cid = "gw1";
    online.flag = true;
    online.session = 8;
    table.fold(online);
    sfcloud::Message late_will = online;
    late_will.flag = false;
    late_will.session = 7;
    table.fold(late_will);
    const std::string rest = "t1           ?        \n"
                             "p1           ?        \n";
    EXPECT_EQ("DEVICE       PRESENCE LAST KNOWN VALUES\ngw1          gateway  \n" + rest, table.render());
    sfcloud::Message stop = late_will;
    stop.session = 8;
    table.fold(stop);
    EXPECT_EQ("DEVICE       PRESENCE LAST KNOWN VALUES\ngw1          gw down  \n" + rest, table.render());
}

} // namespace
