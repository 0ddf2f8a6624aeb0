#include "sfcloud/page_description.h"

#include <gtest/gtest.h>

namespace {

TEST(PageDescription, KeepsNamesAndSchemasAndLeavesOutTheKeyTheConnectionAndTheSimulator)
{
    apps::Description d;
    std::string why;
    ASSERT_TRUE(apps::read_description_text(
        R"({"connection":{"mqtt":{"host":"h","port":1,"topic_root":"fleet","username":"u","password":"secret"}},
            "gateway":{"id":"gw1","local_key":"0123456789abcdef","dps":[{"id":1,"name":"alarm","prop":"bool"}]},
            "devices":[{"id":"t1","dps":[{"id":2,"name":"temp","prop":"value","min":0,"max":500,"scale":1}],
                        "sim":{"kind":"thermostat"}}]})",
        "gw.json", &d, &why))
        << why;
    EXPECT_EQ(sfcloud::page_description(&d),
              R"({"gateway":{"id":"gw1","dps":[{"id":1,"name":"alarm","mode":"rw","type":"obj","prop":"bool"}]},)"
              R"("devices":[{"id":"t1","dps":[{"id":2,"name":"temp","mode":"rw","type":"obj","prop":"value",)"
              R"("min":0,"max":500,"step":1,"scale":1}]}],"topic_root":"fleet"})");
}

TEST(PageDescription, IsEmptyWithoutADescription)
{
    EXPECT_EQ(sfcloud::page_description(nullptr), "");
}

} // namespace
