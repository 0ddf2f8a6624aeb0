/*
 * The allocation-free scan of publish-state texts: what it accepts it
 * reads exactly as cJSON's walk does (device and DP names in order), what
 * it does not accept is left to cJSON, and the completion of a report
 * allocates nothing.
 */
#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <cstring>
#include <string>
#include <vector>

#include "report_fixture.h"
#include "smart_frame/report/dp_scan.h"

namespace {

struct Walk {
    bool has_cid = false;
    std::string cid;
    std::vector<std::string> names;
};

std::vector<std::string> names_from(const cJSON *member)
{
    std::vector<std::string> names;
    for (; member != nullptr; member = member->next) {
        names.emplace_back(member->string);
    }
    return names;
}

/* What the cJSON path of __sf_set_obj_dp_pv_stat reads from an envelope. */
Walk cjson_envelope(const char *text)
{
    Walk walk;
    cJSON *doc = cJSON_Parse(text);
    EXPECT_NE(nullptr, doc) << text;
    const cJSON *dps = cJSON_GetObjectItemCaseSensitive(doc, "dps");
    EXPECT_NE(nullptr, dps) << text;
    const cJSON *cid = cJSON_GetObjectItemCaseSensitive(doc, "cid");
    walk.has_cid = cid != nullptr && cJSON_IsString(cid);
    walk.cid = walk.has_cid ? cid->valuestring : "";
    walk.names = names_from(dps != nullptr ? dps->child : nullptr);
    cJSON_Delete(doc);
    return walk;
}

Walk scanned_walk(const sf::ScannedDps &scanned)
{
    Walk walk;
    walk.has_cid = scanned.has_cid;
    walk.cid = scanned.has_cid ? scanned.cid : "";
    walk.names = names_from(scanned.first());
    return walk;
}

TEST(DpScan, EnvelopesInTheSubsetReadAsCjsonReadsThem)
{
    const char *texts[] = {
        "{\"dps\":{\"1\":true},\"cid\":\"a1b2c3\"}",
        "{\"dps\":{\"1\":true,\"4\":\"low\"}}",
        "{\"dps\":{\"1\":false,\"2\":-25,\"3\":\"x y\",\"5\":1.5e3,\"6\":null},\"cid\":\"d\",\"t\":1600000000}",
        "{\"dps\":{}}",
        "{\"cid\":\"first\",\"dps\":{\"7\":0}}",
        "{\"dps\":{\"01\":1,\" 2\":2,\"x\":3},\"dps\":{\"9\":1},\"cid\":\"a\",\"cid\":\"b\"}",
        "{\"cid\":5,\"dps\":{\"1\":true},\"cid\":\"later\"}",
        "{\"t\":{\"a\":1},\"dps\":{\"1\":true}}",
        "{\"dps\":{\"1\":\"\\u00e9\"}}", /* an escape: left to cJSON, see below */
    };
    for (const char *text : texts) {
        sf::ScannedDps scanned;
        if (!sf::scan_envelope(text, &scanned)) {
            EXPECT_NE(nullptr, std::strchr(text, '\\')) << "refused: " << text;
            continue;
        }
        const Walk expected = cjson_envelope(text);
        const Walk got = scanned_walk(scanned);
        EXPECT_EQ(expected.has_cid, got.has_cid) << text;
        EXPECT_EQ(expected.cid, got.cid) << text;
        EXPECT_EQ(expected.names, got.names) << text;
    }
}

TEST(DpScan, TextsOutsideTheSubsetAreLeftToCjson)
{
    const char *texts[] = {
        "",
        "{",
        "[1]",
        "{\"dps\":{\"1\":true}} ",
        " {\"dps\":{\"1\":true}}",
        "{\"dps\": {\"1\":true}}",
        "{\"dps\":{\"1\":tru}}",
        "{\"dps\":{\"1\":01}}",
        "{\"dps\":{\"1\":1.}}",
        "{\"dps\":{\"1\":[1]}}",
        "{\"dps\":{\"1\":{\"a\":1}}}",
        "{\"dps\":{\"1\":\"a\\\"b\"}}",
        "{\"dps\":{\"1\":\"a\nb\"}}",
        "{\"dps\":5}",
        "{\"cid\":\"a1\"}",
        "{\"dps\":{\"1\":true},}",
        "{\"dps\":{\"1\":123456789012345678901234567890123}}",
    };
    for (const char *text : texts) {
        sf::ScannedDps scanned;
        EXPECT_FALSE(sf::scan_envelope(text, &scanned)) << text;
    }
}

TEST(DpScan, BareObjectsAndTheirBounds)
{
    sf::ScannedDps scanned;
    ASSERT_TRUE(sf::scan_dp_object("{\"1\":true,\"104\":\"abc\"}", &scanned));
    EXPECT_EQ((std::vector<std::string>{"1", "104"}), names_from(scanned.first()));
    EXPECT_FALSE(scanned.has_cid);
    ASSERT_TRUE(sf::scan_dp_object("{}", &scanned));
    EXPECT_EQ(nullptr, scanned.first());
    EXPECT_FALSE(sf::scan_dp_object("{\"1\":true", &scanned));
    EXPECT_FALSE(sf::scan_dp_object("\"1\"", &scanned));

    std::string many = "{";
    for (size_t i = 1; i <= sf::SCAN_MAX_MEMBERS + 1; ++i) {
        many += (i > 1 ? "," : "") + ("\"" + std::to_string(i) + "\":1");
    }
    many += "}";
    EXPECT_FALSE(sf::scan_dp_object(many.c_str(), &scanned)) << "more members than room: cJSON's";
    EXPECT_FALSE(sf::scan_dp_object(("{\"" + std::string(300, '1') + "\":1}").c_str(), &scanned));
    EXPECT_FALSE(sf::scan_envelope(("{\"dps\":{},\"cid\":\"" + std::string(64, 'a') + "\"}").c_str(), &scanned));
}

using namespace fake::registry;

class DpScanCompletion : public SfStartedTest {};

/* The completion of an object report reads its own envelope without a heap allocation. */
TEST_F(DpScanCompletion, ObjectReportCompletionAllocatesNothing)
{
    add_device("a1b2c3", {dp_bool(1), dp_value(2, 0, 100)});
    ASSERT_EQ(RC_OK, sf_obj_dp_report_async("a1b2c3", "{\"1\":true,\"2\":7}", FALSE));
    const size_t calls = fake::mem::alloc_calls();
    fake::mqtt::complete(0, RC_OK);
    EXPECT_EQ(calls, fake::mem::alloc_calls());
    EXPECT_EQ(PV_STAT_CLOUD, report_test::pv("a1b2c3", 1));
    EXPECT_EQ(PV_STAT_CLOUD, report_test::pv("a1b2c3", 2));
}

/* A text outside the subset still goes through cJSON, with its own failure. */
TEST_F(DpScanCompletion, TextWithBlanksIsStillReadByCjson)
{
    add_device("a1b2c3", {dp_bool(1)});
    EXPECT_EQ(RC_OK, __sf_set_obj_dp_pv_stat("{ \"dps\" : { \"1\" : true } , \"cid\" : \"a1b2c3\" }", PV_STAT_LOCAL,
                                             FALSE));
    EXPECT_EQ(PV_STAT_LOCAL, report_test::pv("a1b2c3", 1));
    EXPECT_EQ(RC_OK, __sf_set_obj_dp_pv_stat_by_dc("a1b2c3", " {\"1\":true}", PV_STAT_CLOUD, FALSE));
    EXPECT_EQ(PV_STAT_CLOUD, report_test::pv("a1b2c3", 1));
    EXPECT_EQ(RC_JSON_PARSE, __sf_set_obj_dp_pv_stat("{\"dps\":", PV_STAT_LOCAL, FALSE));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_set_obj_dp_pv_stat", "json parse fail {\"dps\":"));
}

} // namespace
