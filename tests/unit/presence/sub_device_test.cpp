#include <gtest/gtest.h>

#include "smart_frame/presence/sub_device.h"
#include "tests/fakes/sf_fixture.h"

using namespace fake::registry;

namespace {

class SubDevice : public SfFakesTest {
protected:
    DEV_CNTL_N_S *found = nullptr;
};

TEST_F(SubDevice, KnownSubDeviceIsFound)
{
    DEV_CNTL_N_S *a = add_device("a1b2c3", {});
    EXPECT_EQ(RC_OK, sf::find_sub_device("a1b2c3", &found));
    EXPECT_EQ(a, found);
}

TEST_F(SubDevice, UnboundSubDeviceIsFoundToo)
{
    DEV_CNTL_N_S *u = add_device("u1", {}, false);
    EXPECT_EQ(RC_OK, sf::find_sub_device("u1", &found));
    EXPECT_EQ(u, found);
}

TEST_F(SubDevice, UnknownIdIsNotFound)
{
    EXPECT_EQ(RC_DEV_NOT_FOUND, sf::find_sub_device("nobody", &found));
    EXPECT_EQ(nullptr, found);
}

TEST_F(SubDevice, GatewaysOwnIdInAnyLetterCaseIsRefusedWithoutAskingTheRegistry)
{
    const int lookups = get_dev_cntl_calls();
    EXPECT_EQ(RC_FAIL, sf::find_sub_device("gw0001", &found));
    EXPECT_EQ(RC_FAIL, sf::find_sub_device("GW0001", &found));
    EXPECT_EQ(RC_FAIL, sf::find_sub_device("gW0001", &found));
    EXPECT_EQ(lookups, get_dev_cntl_calls());
    EXPECT_EQ(nullptr, found);
}

TEST_F(SubDevice, IdsThatOnlyBeginOrEndLikeTheGatewaysAreOrdinaryIds)
{
    DEV_CNTL_N_S *shorter = add_device("gw000", {});
    DEV_CNTL_N_S *longer = add_device("GW00011", {});
    EXPECT_EQ(RC_OK, sf::find_sub_device("gw000", &found));
    EXPECT_EQ(shorter, found);
    EXPECT_EQ(RC_OK, sf::find_sub_device("GW00011", &found));
    EXPECT_EQ(longer, found);
}

TEST_F(SubDevice, MissingIdIsRefused)
{
    EXPECT_EQ(RC_FAIL, sf::find_sub_device(nullptr, &found));
    EXPECT_EQ(nullptr, found);
}

TEST_F(SubDevice, NothingIsLogged)
{
    add_device("a", {});
    sf::find_sub_device("a", &found);
    sf::find_sub_device("zz", &found);
    sf::find_sub_device("GW0001", &found);
    EXPECT_TRUE(fake::log::entries().empty()) << fake::log::dump();
}

} // namespace
