#include "target/scanner/device_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

using namespace virtual_scanner;

namespace {

std::vector<device_description> read(const std::string& text)
{
    std::istringstream stream(text);
    return read_devices(stream, "a.device");
}

/// What is said about a wrong file; empty when nothing is wrong with it.
std::string complaint(const std::string& text)
{
    try {
        read(text);
        return "";
    } catch (const device_file_error& error) {
        return error.what();
    }
}

const std::string kWhole = "device one\nvendor 1a2b\nproduct 3c4d\ninterface ff 00 ff\n";

} // namespace

TEST(device_file, describes_a_device_with_its_interface_and_endpoints)
{
    const auto devices =
        read(kWhole + "serial SN7\nmodel Big scanner\nendpoint bulk out\nendpoint interrupt in\n");
    ASSERT_EQ(devices.size(), 1U);
    const device_description& device = devices[0];
    EXPECT_EQ(device.name, "one");
    EXPECT_EQ(device.vendor, 0x1A2B);
    EXPECT_EQ(device.product, 0x3C4D);
    EXPECT_EQ(device.serial, "SN7");
    EXPECT_EQ(device.model, "Big scanner");
    ASSERT_EQ(device.interfaces.size(), 1U);
    EXPECT_EQ(device.interfaces[0].interface_class, 0xFF);
    EXPECT_EQ(device.interfaces[0].protocol, 0xFF);
    ASSERT_EQ(device.interfaces[0].endpoints.size(), 2U);
    EXPECT_EQ(device.interfaces[0].endpoints[0].direction, endpoint_direction::out);
    EXPECT_EQ(device.interfaces[0].endpoints[1].type, endpoint_type::interrupt);
}

TEST(device_file, device_without_a_serial_line_has_none)
{
    EXPECT_EQ(read(kWhole)[0].serial, "");
}

TEST(device_file, describes_several_devices)
{
    EXPECT_EQ(read(kWhole + "device two\nvendor 1\nproduct 2\ninterface ff 0 ff\nunplugged\n").size(), 2U);
}

TEST(device_file, leaves_a_device_unplugged_that_says_so)
{
    EXPECT_FALSE(read(kWhole + "unplugged\n")[0].starts_plugged);
}

TEST(device_file, plans_a_fault)
{
    const auto faults = read(kWhole + "fault stall-in 3\n")[0].faults;
    ASSERT_EQ(faults.size(), 1U);
    EXPECT_EQ(faults[0].kind, fault_kind::stall_in);
    EXPECT_EQ(faults[0].at_command, 3U);
}

TEST(device_file, ignores_comments_and_empty_lines)
{
    EXPECT_EQ(complaint("# a scanner\n\n" + kWhole + "serial SN7 # of 2019\n"), "");
}

TEST(device_file, names_line_and_reason_of_an_unknown_keyword)
{
    EXPECT_EQ(complaint("device one\ncolour red\n"), "a.device:2: unknown keyword \"colour\"");
}

TEST(device_file, names_line_and_reason_of_a_wrong_number)
{
    EXPECT_EQ(complaint("device one\nvendor 12345\n"),
              "a.device:2: \"12345\" is not a number from 0 to 65535 in hexadecimal");
}

TEST(device_file, names_line_and_reason_of_missing_values)
{
    EXPECT_EQ(complaint("device one\ninterface ff 00\n"), "a.device:2: \"interface\" takes 3 values, not 2");
}

TEST(device_file, names_line_and_reason_of_an_unknown_word)
{
    EXPECT_EQ(complaint(kWhole + "endpoint bulk up\n"), "a.device:5: \"up\" is none of: in out");
}

TEST(device_file, refuses_an_endpoint_without_an_interface)
{
    EXPECT_EQ(complaint("device one\nendpoint bulk in\n"),
              "a.device:2: an endpoint needs an interface before it");
}

TEST(device_file, refuses_a_line_before_the_first_device)
{
    EXPECT_EQ(complaint("vendor 1a2b\n"), "a.device:1: the first line must be \"device NAME\"");
}

TEST(device_file, refuses_a_device_without_ids)
{
    EXPECT_EQ(complaint("device one\ninterface ff 00 ff\n"),
              "a.device:2: device \"one\" needs a vendor and a product other than 0");
}

TEST(device_file, refuses_an_empty_file)
{
    EXPECT_EQ(complaint(""), "a.device:0: no device is described");
}

TEST(device_file, every_device_file_of_the_machine_can_be_read)
{
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(DEVICE_FILES)) {
        std::ifstream file(entry.path());
        EXPECT_NO_THROW(read_devices(file, entry.path())) << entry.path();
        ++count;
    }
    EXPECT_GT(count, 0);
}
