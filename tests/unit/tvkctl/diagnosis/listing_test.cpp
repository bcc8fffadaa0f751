#include "tvkctl/src/diagnosis/listing.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "fake_usb/checked_bus.h"
#include "support/private_paths.h"
#include "unit/tvkctl/machine/usb_scan_test.h"

namespace tarvik::tvkctl {

namespace {

class listing_test : public usb_scan_test {
protected:
    std::vector<std::string> warnings_of(std::size_t index)
    {
        return list_devices(false, machine).at(index).warnings;
    }

    static fake_usb::device with_serial(const std::optional<std::string>& serial)
    {
        fake_usb::device device = fake_usb::scanner_device();
        device.serial = serial;
        return device;
    }
};

TEST_F(listing_test, different_serial_numbers_tell_devices_apart)
{
    bus.plug(with_serial("A"));
    bus.plug(with_serial("B"));
    EXPECT_TRUE(warnings_of(0).empty());
    EXPECT_TRUE(warnings_of(1).empty());
}

TEST_F(listing_test, equal_serial_numbers_are_warned_of)
{
    bus.plug(with_serial("A"));
    bus.plug(with_serial("A"));
    const std::string nodes =
        machine.devices + "/bus/usb/001/001 and " + machine.devices + "/bus/usb/001/002";
    EXPECT_EQ(warnings_of(1),
              std::vector<std::string>{"usb:1a2b:3c4d:A fits " + nodes +
                                       ": which of them is opened depends on their order on the bus"});
}

TEST_F(listing_test, a_device_without_a_serial_number_is_hidden_by_one_with_the_same_ids)
{
    bus.plug(with_serial("A"));
    bus.plug(with_serial({}));
    EXPECT_TRUE(warnings_of(0).empty());
    EXPECT_EQ(warnings_of(1).size(), 1U);
}

TEST_F(listing_test, a_serial_number_that_no_address_can_carry_is_warned_of)
{
    bus.plug(with_serial("A:B"));
    EXPECT_EQ(warnings_of(0),
              std::vector<std::string>{machine.devices + "/bus/usb/001/001 has a serial number with a colon, "
                                                         "which no address can carry"});
}

TEST_F(listing_test, a_device_without_an_address_is_warned_of)
{
    fake_usb::device device = with_serial("A");
    device.product_id = 0;
    bus.plug(device);
    EXPECT_EQ(warnings_of(0),
              std::vector<std::string>{machine.devices + "/bus/usb/001/001 has no address: its vendor or "
                                                         "product id is 0"});
}

TEST_F(listing_test, an_unusable_device_is_listed_only_on_request)
{
    fake_usb::device mouse = scanner();
    mouse.configurations[0].interfaces[0][0].interface_class = 3;
    bus.plug(mouse);
    EXPECT_TRUE(list_devices(false, machine).empty());
    EXPECT_EQ(list_devices(true, machine).size(), 1U);
}

TEST_F(listing_test, a_file_that_is_not_a_library_is_not_loadable)
{
    bus.plug(scanner());
    const std::string path = support::kPluginDirectory + "/libryo-mora-hk-t210.so";
    write_file(path, "no library");
    const auto plugin = list_devices(false, machine).at(0).plugin;
    std::filesystem::remove(path);
    ASSERT_TRUE(plugin);
    EXPECT_TRUE(plugin->is_installed);
    EXPECT_FALSE(plugin->is_loadable);
}

} // namespace

} // namespace tarvik::tvkctl
