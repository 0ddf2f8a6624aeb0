#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/fakes/sf_fixture.h"

using namespace fake::registry;

namespace {

const char *const FN = "sf_dp_data_composition";

/* One application record: DP id, claimed type, the value in its union field, time stamp (0: none). */
template <typename T>
KL_OBJ_DP_S rec(BYTE_T id, DP_PROP_TP_E type, T KL_OBJ_DP_VALUE_U::*field, T v, UINT_T t)
{
    KL_OBJ_DP_S r{};
    r.dpid = id;
    r.type = type;
    r.value.*field = v;
    r.time_stamp = t;
    return r;
}
KL_OBJ_DP_S rec_bool(BYTE_T id, BOOL_T v, UINT_T t = 0) { return rec(id, PROP_BOOL, &KL_OBJ_DP_VALUE_U::dp_bool, v, t); }
KL_OBJ_DP_S rec_value(BYTE_T id, INT_T v, UINT_T t = 0) { return rec(id, PROP_VALUE, &KL_OBJ_DP_VALUE_U::dp_value, v, t); }
KL_OBJ_DP_S rec_str(BYTE_T id, const char *v, UINT_T t = 0)
{
    return rec(id, PROP_STR, &KL_OBJ_DP_VALUE_U::dp_str, const_cast<CHAR_T *>(v), t);
}
KL_OBJ_DP_S rec_enum(BYTE_T id, UINT_T v, UINT_T t = 0) { return rec(id, PROP_ENUM, &KL_OBJ_DP_VALUE_U::dp_enum, v, t); }
KL_OBJ_DP_S rec_bitmap(BYTE_T id, UINT_T v, UINT_T t = 0)
{
    return rec(id, PROP_BITMAP, &KL_OBJ_DP_VALUE_U::dp_bitmap, v, t);
}

CHAR_T *const UNTOUCHED = reinterpret_cast<CHAR_T *>(0x1);

class Composition : public SfStartedTest {
protected:
    void SetUp() override
    {
        SfStartedTest::SetUp();
        add_device("dev1", {dp_bool(1), dp_value(2, -100, 100), dp_str(3, 32), dp_enum(4, {"low", "mid", "high"}),
                            dp_bitmap(5, 32), dp_bool(7), dp_bool(8).prop_tp(DP_PROP_TP_E(5))});
    }
    /* composes recs; data_text/time_text get the texts (time_text "<untouched>" when *time was not written) */
    OPERATE_RET compose(const std::vector<KL_OBJ_DP_S> &recs, bool want_time = true)
    {
        CHAR_T *data = UNTOUCHED;
        CHAR_T *time = UNTOUCHED;
        const size_t bytes_before = fake::mem::alloc_bytes();
        const OPERATE_RET rc = sf_dp_data_composition("dev1", recs.data(), static_cast<UINT_T>(recs.size()), &data,
                                                      want_time ? &time : nullptr);
        allocated = fake::mem::alloc_bytes() - bytes_before;
        data_text = data == UNTOUCHED ? "<untouched>" : data;
        time_text = time == UNTOUCHED ? "<untouched>" : time;
        if (data != UNTOUCHED) {
            Free(data);
        }
        if (time != UNTOUCHED) {
            Free(time);
        }
        return rc;
    }
    std::string data_text;
    std::string time_text;
    size_t allocated = 0;
};

TEST_F(Composition, WorkedExampleGivesDataAndTimeTexts)
{
    EXPECT_EQ(RC_OK, compose({rec_bool(1, 1), rec_value(2, -5, 1700000000), rec_str(3, "ab")}));

    EXPECT_EQ("{\"1\":true,\"2\":-5,\"3\":\"ab\"}", data_text);
    EXPECT_EQ("{\"2\":1700000000}", time_text);
    EXPECT_EQ(20u + 20u + 17u + 30u, allocated);
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, FN, "dp compo:{\"1\":true,\"2\":-5,\"3\":\"ab\"}"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, FN, "dp time:{\"2\":1700000000}"));
    EXPECT_LT(0u, fake::log::count("step"));
}

TEST_F(Composition, SingleTrueBoolFitsTwentyBytes)
{
    EXPECT_EQ(RC_OK, compose({rec_bool(7, 1)}));

    EXPECT_EQ("{\"7\":true}", data_text);
    EXPECT_EQ(20u, allocated);
}

TEST_F(Composition, BoolOtherThanOneIsFalse)
{
    EXPECT_EQ(RC_OK, compose({rec_bool(7, 2), rec_bool(1, -1), rec_bool(1, 0)}));

    EXPECT_EQ("{\"7\":false,\"1\":false,\"1\":false}", data_text);
}

TEST_F(Composition, BitmapFromTwoToTheThirtyFirstPrintsNegative)
{
    EXPECT_EQ(RC_OK, compose({rec_bitmap(5, 2147483648u)}));

    EXPECT_EQ("{\"5\":-2147483648}", data_text);
}

TEST_F(Composition, LongestNumbersFitTheirAllowance)
{
    EXPECT_EQ(RC_OK, compose({rec_value(2, -2147483647 - 1, 4294967295u)}));

    EXPECT_EQ("{\"2\":-2147483648}", data_text);
    EXPECT_EQ("{\"2\":4294967295}", time_text);
}

TEST_F(Composition, EnumIndexAtTheCountIsRefused)
{
    EXPECT_EQ(RC_DP_VALUE_INVALID, compose({rec_enum(4, 3)}));

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "dparr[0] enum value not match.3 3"));
    EXPECT_EQ(0u, allocated);
    EXPECT_EQ("<untouched>", data_text);
}

TEST_F(Composition, LastEnumIndexPrintsItsName)
{
    EXPECT_EQ(RC_OK, compose({rec_enum(4, 2)}));

    EXPECT_EQ("{\"4\":\"high\"}", data_text);
    EXPECT_EQ(4u + 15u, allocated);
}

TEST_F(Composition, StringIsCopiedUnescaped)
{
    EXPECT_EQ(RC_OK, compose({rec_str(3, "a\"b")}));

    EXPECT_EQ("{\"3\":\"a\"b\"}", data_text);
}

TEST_F(Composition, NoTimeStampsLeaveTimeUntouched)
{
    EXPECT_EQ(RC_OK, compose({rec_bool(1, 1), rec_value(2, 3)}));

    EXPECT_EQ("{\"1\":true,\"2\":3}", data_text);
    EXPECT_EQ("<untouched>", time_text);
    EXPECT_EQ(0u, fake::log::count("dp time:{}"));
}

TEST_F(Composition, WithoutTimeArgumentOnlyDataIsMade)
{
    EXPECT_EQ(RC_OK, compose({rec_value(2, 3, 1600000000)}, false));

    EXPECT_EQ("{\"2\":3}", data_text);
    EXPECT_EQ(20u, allocated);
}

TEST_F(Composition, SameDpTwiceGivesTwoMembersInRecordOrder)
{
    EXPECT_EQ(RC_OK, compose({rec_value(2, 1, 5), rec_value(2, 2, 6)}));

    EXPECT_EQ("{\"2\":1,\"2\":2}", data_text);
    EXPECT_EQ("{\"2\":5,\"2\":6}", time_text);
}

TEST_F(Composition, EmptyOrMissingInputIsRefused)
{
    CHAR_T *data = UNTOUCHED;
    KL_OBJ_DP_S one = rec_bool(1, 1);
    EXPECT_EQ(RC_BAD_PARAM, sf_dp_data_composition("dev1", &one, 0, &data, nullptr));
    EXPECT_EQ(RC_BAD_PARAM, sf_dp_data_composition("dev1", nullptr, 1, &data, nullptr));
    EXPECT_EQ(RC_BAD_PARAM, sf_dp_data_composition("dev1", &one, 1, nullptr, nullptr));
    EXPECT_EQ(3u, fake::log::count("input is invalid"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "input is invalid"));
    EXPECT_EQ(UNTOUCHED, data);
}

TEST_F(Composition, UnknownDpIsRefusedBeforeAnyAllocation)
{
    EXPECT_EQ(RC_DP_NOT_FOUND, compose({rec_bool(1, 1), rec_bool(99, 1)}));

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "devid:dev1 dparr[1]:99 not find"));
    EXPECT_EQ(0u, allocated);
}

TEST_F(Composition, UnknownDeviceIsAnUnknownDp)
{
    CHAR_T *data = UNTOUCHED;
    KL_OBJ_DP_S one = rec_bool(1, 1);
    EXPECT_EQ(RC_DP_NOT_FOUND, sf_dp_data_composition("ghost", &one, 1, &data, nullptr));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "devid:ghost dparr[0]:1 not find"));
}

TEST_F(Composition, TypeDifferentFromTheSchemaIsRefused)
{
    EXPECT_EQ(RC_DP_TYPE_MISMATCH, compose({rec_value(1, 1)}));

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "dparr[0] type not match.1 0"));
    EXPECT_EQ(0u, allocated);
}

TEST_F(Composition, UnknownPropertyTypeIsAFailure)
{
    KL_OBJ_DP_S r = rec_bool(8, 1);
    r.type = DP_PROP_TP_E(5);

    EXPECT_EQ(RC_FAIL, compose({r}));

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "dparr[0] type invalid 5"));
}

TEST_F(Composition, MissingStringIsRefused)
{
    EXPECT_EQ(RC_BAD_PARAM, compose({rec_str(3, nullptr)}));

    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "dparr[0] str value is null"));
    EXPECT_EQ(0u, allocated);
}

TEST_F(Composition, EachAllocationFailureReturnsNoMemoryAndLeavesTheCallersPointers)
{
    /* the data buffer (40 bytes) first, then the time buffer (30 bytes) */
    const char *const logs[] = {"malloc fail 40", "malloc fail 30"};
    size_t n = 1;
    for (; n <= 3; ++n) {
        fake::log::clear();
        fake::mem::fail_nth(n);
        const OPERATE_RET rc = compose({rec_bool(1, 1), rec_bool(7, 0, 9)});
        const bool fired = fake::mem::failure_fired();
        fake::mem::fail_nth(0);
        EXPECT_EQ(0u, fake::mem::live_blocks()) << "failing allocation " << n;
        if (!fired) {
            EXPECT_EQ(RC_OK, rc);
            break;
        }
        EXPECT_EQ(RC_NO_MEMORY, rc) << "failing allocation " << n;
        EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, logs[n - 1])) << fake::log::dump();
        EXPECT_EQ("<untouched>", data_text);
        EXPECT_EQ("<untouched>", time_text);
    }
    EXPECT_EQ(3u, n);
    EXPECT_EQ("{\"1\":true,\"7\":false}", data_text);
    EXPECT_EQ("{\"7\":9}", time_text);
}

TEST_F(Composition, LongCompositionGetsABufferThatFits)
{
    /* more than 64 KiB of text: the sizes must not wrap */
    const std::string big(70000, 'x');
    std::vector<KL_OBJ_DP_S> recs = {rec_str(3, big.c_str()), rec_bool(1, 1)};

    EXPECT_EQ(RC_OK, compose(recs));

    EXPECT_EQ("{\"3\":\"" + big + "\",\"1\":true}", data_text);
}

} // namespace
