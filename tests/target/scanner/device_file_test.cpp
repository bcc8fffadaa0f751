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

TEST(device_file, device_has_strings_when_it_has_a_name_or_a_serial_number)
{
    EXPECT_FALSE(has_strings(read(kWhole)[0]));
    EXPECT_TRUE(has_strings(read(kWhole + "maker Nobody\n")[0]));
    EXPECT_TRUE(has_strings(read(kWhole + "serial SN1\n")[0]));
    EXPECT_EQ(model_of(read(kWhole + "serial SN1\n")[0]), "Virtual scanner");
}

TEST(device_file, describes_several_devices)
{
    EXPECT_EQ(read(kWhole + "device two\nvendor 1\nproduct 2\ninterface ff 0 ff\nunplugged\n").size(), 2U);
}

TEST(device_file, leaves_a_device_unplugged_that_says_so_and_plugs_it_in_later)
{
    EXPECT_FALSE(read(kWhole + "unplugged\n")[0].starts_plugged);
    EXPECT_EQ(read(kWhole + "unplugged\nplug after 7000\n")[0].plugged_after_ms, 7000U);
}

TEST(device_file, plans_faults_with_and_without_an_amount)
{
    const auto faults = read(kServing + "fault stall-in 3\nfault short-answer 1 100\n")[0].faults;
    ASSERT_EQ(faults.size(), 2U);
    EXPECT_EQ(faults[0].what.kind, fault_kind::stall_in);
    EXPECT_EQ(faults[0].what.amount, std::nullopt);
    EXPECT_EQ(faults[0].at_command, 3U);
    EXPECT_EQ(faults[1].what.amount, 100U);
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

TEST(device_file, takes_what_only_resembles_a_mistake)
{
    const std::string another = "device two\nvendor 1\nproduct 2\ninterface 8 6 50\n";
    EXPECT_EQ(complaint("# a scanner\n\n" + kWhole + "serial SN7 # of 2019\n"), "");
    EXPECT_EQ(complaint(kWhole + "serial SN1\n" + another + "serial SN2\n"), "");
    EXPECT_EQ(complaint(kServing + "fault silence 1\nanswer sheet 1\nfirmware 2\n" + another), "");
}

TEST(device_file, gives_answers_with_and_without_data_to_the_commands_that_it_names_alone)
{
    const auto answers = read(kServing + "answer status 5 2A 00 ff\nanswer read-lines 1\n")[0].answers;
    ASSERT_EQ(answers.size(), 2U);
    EXPECT_EQ(answers.at(command_code::status).status, static_cast<answer_status>(5));
    EXPECT_EQ(answers.at(command_code::status).data, (bytes{0x2A, 0x00, 0xFF}));
    EXPECT_EQ(answers.at(command_code::read_lines).data, bytes());
}

TEST(device_file, tells_the_firmware_or_ours_where_none_is_named)
{
    EXPECT_EQ(read(kServing)[0].firmware, "1.0");
    for (const std::string text : {"0.9 beta", "1234567890123456"}) // the longest that there is room for
        EXPECT_EQ(read(kServing + "firmware " + text + "\n")[0].firmware, text);
}

TEST(device_file, refuses_an_unknown_fault)
{
    const std::string said = complaint(kServing + "fault fire 1\n");
    EXPECT_EQ(said.rfind("a.device:7: \"fire\" is none of: ", 0), 0U) << said;
}

namespace {

struct wrong_file {
    const char* name;
    std::string text;
    const char* complaint; ///< behind the name of the file
};

class wrong_device_file : public testing::TestWithParam<wrong_file> {};

const wrong_file kWrongFiles[] = {
    {"unknown_keyword", "device one\ncolour red\n", "2: unknown keyword \"colour\""},
    {"wrong_number", "device one\nvendor 12345\n",
     "2: \"12345\" is not a number from 0 to 65535 in hexadecimal"},
    {"missing_values", "device one\ninterface ff 00\n", "2: \"interface\" takes 3 values, not 2"},
    {"unknown_word", kWhole + "endpoint bulk up\n", "5: \"up\" is none of: in out"},
    {"endpoint_without_an_interface", "device one\nendpoint bulk in\n",
     "2: an endpoint needs an interface before it"},
    {"line_before_the_first_device", "vendor 1a2b\n", "1: the first line must be \"device NAME\""},
    {"device_without_ids", "device one\ninterface ff 00 ff\n",
     "1: device \"one\" needs a vendor and a product other than 0"},
    {"device_without_an_interface", "device one\nvendor 1\nproduct 2\n",
     "1: device \"one\" needs an interface"},
    {"device_without_an_interface_before_another", "device one\nvendor 1\nproduct 2\n\n" + kWhole,
     "1: device \"one\" needs an interface"},
    {"two_devices_of_one_name", kWhole + kWhole, "5: there is a device \"one\" already"},
    {"name_that_cannot_be_a_file_name", "device ../one\n",
     "1: a device's name is made of letters, digits, - and _"},
    {"second_serial_number", kWhole + "serial SN1\nserial SN2\n",
     "6: \"serial\" was said of device \"one\" before"},
    {"configuration_without_an_interface",
     "device one\nvendor 1\nproduct 2\nconfiguration 1\nconfiguration 2\ninterface 8 6 50\n",
     "4: this configuration has no interface"},
    {"last_configuration_without_an_interface", kWhole + "configuration 2\nserial SN1\n",
     "5: this configuration has no interface"},
    {"two_configurations_of_one_value", kWhole + "configuration 1\n",
     "5: device \"one\" has a configuration 1 already"},
    {"configuration_0", "device one\nconfiguration 0\n", "2: configurations are counted from 1; 0 is none"},
    {"endpoint_before_the_interface_of_its_configuration", kWhole + "configuration 2\nendpoint bulk in\n",
     "6: an endpoint needs an interface before it"},
    {"plugging_in_later_of_what_is_plugged_in", kWhole + "plug after 10\nserial SN1\n",
     "5: device \"one\" is plugged in from the start, unless it is said to be \"unplugged\""},
    {"another_time_to_plug_in_than_after", kWhole + "plug before 10\n", "5: \"before\" is not \"after\""},
    {"fault_of_a_device_that_serves_nothing", kWhole + "endpoint bulk in\nfault silence 1\nserial SN1\n",
     "6: device \"one\" serves no commands that a fault could strike: it has no interface ff .. "
     "ff with bulk endpoints both ways"},
    {"answer_to_an_unknown_command", kServing + "answer sing 0\n",
     "7: \"sing\" is none of: checksum echo identify read-lines read-pattern sheet status"},
    {"answer_without_its_status", kServing + "answer status\n",
     "7: \"answer\" takes 2 or more values, not 1"},
    {"answer_whose_status_is_not_a_number", kServing + "answer status done\n",
     "7: \"done\" is not a number from 0 to 4294967295"},
    {"answer_whose_data_are_not_bytes", kServing + "answer status 0 12 100\n",
     "7: \"100\" is not a number from 0 to 255 in hexadecimal"},
    {"two_answers_to_one_command", kServing + "answer status 1\nanswer status 2\n",
     "8: device \"one\" has an answer to status already"},
    {"answer_of_a_device_that_serves_nothing", kWhole + "answer status 0\nanswer sheet 1\n",
     "5: device \"one\" serves no commands that it could answer: it has no interface ff .. "
     "ff with bulk endpoints both ways"},
    {"firmware_that_is_too_long", kServing + "firmware 12345678 01234567\n",
     "7: \"12345678 01234567\" has 17 bytes; the identification has room for 16"},
    {"firmware_without_its_text", kServing + "firmware\n", "7: \"firmware\" takes 1 or more values, not 0"},
    {"second_firmware", kServing + "firmware 1\nfirmware 2\n",
     "8: \"firmware\" was said of device \"one\" before"},
    {"firmware_of_a_device_that_serves_nothing", kWhole + "firmware 2\nserial SN1\n",
     "5: device \"one\" serves no commands whose answer could tell its firmware: it has no "
     "interface ff .. ff with bulk endpoints both ways"},
    {"fault_of_the_command_before_the_first", kServing + "fault stall-in 0\n",
     "7: commands are counted from 1"},
    {"amount_of_a_fault_that_has_none", kServing + "fault stall-in 1 5\n",
     "7: the fault stall-in takes no amount"},
    {"delay_without_its_length", kServing + "fault delay 1\n", "7: the fault delay needs an amount"},
    {"more_values_than_a_fault_takes", kServing + "fault delay 1 2 3\n",
     "7: \"fault\" takes 2 or 3 values, not 4"},
    {"empty_file", "", "0: no device is described"},
    {"answer_to_the_command_that_arms_faults", kServing + "answer fault 0\n",
     "7: \"fault\" is none of: checksum echo identify read-lines read-pattern sheet status"},
};

} // namespace

TEST_P(wrong_device_file, is_refused_with_line_and_reason)
{
    EXPECT_EQ(complaint(GetParam().text), std::string("a.device:") + GetParam().complaint);
}

INSTANTIATE_TEST_SUITE_P(, wrong_device_file, testing::ValuesIn(kWrongFiles),
                         [](const auto& test) { return test.param.name; });

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
