/*
 * sfgw reads its description through sfgw::check_description, for --check
 * and for a start alike (main.cpp), and a start then loads the registry
 * from what was read. Both must parse the file exactly once: the counting
 * parse functions of this program see every cJSON parse.
 */
#include "description_check.h"

#include <gtest/gtest.h>

#include <cjson/cJSON.h>
#include <csignal>
#include <fstream>
#include <sstream>

#include "cjson_parse_counter.h"
#include "gateway.h"
#include "gateway/registry/gw_registry.h"

namespace {

const std::string kExample = SF_SOURCE_DIR "/examples/gateway.json";

std::string text_of(const std::string &file)
{
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(DescriptionCheck, TheCounterSeesEachParseOnceWhateverTheEntryPoint)
{
    parse_counter::watch("{\"a\":1}");
    cJSON_Delete(cJSON_Parse("{\"a\":1}"));
    cJSON_Delete(cJSON_ParseWithOpts("{\"a\":1}", nullptr, 1));
    cJSON_Delete(cJSON_Parse("[2]"));
    EXPECT_EQ(2, parse_counter::watched_parses());
    EXPECT_EQ(3, parse_counter::all_parses());
}

TEST(DescriptionCheck, CheckParsesTheDescriptionExactlyOnce)
{
    parse_counter::watch(text_of(kExample));
    apps::Description description;
    std::string why;
    ASSERT_TRUE(sfgw::check_description(kExample, &description, &why)) << why;
    EXPECT_EQ(1, parse_counter::watched_parses());
    EXPECT_EQ(1, parse_counter::all_parses());
    EXPECT_EQ("gw0001", description.gateway_id);
    EXPECT_FALSE(gw_registry::loaded());
}

TEST(DescriptionCheck, AStartLoadsTheRegistryWithoutParsingTheDescriptionAgain)
{
    parse_counter::watch(text_of(kExample));
    apps::Description description;
    std::string why;
    ASSERT_TRUE(sfgw::check_description(kExample, &description, &why)) << why;
    sfgw::Options options;
    options.no_lan = true;
    options.no_state = true;
    options.metrics_mqtt_s = 0;
    options.mqtt_port = 1; /* nothing listens there: the client keeps trying in the background */
    sigset_t none;
    sigemptyset(&none);
    bool interrupted = false;
    {
        sfgw::Gateway gateway(options, description);
        ASSERT_TRUE(gateway.start(none, &interrupted, &why)) << why;
        EXPECT_TRUE(gw_registry::loaded());
        EXPECT_EQ(description.devices.size(), gw_registry::device_count());
        gateway.stop();
    }
    EXPECT_EQ(1, parse_counter::watched_parses());
}

TEST(DescriptionCheck, ARefusedDescriptionIsWordedByTheRegistrysReader)
{
    apps::Description description;
    std::string why;
    const std::string file = SF_SOURCE_DIR "/tests/apps/descriptions/duplicate_dp.json";
    parse_counter::watch(text_of(file));
    EXPECT_FALSE(sfgw::check_description(file, &description, &why));
    EXPECT_NE(std::string::npos, why.find("duplicate_dp.json: devices[0].dps[1].id: duplicate DP id 4 (also devices[0].dps[0])"))
        << why;
    EXPECT_EQ(1, parse_counter::watched_parses());
}

} // namespace
