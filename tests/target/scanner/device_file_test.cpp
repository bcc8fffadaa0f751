#include "target/scanner/device_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
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

const std::string kWhole = "device one\nvendor 1a2b\nproduct 3c4d\ninterface ff 00 ff\n"; // 4 lines
const std::string kServing = kWhole + "endpoint bulk out\nendpoint bulk in\n";            // 6 lines

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
    EXPECT_EQ(model_of(device), "Big scanner");
    ASSERT_EQ(device.configurations[0].interfaces.size(), 1U);
    EXPECT_EQ(device.configurations[0].interfaces[0].interface_class, 0xFF);
    EXPECT_EQ(device.configurations[0].interfaces[0].protocol, 0xFF);
    ASSERT_EQ(device.configurations[0].interfaces[0].endpoints.size(), 2U);
    EXPECT_EQ(device.configurations[0].interfaces[0].endpoints[0].direction, endpoint_direction::out);
    EXPECT_EQ(device.configurations[0].interfaces[0].endpoints[1].type, endpoint_type::interrupt);
}

TEST(device_file, device_without_names_and_serial_number_has_no_strings)
{
    EXPECT_FALSE(has_strings(read(kWhole)[0]));
}

TEST(device_file, device_with_a_name_has_strings)
{
    EXPECT_TRUE(has_strings(read(kWhole + "maker Nobody\n")[0]));
}

TEST(device_file, device_with_a_serial_number_has_a_name_of_ours)
{
    const device_description device = read(kWhole + "serial SN1\n")[0];
    EXPECT_TRUE(has_strings(device));
    EXPECT_EQ(model_of(device), "Virtual scanner");
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
    const auto faults = read(kServing + "fault stall-in 3\n")[0].faults;
    ASSERT_EQ(faults.size(), 1U);
    EXPECT_EQ(faults[0].what.kind, fault_kind::stall_in);
    EXPECT_EQ(faults[0].what.amount, std::nullopt);
    EXPECT_EQ(faults[0].at_command, 3U);
}

TEST(device_file, plans_a_fault_with_its_amount)
{
    const auto faults = read(kServing + "fault short-answer 1 100\n")[0].faults;
    ASSERT_EQ(faults.size(), 1U);
    EXPECT_EQ(faults[0].what.amount, 100U);
}

TEST(device_file, plugs_a_device_in_later)
{
    const device_description device = read(kWhole + "unplugged\nplug after 7000\n")[0];
    EXPECT_FALSE(device.starts_plugged);
    EXPECT_EQ(device.plugged_after_ms, 7000U);
}

TEST(device_file, has_one_configuration_where_none_is_named)
{
    const auto configurations = read(kWhole)[0].configurations;
    ASSERT_EQ(configurations.size(), 1U);
    EXPECT_EQ(configurations[0].value, 1);
}

TEST(device_file, puts_interfaces_into_the_configuration_before_them)
{
    const auto configurations = read("device one\nvendor 1\nproduct 2\nconfiguration 3\ninterface 8 6 50\n"
                                     "configuration 1\ninterface ff 0 ff\ninterface ff 1 ff\n")[0]
                                    .configurations;
    ASSERT_EQ(configurations.size(), 2U);
    EXPECT_EQ(configurations[0].value, 3);
    EXPECT_EQ(configurations[0].interfaces.size(), 1U);
    EXPECT_EQ(configurations[1].value, 1);
    EXPECT_EQ(configurations[1].interfaces.size(), 2U);
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
              "a.device:1: device \"one\" needs a vendor and a product other than 0");
}

TEST(device_file, refuses_a_device_without_an_interface)
{
    EXPECT_EQ(complaint("device one\nvendor 1\nproduct 2\n"),
              "a.device:1: device \"one\" needs an interface");
}

TEST(device_file, blames_the_device_that_is_wrong_and_not_the_next_one)
{
    EXPECT_EQ(complaint("device one\nvendor 1\nproduct 2\n\n" + kWhole),
              "a.device:1: device \"one\" needs an interface");
}

TEST(device_file, refuses_two_devices_of_one_name)
{
    EXPECT_EQ(complaint(kWhole + kWhole), "a.device:5: there is a device \"one\" already");
}

TEST(device_file, refuses_a_name_that_cannot_be_a_file_name)
{
    EXPECT_EQ(complaint("device ../one\n"),
              "a.device:1: a device's name is made of letters, digits, - and _");
}

TEST(device_file, refuses_a_second_serial_number)
{
    EXPECT_EQ(complaint(kWhole + "serial SN1\nserial SN2\n"),
              "a.device:6: \"serial\" was said of device \"one\" before");
}

TEST(device_file, lets_two_devices_have_a_serial_number_each)
{
    EXPECT_EQ(
        complaint(kWhole + "serial SN1\ndevice two\nvendor 1\nproduct 2\nserial SN2\ninterface 8 6 50\n"),
        "");
}

TEST(device_file, refuses_a_configuration_without_an_interface)
{
    EXPECT_EQ(
        complaint("device one\nvendor 1\nproduct 2\nconfiguration 1\nconfiguration 2\ninterface 8 6 50\n"),
        "a.device:4: this configuration has no interface");
}

TEST(device_file, refuses_a_last_configuration_without_an_interface)
{
    EXPECT_EQ(complaint(kWhole + "configuration 2\nserial SN1\n"),
              "a.device:5: this configuration has no interface");
}

TEST(device_file, refuses_two_configurations_of_one_value)
{
    EXPECT_EQ(complaint(kWhole + "configuration 1\n"),
              "a.device:5: device \"one\" has a configuration 1 already");
}

TEST(device_file, refuses_configuration_0)
{
    EXPECT_EQ(complaint("device one\nconfiguration 0\n"),
              "a.device:2: configurations are counted from 1; 0 is none");
}

TEST(device_file, refuses_an_endpoint_before_the_interface_of_its_configuration)
{
    EXPECT_EQ(complaint(kWhole + "configuration 2\nendpoint bulk in\n"),
              "a.device:6: an endpoint needs an interface before it");
}

TEST(device_file, refuses_to_plug_in_later_what_is_plugged_in_from_the_start)
{
    EXPECT_EQ(
        complaint(kWhole + "plug after 10\nserial SN1\n"),
        "a.device:5: device \"one\" is plugged in from the start, unless it is said to be \"unplugged\"");
}

TEST(device_file, refuses_another_time_to_plug_in_than_after)
{
    EXPECT_EQ(complaint(kWhole + "plug before 10\n"), "a.device:5: \"before\" is not \"after\"");
}

TEST(device_file, refuses_a_fault_of_a_device_that_serves_nothing)
{
    EXPECT_EQ(
        complaint(kWhole + "endpoint bulk in\nfault silence 1\nserial SN1\n"),
        "a.device:6: device \"one\" serves no commands that a fault could strike: it has no interface ff .. "
        "ff with bulk endpoints both ways");
}

TEST(device_file, gives_an_answer_to_a_command)
{
    const auto answers = read(kServing + "answer status 5 2A 00 ff\n")[0].answers;
    ASSERT_EQ(answers.count(command_code::status), 1U);
    EXPECT_EQ(answers.at(command_code::status).status, static_cast<answer_status>(5));
    EXPECT_EQ(answers.at(command_code::status).data, (bytes{0x2A, 0x00, 0xFF}));
}

TEST(device_file, gives_an_answer_without_data)
{
    const auto answers = read(kServing + "answer read-lines 1\n")[0].answers;
    ASSERT_EQ(answers.count(command_code::read_lines), 1U);
    EXPECT_EQ(answers.at(command_code::read_lines).data, bytes());
}

TEST(device_file, leaves_commands_to_the_scanner_that_it_gives_no_answer_to)
{
    EXPECT_EQ(read(kServing + "answer sheet 1\n")[0].answers.count(command_code::status), 0U);
}

TEST(device_file, refuses_an_answer_to_an_unknown_command)
{
    EXPECT_EQ(complaint(kServing + "answer sing 0\n"),
              "a.device:7: \"sing\" is none of: checksum echo identify read-lines read-pattern sheet status");
}

TEST(device_file, refuses_an_answer_to_the_command_that_arms_faults)
{
    const std::string said = complaint(kServing + "answer fault 0\n");
    EXPECT_EQ(said.rfind("a.device:7: \"fault\" is none of: ", 0), 0U) << said;
}

TEST(device_file, refuses_an_answer_without_its_status)
{
    EXPECT_EQ(complaint(kServing + "answer status\n"),
              "a.device:7: \"answer\" takes 2 or more values, not 1");
}

TEST(device_file, refuses_an_answer_whose_status_is_not_a_number)
{
    EXPECT_EQ(complaint(kServing + "answer status done\n"),
              "a.device:7: \"done\" is not a number from 0 to 4294967295");
}

TEST(device_file, refuses_an_answer_whose_data_are_not_bytes)
{
    EXPECT_EQ(complaint(kServing + "answer status 0 12 100\n"),
              "a.device:7: \"100\" is not a number from 0 to 255 in hexadecimal");
}

TEST(device_file, refuses_two_answers_to_one_command)
{
    EXPECT_EQ(complaint(kServing + "answer status 1\nanswer status 2\n"),
              "a.device:8: device \"one\" has an answer to status already");
}

TEST(device_file, refuses_an_answer_of_a_device_that_serves_nothing)
{
    EXPECT_EQ(complaint(kWhole + "answer status 0\nanswer sheet 1\n"),
              "a.device:5: device \"one\" serves no commands that it could answer: it has no interface ff .. "
              "ff with bulk endpoints both ways");
}

TEST(device_file, tells_the_firmware)
{
    EXPECT_EQ(read(kServing + "firmware 0.9 beta\n")[0].firmware, "0.9 beta");
}

TEST(device_file, has_firmware_of_ours_where_none_is_named)
{
    EXPECT_EQ(read(kServing)[0].firmware, "1.0");
}

TEST(device_file, takes_the_longest_firmware_that_the_identification_has_room_for)
{
    EXPECT_EQ(read(kServing + "firmware 1234567890123456\n")[0].firmware, "1234567890123456");
}

TEST(device_file, refuses_a_firmware_that_is_too_long)
{
    EXPECT_EQ(complaint(kServing + "firmware 12345678 01234567\n"),
              "a.device:7: \"12345678 01234567\" has 17 bytes; the identification has room for 16");
}

TEST(device_file, refuses_a_firmware_without_its_text)
{
    EXPECT_EQ(complaint(kServing + "firmware\n"), "a.device:7: \"firmware\" takes 1 or more values, not 0");
}

TEST(device_file, refuses_a_second_firmware)
{
    EXPECT_EQ(complaint(kServing + "firmware 1\nfirmware 2\n"),
              "a.device:8: \"firmware\" was said of device \"one\" before");
}

TEST(device_file, refuses_a_firmware_of_a_device_that_serves_nothing)
{
    EXPECT_EQ(complaint(kWhole + "firmware 2\nserial SN1\n"),
              "a.device:5: device \"one\" serves no commands whose answer could tell its firmware: it has no "
              "interface ff .. ff with bulk endpoints both ways");
}

TEST(device_file, lets_a_device_serve_nothing_after_one_with_fault_answer_and_firmware)
{
    EXPECT_EQ(complaint(kServing + "fault silence 1\nanswer sheet 1\nfirmware 2\n" +
                        "device two\nvendor 1\nproduct 2\ninterface 8 6 50\n"),
              "");
}

TEST(device_file, refuses_an_unknown_fault)
{
    const std::string said = complaint(kServing + "fault fire 1\n");
    EXPECT_EQ(said.rfind("a.device:7: \"fire\" is none of: ", 0), 0U) << said;
}

TEST(device_file, refuses_a_fault_of_the_command_before_the_first)
{
    EXPECT_EQ(complaint(kServing + "fault stall-in 0\n"), "a.device:7: commands are counted from 1");
}

TEST(device_file, refuses_an_amount_of_a_fault_that_has_none)
{
    EXPECT_EQ(complaint(kServing + "fault stall-in 1 5\n"), "a.device:7: the fault stall-in takes no amount");
}

TEST(device_file, refuses_a_delay_without_its_length)
{
    EXPECT_EQ(complaint(kServing + "fault delay 1\n"), "a.device:7: the fault delay needs an amount");
}

TEST(device_file, refuses_more_values_than_a_fault_takes)
{
    EXPECT_EQ(complaint(kServing + "fault delay 1 2 3\n"),
              "a.device:7: \"fault\" takes 2 or 3 values, not 4");
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
