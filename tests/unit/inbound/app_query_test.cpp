#include <gtest/gtest.h>

#include "app_callbacks.h"
#include "tests/fakes/sf_fixture.h"

using namespace fake::registry;

namespace {

class AppQuery : public SfStartedTest {
protected:
    void SetUp() override
    {
        SfStartedTest::SetUp();
        set_gateway("gw0001", {dp_bool(1)});
        app::install();
    }
    /* parses text into a tree owned by the test */
    cJSON *parse(const char *text)
    {
        cJSON *json = cJSON_Parse(text);
        trees.push_back(json);
        return json;
    }
    void TearDown() override
    {
        for (cJSON *t : trees) {
            cJSON_Delete(t);
        }
        SfStartedTest::TearDown();
    }
    std::vector<cJSON *> trees;
};

const char *const FN = "sf_respone_obj_dp_query";

TEST_F(AppQuery, EveryDeviceIdGetsTheSameDpNumbers)
{
    EXPECT_EQ(RC_OK, sf_respone_obj_dp_query(parse("[\"a1\",\"b2\",\"c3\"]"), parse("[1,2]")));

    ASSERT_EQ(3u, app::queries().size());
    EXPECT_EQ("a1", app::queries()[0].cid);
    EXPECT_EQ("b2", app::queries()[1].cid);
    EXPECT_EQ("c3", app::queries()[2].cid);
    for (const app::Query &q : app::queries()) {
        EXPECT_EQ((std::vector<int>{1, 2}), q.dpid);
    }
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, FN, "dpid cnt< 2 >:"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, FN, "query cid:a1"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, FN, "query cid:c3"));
    EXPECT_EQ("1 2 \r\n", fake::log::raw());
}

TEST_F(AppQuery, EmptyDpArrayIsPassedOnWithCountZero)
{
    EXPECT_EQ(RC_OK, sf_respone_obj_dp_query(parse("[\"a1\"]"), parse("[]")));

    ASSERT_EQ(1u, app::queries().size());
    EXPECT_TRUE(app::queries()[0].dpid.empty());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, FN, "dpid cnt< 0 >:"));
    EXPECT_EQ("\r\n", fake::log::raw());
}

TEST_F(AppQuery, DpNumbersAboveOneByteKeepTheirLowByte)
{
    EXPECT_EQ(RC_OK, sf_respone_obj_dp_query(parse("[\"a1\"]"), parse("[256,257,1000,255]")));

    ASSERT_EQ(1u, app::queries().size());
    EXPECT_EQ((std::vector<int>{0, 1, 232, 255}), app::queries()[0].dpid);
    EXPECT_EQ("0 1 232 255 \r\n", fake::log::raw());
}

TEST_F(AppQuery, NoDeviceIdsMeansTheGatewaysOwnNode)
{
    EXPECT_EQ(RC_OK, sf_respone_obj_dp_query(nullptr, parse("[1]")));

    ASSERT_EQ(1u, app::queries().size());
    EXPECT_EQ("gw0001", app::queries()[0].cid);
    EXPECT_EQ((std::vector<int>{1}), app::queries()[0].dpid);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, FN, "query cid:gw0001"));
}

TEST_F(AppQuery, JsonNullDeviceIdsAlsoMeanTheGateway)
{
    EXPECT_EQ(RC_OK, sf_respone_obj_dp_query(parse("null"), parse("[1]")));

    ASSERT_EQ(1u, app::queries().size());
    EXPECT_EQ("gw0001", app::queries()[0].cid);
}

TEST_F(AppQuery, GatewayWithoutOwnNodeFails)
{
    set_gateway("gw0001", {}, false);
    app::install();

    EXPECT_EQ(RC_FAIL, sf_respone_obj_dp_query(nullptr, parse("[1]")));

    EXPECT_TRUE(app::queries().empty());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "get_gw_dev_cntl err"));
}

TEST_F(AppQuery, MissingDpArrayIsRefused)
{
    EXPECT_EQ(RC_BAD_PARAM, sf_respone_obj_dp_query(parse("[\"a1\"]"), nullptr));

    EXPECT_TRUE(app::queries().empty());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "pDpIdArr is NULL"));
}

TEST_F(AppQuery, DpNumbersThatAreNotAnArrayAreRefused)
{
    EXPECT_EQ(RC_BAD_PARAM, sf_respone_obj_dp_query(parse("[\"a1\"]"), parse("{\"1\":1}")));

    EXPECT_TRUE(app::queries().empty());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "pDpIdArr is not an array"));
}

TEST_F(AppQuery, DeviceIdsThatAreNotAnArrayAreRefused)
{
    EXPECT_EQ(RC_BAD_PARAM, sf_respone_obj_dp_query(parse("\"a1\""), parse("[1]")));

    EXPECT_TRUE(app::queries().empty());
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "pCidArr is not an array"));
}

TEST_F(AppQuery, DeviceIdThatIsNotTextIsSkipped)
{
    EXPECT_EQ(RC_OK, sf_respone_obj_dp_query(parse("[5,\"b2\"]"), parse("[1]")));

    ASSERT_EQ(1u, app::queries().size());
    EXPECT_EQ("b2", app::queries()[0].cid);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "query cid is not a string"));
}

TEST_F(AppQuery, AbsentCallbackIsNotAnError)
{
    gw()->cbs.dev_dp_query_cb = nullptr;

    EXPECT_EQ(RC_OK, sf_respone_obj_dp_query(parse("[\"a1\"]"), parse("[1]")));

    EXPECT_TRUE(app::queries().empty());
}

TEST_F(AppQuery, AllocationFailureIsAGeneralFailure)
{
    cJSON *ids = parse("[\"a1\"]");
    cJSON *dps = parse("[1,2]");
    size_t n = 1;
    for (; n < 10; ++n) {
        fake::mem::fail_nth(n);
        const OPERATE_RET rc = sf_respone_obj_dp_query(ids, dps);
        const bool fired = fake::mem::failure_fired();
        fake::mem::fail_nth(0);
        if (!fired) {
            EXPECT_EQ(RC_OK, rc);
            break;
        }
        EXPECT_EQ(RC_FAIL, rc);
        EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "Malloc err"));
        EXPECT_TRUE(app::queries().empty());
    }
    EXPECT_EQ(2u, n); /* the record is the only allocation */
    EXPECT_EQ(1u, app::queries().size());
}

} // namespace
