#include <gtest/gtest.h>

#include <string>

#include "gateway/edge/wire_json.h"
#include "tests/integration/support/blocks.h"

namespace {

using sf_wire::embed_value;
using sf_wire::parse_bounded;
using sf_wire::within_bounds;
using sf_wire::wrap_frame;

/* Why within_bounds refuses text, or "" when it accepts it. */
std::string refusal(const std::string &text, size_t max_bytes, size_t max_depth)
{
    const char *why = "";
    return within_bounds(text.data(), text.size(), max_bytes, max_depth, &why) ? "" : why;
}

TEST(WireBounds, DepthCountsObjectsAndArraysUpToTheLimit)
{
    EXPECT_EQ("", refusal("{\"a\":[{\"b\":1}]}", 100, 3));
    EXPECT_EQ("document nested too deep", refusal("{\"a\":[{\"b\":[1]}]}", 100, 3));
}

TEST(WireBounds, BracketsInsideStringsDoNotCount)
{
    EXPECT_EQ("", refusal("{\"a\":\"[[[[{{{{\\\"[[[[\"}", 100, 1));
}

TEST(WireBounds, SiblingsDoNotAddUp)
{
    EXPECT_EQ("", refusal("[[1],[2],[3],[4]]", 100, 2));
}

TEST(WireBounds, SizeLimitIsInclusive)
{
    EXPECT_EQ("", refusal("[1,2]", 5, 32));
    EXPECT_EQ("document too large", refusal("[1,22]", 5, 32));
}

TEST(WireBounds, EmptyTextIsRefused)
{
    EXPECT_EQ("empty document", refusal("", 5, 32));
}

TEST(WireBounds, DeepNestingBeyondTheLimitNeverReachesTheParser)
{
    const std::string deep = std::string(200000, '[') + std::string(200000, ']');
    const char *why = "";
    EXPECT_EQ(nullptr, parse_bounded(deep.data(), deep.size(), deep.size(), 32, &why));
    EXPECT_STREQ("document nested too deep", why);
}

TEST(WireBounds, ParseRefusesTrailingBytesButAcceptsTrailingBlanks)
{
    const char *why = "";
    const std::string trailing = "{\"a\":1} x";
    EXPECT_EQ(nullptr, parse_bounded(trailing.data(), trailing.size(), 100, 32, &why));
    EXPECT_STREQ("bytes after the document", why);
    const std::string blanks = "{\"a\":1} \r\n";
    cJSON *doc = parse_bounded(blanks.data(), blanks.size(), 100, 32, &why);
    ASSERT_NE(nullptr, doc);
    cJSON_Delete(doc);
}

TEST(WireBounds, ParseReadsOnlyTheGivenLength)
{
    const std::string text = "{\"a\":1}{\"b\":2}";
    const char *why = "";
    cJSON *doc = parse_bounded(text.data(), 7, 100, 32, &why);
    ASSERT_NE(nullptr, doc);
    EXPECT_NE(nullptr, cJSON_GetObjectItem(doc, "a"));
    cJSON_Delete(doc);
}

TEST(WireEmbed, JsonTextIsEmbeddedAsItStands)
{
    const std::string text = "{\"dps\":{\"1\":true}}";
    EXPECT_EQ(text, embed_value(text.data(), text.size()));
}

TEST(WireEmbed, LineBreaksBetweenTokensBecomeBlanks)
{
    const std::string text = "{\n\"a\":\r\n1}";
    EXPECT_EQ("{ \"a\":  1}", embed_value(text.data(), text.size()));
}

TEST(WireEmbed, OtherTextBecomesAnEscapedString)
{
    const std::string text = "scene oper failed";
    EXPECT_EQ("\"scene oper failed\"", embed_value(text.data(), text.size()));
    const std::string odd = "a\"b\\c\nd\x01";
    EXPECT_EQ("\"a\\\"b\\\\c\\nd\\u0001\"", embed_value(odd.data(), odd.size()));
    EXPECT_EQ("\"\"", embed_value("", 0));
    EXPECT_EQ("\"\"", embed_value(nullptr, 0));
}

TEST(WireFrame, NumbersComeInTheGivenOrderBeforeTheData)
{
    const std::string text = "{\"online\":[\"a\"]}";
    EXPECT_EQ("{\"serno\":4294967295,\"pro\":25,\"data\":{\"online\":[\"a\"]}}",
              wrap_frame({{"serno", 4294967295LL}, {"pro", 25}}, text.data(), text.size()));
    EXPECT_EQ("{\"type\":208,\"flag\":1,\"data\":\"scene oper failed\"}",
              wrap_frame({{"type", 208}, {"flag", 1}}, "scene oper failed", 17));
}

} // namespace

namespace {

TEST(WireBlock, MessageOfAcceptsOnlyABlockLongEnoughForItsMessage)
{
    EXPECT_EQ(nullptr, sf_wire::message_of(nullptr));
    RFC_DATA_S *block = it::make_block("{\"dps\":{}}", 3);
    const MSG_DATA_S *msg = sf_wire::message_of(block);
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(3u, msg->serno);
    EXPECT_EQ(10u, msg->len);
    block->data_len -= 1; // shorter than the message claims
    EXPECT_EQ(nullptr, sf_wire::message_of(block));
    block->data_len = sizeof(MSG_DATA_S) - 1;
    EXPECT_EQ(nullptr, sf_wire::message_of(block));
    block->data_len = sizeof(MSG_DATA_S) + 10;
    put_rfc_data(block);
}

TEST(WireBlock, MessageOfRefusesALengthThatWouldWrapTheSum)
{
    RFC_DATA_S *block = it::make_block("{\"dps\":{}}", 3);
    MSG_DATA_S *msg = static_cast<MSG_DATA_S *>(block->data);
    msg->len = 0xFFFFFFFFu - static_cast<UINT_T>(sizeof(MSG_DATA_S)) + 1u; /* len + header is 2^32 */
    EXPECT_EQ(nullptr, sf_wire::message_of(block));
    msg->len = 10;
    put_rfc_data(block);
}

} // namespace
