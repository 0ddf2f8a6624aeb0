#include <gtest/gtest.h>

#include <cstring>

#include "smart_frame/report/report.h"
#include "tests/fakes/sf_fixture.h"

using namespace fake::registry;

namespace {

class Envelope : public SfStartedTest {
protected:
    void SetUp() override
    {
        SfStartedTest::SetUp();
        gw_node = set_gateway("gw0001");
        sub = add_device("a1b2c3", {});
    }
    std::string wrap(const DEV_CNTL_N_S *dev, const char *data, const char *time)
    {
        CHAR_T *out = nullptr;
        EXPECT_EQ(RC_OK, __sf_add_devid_time_to_dpstr(dev, data, time, &out));
        std::string text = out != nullptr ? out : "";
        Free(out);
        return text;
    }
    DEV_CNTL_N_S *gw_node = nullptr;
    DEV_CNTL_N_S *sub = nullptr;
};

TEST_F(Envelope, GatewayReportCarriesNoDeviceId)
{
    EXPECT_EQ("{\"dps\":{\"1\":true,\"4\":\"low\"}}", wrap(gw_node, "{\"1\":true,\"4\":\"low\"}", nullptr));
}

TEST_F(Envelope, SubDeviceReportCarriesItsId)
{
    EXPECT_EQ("{\"dps\":{\"1\":true,\"4\":\"low\"},\"cid\":\"a1b2c3\"}",
              wrap(sub, "{\"1\":true,\"4\":\"low\"}", nullptr));
}

TEST_F(Envelope, TimeComesLastUnquoted)
{
    EXPECT_EQ("{\"dps\":{\"1\":true,\"4\":\"low\"},\"cid\":\"a1b2c3\",\"t\":1600000000}",
              wrap(sub, "{\"1\":true,\"4\":\"low\"}", "1600000000"));
    EXPECT_EQ("{\"dps\":{\"1\":true},\"t\":1600000000}", wrap(gw_node, "{\"1\":true}", "1600000000"));
}

TEST_F(Envelope, EmptyTimeStillAddsTheKey)
{
    EXPECT_EQ("{\"dps\":{},\"cid\":\"a1b2c3\",\"t\":}", wrap(sub, "{}", ""));
}

TEST_F(Envelope, DeviceWhoseIdDiffersOnlyInCaseIsTheGateway)
{
    DEV_CNTL_N_S *upper = add_device("GW0001", {});
    EXPECT_EQ("{\"dps\":{\"2\":5}}", wrap(upper, "{\"2\":5}", nullptr));
}

TEST_F(Envelope, TheWholeBufferPastTheTextIsZero)
{
    const char *data = "{\"1\":true}";
    const char *time = "1600000000";
    CHAR_T *out = nullptr;
    ASSERT_EQ(RC_OK, __sf_add_devid_time_to_dpstr(sub, data, time, &out));
    const std::string text = "{\"dps\":{\"1\":true},\"cid\":\"a1b2c3\",\"t\":1600000000}";
    ASSERT_STREQ(text.c_str(), out);
    const size_t size = std::strlen(data) + std::strlen(time) + 128;
    for (size_t i = text.size(); i < size; ++i) {
        EXPECT_EQ(0, out[i]) << "byte " << i;
    }
    Free(out);
}

TEST_F(Envelope, LogsTheResultAtDetailLevel)
{
    wrap(sub, "{\"1\":true}", nullptr);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_DETAIL, "__sf_add_devid_time_to_dpstr",
                               "added buf:{\"dps\":{\"1\":true},\"cid\":\"a1b2c3\"}"));
}

TEST_F(Envelope, LongestIdAndLongTextsFitTheBuffer)
{
    DEV_CNTL_N_S *longest = add_device("abcdefghijklmnopqrstuvwxy", {});
    const std::string data = "{\"1\":\"" + std::string(500, 'x') + "\"}";
    const std::string time(40, '9');
    EXPECT_EQ("{\"dps\":" + data + ",\"cid\":\"abcdefghijklmnopqrstuvwxy\",\"t\":" + time + "}",
              wrap(longest, data.c_str(), time.c_str()));
}

TEST_F(Envelope, MissingArgumentsAreRefused)
{
    CHAR_T *out = nullptr;
    EXPECT_EQ(RC_BAD_PARAM, __sf_add_devid_time_to_dpstr(nullptr, "{}", nullptr, &out));
    EXPECT_EQ(RC_BAD_PARAM, __sf_add_devid_time_to_dpstr(sub, nullptr, nullptr, &out));
    EXPECT_EQ(RC_BAD_PARAM, __sf_add_devid_time_to_dpstr(sub, "{}", nullptr, nullptr));
    EXPECT_EQ(3u, fake::log::count("Invalid Param"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_add_devid_time_to_dpstr", "Invalid Param"));
}

TEST_F(Envelope, AllocationFailureLogsTheSize)
{
    CHAR_T *out = nullptr;
    fake::mem::fail_nth(1);
    EXPECT_EQ(RC_NO_MEMORY, __sf_add_devid_time_to_dpstr(sub, "{\"1\":true}", "16", &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, "__sf_add_devid_time_to_dpstr", "Malloc Fails 140"));
}

} // namespace
