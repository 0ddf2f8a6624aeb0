#include <gtest/gtest.h>

#include "smart_frame/json_type.h"
#include "tests/fakes/sf_fixture.h"

namespace {

class JsonType : public SfFakesTest {};

INT_T type_of(const char *text)
{
    cJSON *node = cJSON_Parse(text);
    const INT_T type = sf::json_type(node);
    cJSON_Delete(node);
    return type;
}

TEST_F(JsonType, GivesTheClassicNumbers)
{
    EXPECT_EQ(0, type_of("false"));
    EXPECT_EQ(1, type_of("true"));
    EXPECT_EQ(2, type_of("null"));
    EXPECT_EQ(3, type_of("12.5"));
    EXPECT_EQ(4, type_of("\"x\""));
    EXPECT_EQ(5, type_of("[1]"));
    EXPECT_EQ(6, type_of("{}"));
}

TEST_F(JsonType, IgnoresReferenceFlagsAndNullNode)
{
    cJSON *str = cJSON_CreateString("shared");
    cJSON *ref = cJSON_CreateStringReference("const");
    EXPECT_EQ(4, sf::json_type(ref));
    EXPECT_EQ(-1, sf::json_type(nullptr));
    cJSON_Delete(ref);
    cJSON_Delete(str);
}

} // namespace
