/*
 * The filter's reduced object written as text: byte for byte what cJSON
 * prints for the same members, within the bound computed from the report;
 * and a caller's own cJSON object still gets cJSON members.
 */
#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <climits>
#include <string>
#include <vector>

#include "report_fixture.h"
#include "smart_frame/report/output_text.h"

namespace {

struct Member {
    std::string key;
    sf::OutputValue value;
};

std::string printed_by_cjson(const std::vector<Member> &members)
{
    cJSON *object = cJSON_CreateObject();
    for (const Member &m : members) {
        EXPECT_TRUE(sf::add_output(object, m.key.c_str(), m.value));
    }
    char *text = cJSON_PrintUnformatted(object);
    std::string copy = text;
    Free(text);
    cJSON_Delete(object);
    return copy;
}

std::string written(const std::vector<Member> &members, size_t room)
{
    std::vector<char> buf(room, '#');
    sf::OutputText out;
    sf::output_begin(&out, buf.data());
    for (const Member &m : members) {
        EXPECT_TRUE(sf::add_output(&out.anchor, m.key.c_str(), m.value));
    }
    sf::output_end(&out);
    EXPECT_LE(out.len + 1, room);
    return std::string(out.buf);
}

TEST(OutputText, WritesWhatCjsonPrints)
{
    const std::string controls = std::string("a\"b\\c/d\b\f\n\r\t") + '\x01' + '\x1f' + "\xc3\xa9z";
    const std::vector<Member> members = {
        {"1", {sf::OutputValue::BOOL, 1, nullptr}},
        {"2", {sf::OutputValue::BOOL, 0, nullptr}},
        {"3", {sf::OutputValue::INT, 0, nullptr}},
        {"4", {sf::OutputValue::INT, -25, nullptr}},
        {"5", {sf::OutputValue::INT, INT_MAX, nullptr}},
        {"6", {sf::OutputValue::INT, INT_MIN, nullptr}},
        {"7", {sf::OutputValue::STRING, 0, ""}},
        {"8", {sf::OutputValue::STRING, 0, controls.c_str()}},
        {" 9\t\"", {sf::OutputValue::STRING, 0, "x"}},
        {"1", {sf::OutputValue::BOOL, 1, nullptr}},
    };
    EXPECT_EQ(printed_by_cjson(members), written(members, 512));
    EXPECT_EQ("{\"1\":true}", written({members[0]}, 16));
}

TEST(OutputText, BoundHoldsEveryMemberOfTheReportAtItsLongest)
{
    const char *report_text = "{\"1\":true,\"2\":-2147483648,\"3\":\"a\\n\\u0001b\",\"4\":1e9,\"\\t\":null}";
    cJSON *report = cJSON_Parse(report_text);
    ASSERT_NE(nullptr, report);
    std::vector<Member> members;
    for (const cJSON *m = report->child; m != nullptr; m = m->next) {
        sf::OutputValue value{sf::OutputValue::INT, INT_MIN, nullptr};
        if (cJSON_IsString(m)) {
            value = {sf::OutputValue::STRING, 0, m->valuestring};
        }
        members.push_back({m->string, value});
    }
    const size_t bound = sf::output_bound(report);
    const std::string text = written(members, bound);
    EXPECT_EQ(printed_by_cjson(members), text);
    EXPECT_LE(text.size() + 1, bound);
    cJSON_Delete(report);
}

TEST(OutputText, StringWithoutTextIsRefusedLikeCjsonRefusesIt)
{
    char buf[32];
    sf::OutputText out;
    sf::output_begin(&out, buf);
    EXPECT_FALSE(sf::add_output(&out.anchor, "1", {sf::OutputValue::STRING, 0, nullptr}));
    cJSON *object = cJSON_CreateObject();
    EXPECT_FALSE(sf::add_output(object, "1", {sf::OutputValue::STRING, 0, nullptr}));
    EXPECT_EQ(nullptr, object->child);
    cJSON_Delete(object);
}

using namespace fake::registry;

class OutputTextFilter : public SfStartedTest {};

/* A caller's own output object still receives cJSON members from __append_send_json. */
TEST_F(OutputTextFilter, AppendToACallersObjectAddsCjsonMembers)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_enum(4, {"low", "high"})});
    cJSON *object = cJSON_CreateObject();
    cJSON *report = cJSON_Parse("{\"4\":\"high\"}");
    EXPECT_EQ(TRUE, __append_send_json(object, &dev->dp[0], report->child, dev, 0, FALSE));
    char *text = cJSON_PrintUnformatted(object);
    EXPECT_STREQ("{\"4\":\"high\"}", text);
    Free(text);
    cJSON_Delete(report);
    cJSON_Delete(object);
}

/* The filter's text needs two allocations fewer per DP than a built and printed object. */
TEST_F(OutputTextFilter, FilterAllocatesOnlyTheParseAndOneText)
{
    DEV_CNTL_N_S *dev = add_device("a1b2c3", {dp_bool(1), dp_value(2, 0, 100)});
    const char *report = "{\"1\":true,\"2\":7}";
    cJSON *parsed = cJSON_Parse(report);
    const size_t before_parse = fake::mem::alloc_calls();
    cJSON_Delete(cJSON_Parse(report));
    const size_t parse_calls = fake::mem::alloc_calls() - before_parse;
    cJSON_Delete(parsed);

    CHAR_T *out = nullptr;
    const size_t before = fake::mem::alloc_calls();
    ASSERT_EQ(RC_OK, __sf_dp_verify_flowctl_update(dev, 0, report, FALSE, &out));
    EXPECT_EQ(parse_calls + 1, fake::mem::alloc_calls() - before);
    EXPECT_STREQ("{\"1\":true,\"2\":7}", out);
    Free(out);
}

} // namespace
