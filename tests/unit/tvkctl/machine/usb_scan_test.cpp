#include "unit/tvkctl/machine/usb_scan_test.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "support/caught_error.h"
#include "tvkctl/src/machine/tool_error.h"
#include "tvkctl/src/machine/udi.h"

namespace fs = std::filesystem;

namespace tarvik::tvkctl {

namespace {

TEST_F(usb_scan_test, an_empty_bus_has_no_devices)
{
    EXPECT_TRUE(scan_usb(machine).empty());
}

TEST_F(usb_scan_test, a_failing_libusb_is_reported_by_its_call_and_error)
{
    bus.fail("init", LIBUSB_ERROR_OTHER);
    const auto error = support::caught<tool_error>([&] { scan_usb(machine); });
    EXPECT_EQ(error.why().word, kUsbUnavailable.word);
    EXPECT_STREQ(error.what(),
                 "the USB devices cannot be enumerated: libusb_init answers LIBUSB_ERROR_OTHER");
    bus.fail("get_device_list", LIBUSB_ERROR_NO_MEM);
    EXPECT_THROW(scan_usb(machine), tool_error);
}

TEST_F(usb_scan_test, a_device_without_a_descriptor_is_passed_by)
{
    bus.plug(scanner());
    bus.fail("get_device_descriptor", LIBUSB_ERROR_IO);
    EXPECT_TRUE(scan_usb(machine).empty());
}

TEST_F(usb_scan_test, a_device_tells_where_it_stands)
{
    bus.plug(scanner());
    const usb_device device = only_device();
    EXPECT_EQ(ids_of(device), "1a2b:3c4d");
    EXPECT_EQ(device.bus, 1);
    EXPECT_EQ(device.address, 4);
    EXPECT_EQ(device.port_path, "1-2.3");
    EXPECT_EQ(device.node.path, node());
}

TEST_F(usb_scan_test, a_root_hub_has_its_own_name_in_sysfs)
{
    fake_usb::device hub = scanner();
    hub.ports = {};
    bus.plug(hub);
    EXPECT_EQ(only_device().port_path, "usb1");
}

TEST_F(usb_scan_test, texts_are_read_from_a_device_that_may_be_opened)
{
    fake_usb::device device = scanner();
    device.serial = "SN0042";
    device.manufacturer = "Tarvik";
    device.product = "Model X";
    bus.plug(device);
    write_sysfs("1-2.3/serial", "another\n");
    EXPECT_EQ(only_device().serial, "SN0042");
    EXPECT_EQ(only_device().manufacturer, "Tarvik");
    EXPECT_EQ(only_device().product, "Model X");
}

TEST_F(usb_scan_test, texts_come_from_sysfs_when_the_device_may_not_be_opened_as_the_program_would_read_them)
{
    fake_usb::device device = scanner();
    device.serial = "SN0042";
    device.open_error = LIBUSB_ERROR_ACCESS;
    bus.plug(device);
    write_sysfs("1-2.3/serial", "Nr\u00e4\u20ac\U0001F600.\n");
    write_sysfs("1-2.3/product", "Model X\n");
    EXPECT_EQ(only_device().serial, "Nr????.");
    EXPECT_EQ(only_device().product, "Model X");
}

TEST_F(usb_scan_test, a_device_of_no_use_is_not_opened)
{
    fake_usb::device mouse = scanner();
    mouse.configurations[0].interfaces[0][0].interface_class = 3;
    bus.plug(mouse);
    bus.before_call("open", 1, [] { ADD_FAILURE() << "it was opened"; });
    only_device();
}

TEST_F(usb_scan_test, the_usable_interface_is_the_first_with_bulk_endpoints_both_ways)
{
    fake_usb::device device = scanner();
    fake_usb::alt_setting one_way;
    one_way.endpoints = {{0x81}};
    fake_usb::alt_setting both_ways;
    both_ways.interface_number = 1;
    both_ways.endpoints = {{0x83}, {0x04}, {0x85}};
    fake_usb::configuration only;
    only.value = 2;
    only.interfaces = {{one_way}, {fake_usb::alt_setting{1}, both_ways}};
    device.configurations = {only};
    bus.plug(device);
    const auto found = usable_interface_of(only_device());
    ASSERT_TRUE(found);
    EXPECT_EQ(found->configuration, 2);
    EXPECT_EQ(found->number, 1);
    EXPECT_EQ(found->alternate, 1);
    EXPECT_EQ(found->bulk_in, 0x85) << "the last of a direction counts";
    EXPECT_EQ(found->bulk_out, 0x04);
}

TEST_F(usb_scan_test, endpoints_without_descriptors_do_not_count)
{
    fake_usb::device device = scanner();
    device.configurations[0].interfaces[0][0].is_endpoint_array_null = true;
    bus.plug(device);
    EXPECT_FALSE(usable_interface_of(only_device()));
}

TEST_F(usb_scan_test, configurations_end_at_the_first_that_cannot_be_read)
{
    bus.plug(scanner());
    bus.fail("get_config_descriptor", LIBUSB_ERROR_IO);
    EXPECT_TRUE(only_device().configurations.empty());
}

TEST_F(usb_scan_test, the_active_configuration_comes_from_sysfs_where_a_device_may_have_none)
{
    bus.plug(scanner());
    write_sysfs("1-2.3/bConfigurationValue", "1\n");
    EXPECT_EQ(only_device().active_configuration, 1);
    write_sysfs("1-2.3/bConfigurationValue", "\n");
    EXPECT_EQ(only_device().active_configuration, std::nullopt);
}

TEST_F(usb_scan_test, a_missing_node_is_reported_and_held_by_nobody)
{
    bus.plug(scanner());
    EXPECT_FALSE(only_device().node.exists);
    EXPECT_TRUE(find_node_holders(only_device().node, machine).found.empty());
}

TEST_F(usb_scan_test, a_node_tells_owner_mode_and_whether_it_may_be_opened)
{
    bus.plug(scanner());
    write_file(node(), "");
    ASSERT_EQ(chmod(node().c_str(), 0640), 0);
    const device_node found = only_device().node;
    EXPECT_TRUE(found.exists);
    EXPECT_EQ(found.owner.id, geteuid());
    EXPECT_EQ(found.mode_text(), "-rw-r-----");
    EXPECT_TRUE(found.may_open);
}

TEST_F(usb_scan_test, a_kernel_driver_is_named_when_one_is_bound)
{
    bus.plug(scanner());
    write_sysfs("1-2.3/bConfigurationValue", "1\n");
    EXPECT_EQ(kernel_driver_of(only_device(), 0, machine), "");
    bind_driver("1-2.3:1.0", "usblp");
    EXPECT_EQ(kernel_driver_of(only_device(), 0, machine), "usblp");
}

TEST_F(usb_scan_test, the_process_that_holds_a_node_is_found)
{
    bus.plug(scanner());
    write_file(node(), "");
    add_process("17", "other", machine.devices);
    add_process("4711", "tvkintif", node());
    const node_holders holders = find_node_holders(only_device().node, machine);
    ASSERT_EQ(holders.found.size(), 1U);
    EXPECT_EQ(holders.found[0].pid, 4711);
    EXPECT_EQ(holders.found[0].name, "tvkintif");
    EXPECT_TRUE(holders.is_complete);
}

TEST_F(usb_scan_test, a_device_is_told_from_another_by_its_numbers)
{
    device_node null;
    null.path = "/dev/null";
    add_process("17", "other", "/dev/zero");
    add_process("4711", "holder", "/dev/null");
    const node_holders holders = find_node_holders(null, machine);
    ASSERT_EQ(holders.found.size(), 1U);
    EXPECT_EQ(holders.found[0].name, "holder");
}

TEST(udi, has_the_serial_number_unless_that_has_a_colon_and_none_without_both_ids)
{
    usb_device device;
    device.vendor_id = 0x1a2b;
    EXPECT_EQ(udi_of(device), "");
    device.product_id = 0xa71;
    device.serial = "SN 42";
    EXPECT_EQ(udi_of(device), "usb:1a2b:0a71:SN 42");
    device.serial = "A:B";
    EXPECT_EQ(udi_of(device), "usb:1a2b:0a71");
}

TEST(udi, a_shell_word_is_quoted_only_where_it_must_be)
{
    EXPECT_EQ(shell_word("usb:1a2b:3c4d:SN_42"), "usb:1a2b:3c4d:SN_42");
    EXPECT_EQ(shell_word("usb:1a2b:3c4d:it's $5"), "'usb:1a2b:3c4d:it'\\''s $5'");
}

} // namespace

} // namespace tarvik::tvkctl
