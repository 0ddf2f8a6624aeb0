#include "gateway/edge/wire_nul.h"

#include <gtest/gtest.h>

#include <string>

namespace {

/* The tree of text after the rewrite, printed; *rewritten how many strings changed. */
std::string rewritten(const std::string &text, size_t *count = nullptr)
{
    cJSON *doc = cJSON_Parse(text.c_str());
    EXPECT_NE(nullptr, doc) << text;
    const size_t n = sf_wire::keep_nul_strings_whole(text.data(), text.size(), doc);
    if (count != nullptr) {
        *count = n;
    }
    char *printed = cJSON_PrintUnformatted(doc);
    std::string out = printed;
    cJSON_free(printed);
    cJSON_Delete(doc);
    return out;
}

TEST(WireNul, AStringValueHoldingANulBecomesARawNodeOfItsTextAsSent)
{
    const std::string text = R"({"a":"x","b":"on\u0000off","c":["\u0000",1,"y"]})";
    size_t count = 0;
    EXPECT_EQ(text, rewritten(text, &count));
    EXPECT_EQ(2u, count);
    cJSON *doc = cJSON_Parse(text.c_str());
    sf_wire::keep_nul_strings_whole(text.data(), text.size(), doc);
    EXPECT_TRUE(cJSON_IsString(cJSON_GetObjectItem(doc, "a")));
    EXPECT_TRUE(cJSON_IsRaw(cJSON_GetObjectItem(doc, "b")));
    EXPECT_STREQ("\"on\\u0000off\"", cJSON_GetObjectItem(doc, "b")->valuestring);
    EXPECT_TRUE(cJSON_IsRaw(cJSON_GetArrayItem(cJSON_GetObjectItem(doc, "c"), 0)));
    EXPECT_TRUE(cJSON_IsString(cJSON_GetArrayItem(cJSON_GetObjectItem(doc, "c"), 2)));
    cJSON_Delete(doc);
}

TEST(WireNul, AKeyHoldingANulKeepsItsEscapeSoItNamesNoShorterKey)
{
    size_t count = 0;
    EXPECT_EQ(R"({"1\\u0000":true,"2":"\"q\""})", rewritten(R"({"1\u0000":true,"2":"\"q\""})", &count));
    EXPECT_EQ(1u, count);
}

TEST(WireNul, EscapedQuotesAndBackslashesDoNotShiftTheStringsOrPassForANul)
{
    size_t count = 0;
    const std::string text = R"({"k\"":"a\\u0000","n":{"m":"\"\u0000"}})";
    rewritten(text, &count);
    EXPECT_EQ(1u, count);
    cJSON *doc = cJSON_Parse(text.c_str());
    sf_wire::keep_nul_strings_whole(text.data(), text.size(), doc);
    EXPECT_STREQ("a\\u0000", cJSON_GetObjectItem(doc, "k\"")->valuestring);
    EXPECT_STREQ("\"\\\"\\u0000\"", cJSON_GetObjectItem(cJSON_GetObjectItem(doc, "n"), "m")->valuestring);
    cJSON_Delete(doc);
}

TEST(WireNul, ATextWithoutANulLeavesTheTreeAlone)
{
    size_t count = 7;
    EXPECT_EQ(R"({"a":"b"})", rewritten(R"({"a":"b"})", &count));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(0u, sf_wire::keep_nul_strings_whole("\"\\u0000\"", 8, nullptr));
}

} // namespace
