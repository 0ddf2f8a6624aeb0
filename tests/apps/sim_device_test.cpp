#include "sfgw/sim/sim_device.h"

#include <gtest/gtest.h>

namespace {

apps::DeviceDescription thermostat()
{
    apps::Description d;
    std::string why;
    const bool ok = apps::read_description_text(R"({"gateway":{"id":"gw"},"devices":[{"id":"t1","dps":[
        {"id":2,"name":"set","prop":"value","min":50,"max":350},
        {"id":3,"name":"now","mode":"ro","prop":"value","min":-400,"max":1000},
        {"id":4,"name":"mode","prop":"enum","range":["auto","eco"]},
        {"id":5,"name":"lock","mode":"wr","prop":"bool"},
        {"id":6,"name":"blob","type":"raw"}],
        "sim":{"initial":{"set":210,"now":180},"drift":{"dp":"now","toward":"set","step":20,"every_s":3}}}]})",
                                                "gw.json", &d, &why);
    EXPECT_TRUE(ok) << why;
    return d.devices.at(1);
}

TEST(SimDevice, StartsFromDefaultsAndReportsItsInitialValues)
{
    const apps::DeviceDescription description = thermostat(); /* outlives the device */
    sfgw::SimDevice device(description, false);
    EXPECT_EQ("50", device.value_of(2)); /* 0 is below min: the default is clamped into the range */
    EXPECT_EQ("\"auto\"", device.value_of(4));
    EXPECT_EQ("{\"2\":210,\"3\":180}", device.initial_report());
    EXPECT_EQ("210", device.value_of(2));
}

TEST(SimDevice, RestoredStateWinsOverTheStartUpValuesAndIsReportedAtStart)
{
    const apps::DeviceDescription description = thermostat(); /* outlives the device */
    sfgw::SimDevice device(description, false);
    device.restore({{2, "300"}, {4, "\"eco\""}});
    /* the set point kept while the gateway was down, not the description's 210; "now" has no stored value */
    EXPECT_EQ("{\"2\":300,\"3\":180,\"4\":\"eco\"}", device.initial_report());
    EXPECT_EQ("300", device.value_of(2));
    EXPECT_EQ("\"eco\"", device.value_of(4));
}

TEST(SimDevice, ACommandChangesTheDeviceWhichReportsWhatItReports)
{
    const apps::DeviceDescription description = thermostat(); /* outlives the device */
    sfgw::SimDevice device(description, false);
    std::vector<std::string> refused;
    /* read-only DP 3 and a value out of range are refused; write-only DP 5 is applied, never reported */
    EXPECT_EQ("{\"2\":195,\"4\":\"eco\"}",
              device.apply({{2, "195"}, {3, "0"}, {4, "\"eco\""}, {5, "true"}, {2, "999"}}, &refused));
    EXPECT_EQ((std::vector<std::string>{"3", "2"}), refused);
    EXPECT_EQ("195", device.value_of(2));
    EXPECT_EQ("true", device.value_of(5));
    EXPECT_EQ("", device.apply({{3, "1"}}, &refused));
}

TEST(SimDevice, AQueryReportsTheAskedDpsOrAllReportableOnes)
{
    const apps::DeviceDescription description = thermostat(); /* outlives the device */
    sfgw::SimDevice device(description, false);
    device.initial_report();
    EXPECT_EQ("{\"3\":180}", device.report_of({3}));
    EXPECT_EQ("{\"2\":210,\"3\":180,\"4\":\"auto\"}", device.report_of({}));
    EXPECT_EQ("", device.report_of({5, 6}));
}

TEST(SimDevice, TheTemperatureDriftsTowardsTheSetPointAndStops)
{
    const apps::DeviceDescription description = thermostat(); /* outlives the device */
    sfgw::SimDevice device(description, false);
    device.initial_report();
    EXPECT_EQ("{\"3\":200}", device.drift_step());
    EXPECT_EQ("{\"3\":210}", device.drift_step()); /* the last step stops at the set point */
    EXPECT_EQ("", device.drift_step());
    std::vector<std::string> refused;
    device.apply({{2, "190"}}, &refused);
    EXPECT_EQ("{\"3\":190}", device.drift_step());
}

TEST(SimDevice, WithoutASetPointTheValueSwingsBetweenItsLimits)
{
    apps::Description d;
    std::string why;
    ASSERT_TRUE(apps::read_description_text(R"({"gateway":{"id":"gw"},"devices":[{"id":"p","dps":[
        {"id":4,"name":"ma","mode":"ro","prop":"value","min":0,"max":250}],
        "sim":{"drift":{"dp":"ma","step":100}}}]})", "gw.json", &d, &why)) << why;
    sfgw::SimDevice device(d.devices.at(1), false);
    EXPECT_EQ("{\"4\":100}", device.drift_step());
    EXPECT_EQ("{\"4\":200}", device.drift_step());
    EXPECT_EQ("{\"4\":100}", device.drift_step()); /* 300 would pass the maximum: it turns */
    EXPECT_EQ("{\"4\":0}", device.drift_step());
    EXPECT_EQ("{\"4\":100}", device.drift_step());
}

TEST(SimDevice, TheGatewayItselfIsNeverSupervised)
{
    const apps::DeviceDescription description = thermostat();
    sfgw::SimDevice gateway(description, true);
    EXPECT_FALSE(gateway.supervised());
    EXPECT_EQ(0, gateway.settings().heartbeat_s);
    sfgw::SimDevice sub(description, false);
    EXPECT_TRUE(sub.supervised());
}

} // namespace

namespace {

TEST(SimDevice, AQueryIsAnsweredForTheAskedReportedDpsOnly)
{
    const apps::DeviceDescription description = thermostat(); /* outlives the device */
    sfgw::SimDevice device(description, false);
    EXPECT_EQ((std::vector<int>{2, 3, 4}), device.answerable({}));
    /* write-only 5, raw 6 and the unknown 9 are never in an answer */
    EXPECT_EQ((std::vector<int>{3}), device.answerable({3, 5, 6, 9}));
    EXPECT_TRUE(device.answerable({5, 6}).empty());
}

TEST(SimDevice, APassiveDpOfAPreprocessingDeviceIsLeftOutOfAnAnswer)
{
    apps::Description d;
    std::string why;
    ASSERT_TRUE(apps::read_description_text(R"({"gateway":{"id":"gw"},"devices":[{"id":"b1","preprocess":true,"dps":[
        {"id":20,"name":"on","prop":"bool","passive":true},
        {"id":21,"name":"mode","prop":"enum","range":["white","colour"]}]}]})",
                                            "gw.json", &d, &why))
        << why;
    sfgw::SimDevice device(d.devices.at(1), false);
    EXPECT_EQ((std::vector<int>{21}), device.answerable({}));
    EXPECT_EQ((std::vector<int>{21}), device.answerable({20, 21}));
}

} // namespace

namespace {

TEST(SimDevice, StartValuesNameTheRestoredAndStartUpDpsAndTakeTheStartUpValues)
{
    const apps::DeviceDescription description = thermostat(); /* outlives the device */
    sfgw::SimDevice device(description, false);
    device.restore({{4, "\"eco\""}});
    EXPECT_EQ((std::vector<int>{4, 2, 3}), device.start_values());
    EXPECT_EQ("210", device.value_of(2));
    EXPECT_EQ("\"eco\"", device.value_of(4));
    /* a command before the start-up report goes out is what that report then carries */
    std::vector<std::string> refused;
    device.apply({{2, "250"}}, &refused);
    EXPECT_EQ("{\"2\":250,\"3\":180,\"4\":\"eco\"}", device.report_of({4, 2, 3}));
}

} // namespace
