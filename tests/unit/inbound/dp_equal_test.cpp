#include <gtest/gtest.h>

#include "app_callbacks.h"
#include "smart_frame/sf_raii.h"
#include "tests/fakes/sf_fixture.h"

using namespace fake::registry;

namespace {

const char *const FN = "sf_dp_data_is_equl";

class DpEqual : public SfStartedTest {
protected:
    void SetUp() override
    {
        SfStartedTest::SetUp();
        add_device("sub01", {dp_bool(1), dp_value(2, -100, 100), dp_enum(3, {"low", "mid", "high"}), dp_str(4, 16),
                             dp_bitmap(5, 32), dp_str(6, 16).no_str_buffer(), dp_bool(7).prop_tp(DP_PROP_TP_E(5))});
    }
    BOOL_T equal(const char *text)
    {
        sf::JsonPtr cmd(cJSON_Parse(text));
        EXPECT_NE(nullptr, cmd) << text;
        return sf_dp_data_is_equl(cmd.get());
    }
};

TEST_F(DpEqual, MissingCommandIsNotEqual)
{
    EXPECT_EQ(0, sf_dp_data_is_equl(nullptr));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "Param is null."));
}

TEST_F(DpEqual, CidThatIsNotTextIsNotEqual)
{
    EXPECT_EQ(0, equal("{\"cid\":5,\"dps\":{\"1\":true}}"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "Parse cid error."));
}

TEST_F(DpEqual, MissingCidIsNotEqualAndDevIdIsNotConsulted)
{
    app::known_bool("sub01", 1, TRUE);
    EXPECT_EQ(0, equal("{\"devId\":\"sub01\",\"dps\":{\"1\":true}}"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "Parse cid error."));
}

TEST_F(DpEqual, UnknownDeviceIsNotEqual)
{
    EXPECT_EQ(0, equal("{\"cid\":\"ghost\",\"dps\":{\"1\":true}}"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "can't find device:ghost"));
}

TEST_F(DpEqual, MissingOrEmptyDpsIsNotEqual)
{
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\"}"));
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{}}"));
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":[true]}"));
    EXPECT_EQ(3u, fake::log::count("can't find dps or child"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "can't find dps or child"));
}

TEST_F(DpEqual, UnknownDpIsNotEqualAndLoggedAsRoutine)
{
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{\"99\":true}}"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_PROGRESS, FN, "don't find dp:99."));
}

TEST_F(DpEqual, BoolIsEqualOnlyToTheSameJsonBoolean)
{
    app::known_bool("sub01", 1, TRUE);
    EXPECT_EQ(1, equal("{\"cid\":\"sub01\",\"dps\":{\"1\":true}}"));
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{\"1\":false}}"));
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{\"1\":1}}"));
    app::known_bool("sub01", 1, FALSE);
    EXPECT_EQ(1, equal("{\"cid\":\"sub01\",\"dps\":{\"1\":false}}"));
}

TEST_F(DpEqual, DpWithoutKnownValueIsNeverEqual)
{
    app::known_bool("sub01", 1, FALSE, PV_STAT_INVALID);
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{\"1\":false}}"));
    app::known_value("sub01", 2, 0, PV_STAT_INVALID);
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{\"2\":0}}"));
}

TEST_F(DpEqual, OnlyTheFirstDpCounts)
{
    app::known_bool("sub01", 1, TRUE);
    app::known_value("sub01", 2, 5);
    EXPECT_EQ(1, equal("{\"cid\":\"sub01\",\"dps\":{\"1\":true,\"2\":6}}"));
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{\"2\":6,\"1\":true}}"));
}

TEST_F(DpEqual, ValueMustBeTheSameNumber)
{
    app::known_value("sub01", 2, 10);
    EXPECT_EQ(1, equal("{\"cid\":\"sub01\",\"dps\":{\"2\":10}}"));
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{\"2\":11}}"));
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{\"2\":\"10\"}}"));
}

TEST_F(DpEqual, StringMustBeTheSameText)
{
    app::known_str("sub01", 4, "abc");
    EXPECT_EQ(1, equal("{\"cid\":\"sub01\",\"dps\":{\"4\":\"abc\"}}"));
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{\"4\":\"abcd\"}}"));
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{\"4\":\"abd\"}}"));
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{\"4\":5}}"));
}

TEST_F(DpEqual, StringNeverSetIsNotEqualWithoutComparing)
{
    EXPECT_EQ(nullptr, dp("sub01", 6)->prop.prop_str.value);
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{\"6\":\"\"}}"));
}

TEST_F(DpEqual, EnumMustNameTheHeldIndex)
{
    app::known_enum("sub01", 3, 1);
    EXPECT_EQ(1, equal("{\"cid\":\"sub01\",\"dps\":{\"3\":\"mid\"}}"));
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{\"3\":\"low\"}}"));
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{\"3\":1}}"));
    EXPECT_EQ(0u, fake::log::count("dp enum value[low] invalid"));
}

TEST_F(DpEqual, UnknownEnumNameIsLoggedEvenWithoutKnownValue)
{
    EXPECT_EQ(PV_STAT_INVALID, dp("sub01", 3)->pv_stat);
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{\"3\":\"huge\"}}"));
    EXPECT_TRUE(fake::log::has(LOG_LEVEL_ERROR, FN, "dp enum value[huge] invalid"));
}

TEST_F(DpEqual, BitmapMustBeTheSameNumber)
{
    app::known_bitmap("sub01", 5, 6);
    EXPECT_EQ(1, equal("{\"cid\":\"sub01\",\"dps\":{\"5\":6}}"));
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{\"5\":7}}"));
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{\"5\":true}}"));
}

TEST_F(DpEqual, UnknownPropertyTypeIsNeverEqual)
{
    app::known_bool("sub01", 7, TRUE);
    EXPECT_EQ(0, equal("{\"cid\":\"sub01\",\"dps\":{\"7\":true}}"));
}

TEST_F(DpEqual, TheCommandIsOnlyRead)
{
    app::known_bool("sub01", 1, TRUE);
    sf::JsonPtr cmd(cJSON_Parse("{\"cid\":\"sub01\",\"dps\":{\"1\":true,\"99\":2}}"));
    sf::TextPtr before(cJSON_PrintUnformatted(cmd.get()));

    EXPECT_EQ(1, sf_dp_data_is_equl(cmd.get()));

    sf::TextPtr after(cJSON_PrintUnformatted(cmd.get()));
    EXPECT_STREQ(before.get(), after.get());
}

} // namespace
