#include <gtest/gtest.h>

#include <string>

#include "gateway/registry/gw_registry.h"

namespace {

/* Load a description expected to be refused; returns the error text. */
std::string refusal(const std::string &json)
{
    gw_registry::LoadError error;
    EXPECT_FALSE(gw_registry::load_text(json, "gw.json", &error));
    EXPECT_FALSE(gw_registry::loaded());
    EXPECT_EQ(nullptr, get_gw_cntl()->dev);
    return error.text();
}

/* A gateway with one sub-device whose single DP is the given object. */
std::string with_dp(const std::string &dp)
{
    return R"({"gateway":{"id":"gw"},"devices":[{"id":"d1","dps":[)" + dp + "]}]}";
}

TEST(RegistryLoader, MinimalGatewayLoadsWithDefaults)
{
    gw_registry::LoadError error;
    ASSERT_TRUE(gw_registry::load_text(R"({"gateway":{"id":"gw"}})", "gw.json", &error)) << error.text();
    DEV_CNTL_N_S *own = get_gw_dev_cntl();
    ASSERT_NE(nullptr, own);
    EXPECT_EQ(0, own->dp_num);
    EXPECT_EQ(TRUE, own->dev_if.bind);
    EXPECT_EQ("", gw_registry::local_key());
    gw_registry::unload();
}

TEST(RegistryLoader, DpDefaultsAreReadWriteObjectOnChangeNotPassive)
{
    gw_registry::LoadError error;
    ASSERT_TRUE(gw_registry::load_text(with_dp(R"({"id":3,"prop":"bitmap"})"), "gw.json", &error)) << error.text();
    const DP_CNTL_S *dp = get_dev_dp_cntl("d1", 3);
    ASSERT_NE(nullptr, dp);
    EXPECT_EQ(DP_MODE_RW, dp->dp_desc.mode);
    EXPECT_EQ(DP_TYPE_OBJ, dp->dp_desc.type);
    EXPECT_EQ(TRIG_ON_CHANGE, dp->dp_desc.trig_t);
    EXPECT_EQ(PSV_NONE, dp->dp_desc.passive);
    EXPECT_EQ(0, dp->dp_desc.stat);
    EXPECT_EQ(32u, dp->prop.prop_bitmap.max_len);
    EXPECT_EQ(0, dp->rept_cntl.cir_time);
    gw_registry::unload();
}

TEST(RegistryLoader, NotJsonNamesTheLineAndColumn)
{
    EXPECT_EQ("gw.json: not valid JSON (near line 2, column 4)", refusal("{\n  ]"));
}

TEST(RegistryLoader, TopLevelMustBeAnObjectWithAGateway)
{
    EXPECT_EQ("gw.json: expected an object", refusal("[]"));
    EXPECT_EQ("gw.json: gateway: missing key", refusal("{}"));
    EXPECT_EQ("gw.json: gateway: expected an object", refusal(R"({"gateway":3})"));
    EXPECT_EQ("gw.json: devices: expected an array", refusal(R"({"gateway":{"id":"gw"},"devices":{}})"));
    EXPECT_EQ("gw.json: extra: unknown key", refusal(R"({"gateway":{"id":"gw"},"extra":1})"));
}

TEST(RegistryLoader, GatewayKeysAreChecked)
{
    EXPECT_EQ("gw.json: gateway.id: missing key", refusal(R"({"gateway":{}})"));
    EXPECT_EQ("gw.json: gateway.id: expected a string", refusal(R"({"gateway":{"id":7}})"));
    EXPECT_EQ("gw.json: gateway.id: length 26 outside 1..25",
              refusal(R"({"gateway":{"id":"abcdefghijklmnopqrstuvwxyz"}})"));
    EXPECT_EQ("gw.json: gateway.local_key: expected a string", refusal(R"({"gateway":{"id":"gw","local_key":1}})"));
    EXPECT_EQ("gw.json: gateway.bind: expected true or false", refusal(R"({"gateway":{"id":"gw","bind":1}})"));
}

TEST(RegistryLoader, IdsThatWouldNeedAJsonEscapeAreRefusedNamingTheDevice)
{
    EXPECT_EQ(R"(gw.json: devices[1].id: device id "a\"b" has a character that needs a JSON escape or is a control character)",
              refusal(R"({"gateway":{"id":"gw"},"devices":[{"id":"ok"},{"id":"a\"b"}]})"));
    EXPECT_EQ(R"(gw.json: devices[0].id: device id "a\\b" has a character that needs a JSON escape or is a control character)",
              refusal(R"({"gateway":{"id":"gw"},"devices":[{"id":"a\\b"}]})"));
    EXPECT_EQ(R"(gw.json: devices[0].id: device id "tab\u0009" has a character that needs a JSON escape or is a control character)",
              refusal(R"({"gateway":{"id":"gw"},"devices":[{"id":"tab\t"}]})"));
    EXPECT_EQ(R"(gw.json: devices[0].id: device id "del\u007f" has a character that needs a JSON escape or is a control character)",
              refusal(R"({"gateway":{"id":"gw"},"devices":[{"id":"del\u007f"}]})"));
    EXPECT_EQ(R"(gw.json: gateway.id: device id "g\u000aw" has a character that needs a JSON escape or is a control character)",
              refusal(R"({"gateway":{"id":"g\nw"}})"));
    /* letters beyond ASCII need no escape */
    gw_registry::LoadError error;
    EXPECT_TRUE(gw_registry::load_text(R"({"gateway":{"id":"gw"},"devices":[{"id":"capteur-été_1.2"}]})", "gw.json",
                                       &error))
        << error.text();
    EXPECT_NE(nullptr, get_dev_cntl("capteur-été_1.2"));
    gw_registry::unload();
}

TEST(RegistryLoader, DeviceKeysAreCheckedWithTheirPath)
{
    EXPECT_EQ("gw.json: devices[1].id: missing key",
              refusal(R"({"gateway":{"id":"gw"},"devices":[{"id":"a"},{"bind":true}]})"));
    EXPECT_EQ("gw.json: devices[0].sw_ver: length 11 outside 0..10",
              refusal(R"({"gateway":{"id":"gw"},"devices":[{"id":"a","sw_ver":"12345678901"}]})"));
    EXPECT_EQ("gw.json: devices[0].preprocess: expected true or false",
              refusal(R"({"gateway":{"id":"gw"},"devices":[{"id":"a","preprocess":"yes"}]})"));
    EXPECT_EQ("gw.json: devices[0].dps: expected an array",
              refusal(R"({"gateway":{"id":"gw"},"devices":[{"id":"a","dps":1}]})"));
    EXPECT_EQ("gw.json: devices[0].colour: unknown key",
              refusal(R"({"gateway":{"id":"gw"},"devices":[{"id":"a","colour":"red"}]})"));
}

TEST(RegistryLoader, DuplicateDeviceIdsAndTheGatewaysIdAreRefused)
{
    EXPECT_EQ("gw.json: devices[1].id: duplicate device id \"a\"",
              refusal(R"({"gateway":{"id":"gw"},"devices":[{"id":"a"},{"id":"a"}]})"));
    EXPECT_EQ("gw.json: devices[0].id: device id \"GW\" is the gateway's id",
              refusal(R"({"gateway":{"id":"gw"},"devices":[{"id":"GW"}]})"));
}

TEST(RegistryLoader, DpNumberOutOfRangeIsRefused)
{
    EXPECT_EQ("gw.json: devices[0].dps[0].id: DP number out of range (1..255): 0",
              refusal(with_dp(R"({"id":0,"prop":"bool"})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].id: DP number out of range (1..255): 256",
              refusal(with_dp(R"({"id":256,"prop":"bool"})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].id: expected an integer", refusal(with_dp(R"({"id":1.5,"prop":"bool"})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].id: missing key", refusal(with_dp(R"({"prop":"bool"})")));
}

TEST(RegistryLoader, DuplicateDpIdsAreRefused)
{
    EXPECT_EQ("gw.json: devices[0].dps[1].id: duplicate DP id 4 (also devices[0].dps[0])",
              refusal(with_dp(R"({"id":4,"prop":"bool"},{"id":4,"prop":"value","min":0,"max":1})")));
}

TEST(RegistryLoader, GatewayDpsAreCheckedToo)
{
    EXPECT_EQ("gw.json: gateway.dps[0].prop: missing key", refusal(R"({"gateway":{"id":"gw","dps":[{"id":1}]}})"));
}

TEST(RegistryLoader, DpChoicesMustBeKnownNames)
{
    EXPECT_EQ("gw.json: devices[0].dps[0].prop: unknown value \"float\" (one of bool, value, str, enum, bitmap)",
              refusal(with_dp(R"({"id":1,"prop":"float"})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].mode: unknown value \"x\" (one of rw, wr, ro)",
              refusal(with_dp(R"({"id":1,"prop":"bool","mode":"x"})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].type: unknown value \"blob\" (one of obj, raw, file)",
              refusal(with_dp(R"({"id":1,"type":"blob"})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].trigger: unknown value \"never\" (one of on_change, always)",
              refusal(with_dp(R"({"id":1,"prop":"bool","trigger":"never"})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].passive: expected true or false",
              refusal(with_dp(R"({"id":1,"prop":"bool","passive":1})")));
}

TEST(RegistryLoader, EnumWithoutNamesIsRefused)
{
    EXPECT_EQ("gw.json: devices[0].dps[0].range: missing key", refusal(with_dp(R"({"id":1,"prop":"enum"})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].range: enum without names",
              refusal(with_dp(R"({"id":1,"prop":"enum","range":[]})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].range[1]: expected a string",
              refusal(with_dp(R"({"id":1,"prop":"enum","range":["a",2]})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].range[2]: duplicate enum name \"a\"",
              refusal(with_dp(R"({"id":1,"prop":"enum","range":["a","b","a"]})")));
}

TEST(RegistryLoader, ValueRangesAndStringLengthsAreChecked)
{
    EXPECT_EQ("gw.json: devices[0].dps[0].min: missing key", refusal(with_dp(R"({"id":1,"prop":"value","max":3})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].max: below min",
              refusal(with_dp(R"({"id":1,"prop":"value","min":5,"max":3})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].min: out of range (-2147483648..2147483647): -2147483649",
              refusal(with_dp(R"({"id":1,"prop":"value","min":-2147483649,"max":3})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].step: out of range (1..32767): 0",
              refusal(with_dp(R"({"id":1,"prop":"value","min":0,"max":3,"step":0})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].max_len: missing key", refusal(with_dp(R"({"id":1,"prop":"str"})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].max_len: out of range (0..65535): -1",
              refusal(with_dp(R"({"id":1,"prop":"str","max_len":-1})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].max_len: out of range (1..32): 33",
              refusal(with_dp(R"({"id":1,"prop":"bitmap","max_len":33})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].stat: out of range (0..255): 256",
              refusal(with_dp(R"({"id":1,"prop":"bool","stat":256})")));
}

TEST(RegistryLoader, LimitsOfAnotherPropertyTypeAreUnknownKeys)
{
    EXPECT_EQ("gw.json: devices[0].dps[0].max_len: unknown key",
              refusal(with_dp(R"({"id":1,"prop":"bool","max_len":4})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].prop: unknown key", refusal(with_dp(R"({"id":1,"type":"raw","prop":"str"})")));
}

TEST(RegistryLoader, FlowControlNeedsWindowAndLimit)
{
    EXPECT_EQ("gw.json: devices[0].dps[0].flow: expected an object",
              refusal(with_dp(R"({"id":1,"prop":"bool","flow":5})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].flow.limit: missing key",
              refusal(with_dp(R"({"id":1,"prop":"bool","flow":{"window_s":10}})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].flow.window_s: out of range (0..65535): 70000",
              refusal(with_dp(R"({"id":1,"prop":"bool","flow":{"window_s":70000,"limit":1}})")));
    EXPECT_EQ("gw.json: devices[0].dps[0].flow.burst: unknown key",
              refusal(with_dp(R"({"id":1,"prop":"bool","flow":{"window_s":1,"limit":1,"burst":2}})")));
}

TEST(RegistryLoader, MoreThan255DpsAreRefused)
{
    std::string dps;
    for (int i = 1; i <= 256; ++i) {
        dps += (i > 1 ? "," : "") + std::string(R"({"id":)") + std::to_string(i > 255 ? 1 : i) + R"(,"prop":"bool"})";
    }
    EXPECT_EQ("gw.json: devices[0].dps: too many DPs (at most 255)", refusal(with_dp(dps)));
}

TEST(RegistryLoader, MissingFileNamesTheFileAndTheReason)
{
    gw_registry::LoadError error;
    EXPECT_FALSE(gw_registry::load_file("/nonexistent/gw.json", &error));
    EXPECT_EQ("/nonexistent/gw.json: cannot read the file: No such file or directory", error.text());
    EXPECT_FALSE(gw_registry::load_file("/nonexistent/gw.json", nullptr)); /* the error is optional */
}

} // namespace
