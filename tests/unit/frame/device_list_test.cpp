#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "smart_frame/device_list.h"
#include "tests/fakes/sf_fixture.h"

using namespace fake::registry;

namespace {

class DeviceList : public SfFakesTest {};

std::vector<std::string> walk()
{
    std::vector<std::string> ids;
    for (DEV_CNTL_N_S *dev = sf::first_device(get_gw_cntl()); dev != nullptr; dev = sf::next_device(dev)) {
        ids.push_back(dev->dev_if.id);
    }
    return ids;
}

TEST_F(DeviceList, WalkVisitsEveryDeviceInListOrder)
{
    add_device("sub01", {dp_bool(1)});
    add_device("sub02", {});
    add_device("sub03", {dp_bool(1)}, false);
    EXPECT_EQ((std::vector<std::string>{"gw0001", "sub01", "sub02", "sub03"}), walk());
}

TEST_F(DeviceList, GatewayWithoutNodesHasNoFirstDevice)
{
    fake::reset_all();
    set_gateway("gw0001", {}, false);
    EXPECT_EQ(nullptr, sf::first_device(get_gw_cntl()));
    EXPECT_TRUE(walk().empty());
}

TEST_F(DeviceList, LastDeviceHasNoNext)
{
    DEV_CNTL_N_S *last = add_device("sub01", {});
    EXPECT_EQ(nullptr, sf::next_device(last));
    EXPECT_EQ(last, sf::next_device(get_gw_dev_cntl()));
}

} // namespace
