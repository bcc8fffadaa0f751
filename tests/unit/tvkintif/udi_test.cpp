#include "tvkintif/src/udi.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

using namespace std::string_literals;

namespace {

struct example {
    const char* name;
    std::string address;
    std::uint16_t vendor_id;
    std::uint16_t product_id;
    std::string serial;
    std::uint8_t bus_number;
    std::uint8_t device_number;
};

void PrintTo(const example& shown, std::ostream* out)
{
    *out << "'" << shown.address << "'";
}

const std::vector<example> kUdis = {
    {"ids", "usb:1a2b:3c4d", 0x1A2B, 0x3C4D, "", 0, 0},
    {"ids_and_serial", "usb:1a2b:3c4d:SN0042", 0x1A2B, 0x3C4D, "SN0042", 0, 0},
    {"ids_bus_and_device", "usb:1a2b:3c4d:002:005", 0x1A2B, 0x3C4D, "002", 0x02, 0x05},
    {"device_number_beyond_8_bits", "usb:1a2b:3c4d:1f:1ff", 0x1A2B, 0x3C4D, "1f", 0x1F, 0xFF},
    {"vendor_id_only", "usb:1a2b", 0x1A2B, 0, "", 0, 0},
    {"empty_product_id", "usb:1a2b:", 0x1A2B, 0, "", 0, 0},
    {"colon_at_the_end", "usb:1a2b:3c4d:", 0x1A2B, 0x3C4D, "", 0, 0},
    {"empty_vendor_id", "usb::3c4d", 0, 0x3C4D, "", 0, 0},
    {"hexadecimal_prefix", "usb:0x1a2b:3c4d", 0x1A2B, 0x3C4D, "", 0, 0},
    {"product_id_of_five_digits", "usb:1a2b:13c4d", 0x1A2B, 0, "", 0, 0},
    {"product_id_with_a_foreign_character", "usb:1a2b:3c4g", 0x1A2B, 0, "", 0, 0},
    {"prefix_in_upper_case", "USB:1a2b:3c4d:SN0042", 0, 0, "SN0042", 0, 0},
    {"other_prefix", "net:1a2b:3c4d:SN0042:7", 0, 0, "SN0042", 0, 0x07},

    {"hexadecimal_prefix_in_upper_case", "usb:0X1a2b:0X3c4d", 0x1A2B, 0x3C4D, "", 0, 0},
    {"digits_in_upper_case", "usb:1A2B:3C4D", 0x1A2B, 0x3C4D, "", 0, 0},
    {"leading_white_space", "usb: 1a2b:\t3c4d", 0x1A2B, 0x3C4D, "", 0, 0},
    {"trailing_white_space", "usb:1a2b :3c4d ", 0, 0, "", 0, 0},
    {"plus_sign", "usb:+1a2b:+3c4d", 0x1A2B, 0x3C4D, "", 0, 0},
    {"minus_sign", "usb:-1a2b:-3c4d", 0, 0, "", 0, 0},
    {"leading_zeros", "usb:00001a2b:00003c4d", 0x1A2B, 0x3C4D, "", 0, 0},
    {"more_leading_zeros_than_a_number_has_digits", "usb:0000000001a2b:0000000003c4d", 0x1A2B, 0x3C4D, "", 0,
     0},
    {"longer_than_256", "usb:1a2b:3c4d:" + std::string(300, 'S'), 0x1A2B, 0x3C4D, std::string(300, 'S'), 0,
     0},
    {"greatest_ids", "usb:ffff:ffff", 0xFFFF, 0xFFFF, "", 0, 0},
    {"ids_just_too_great", "usb:10000:10000", 0, 0, "", 0, 0},
    {"ids_too_great_for_any_number", "usb:123456789abcdef012:123456789abcdef012", 0, 0, "", 0, 0},
    {"terminator_behind_the_product_id", "usb:1a2b:3c4d\0"s, 0x1A2B, 0x3C4D, "", 0, 0},
    {"terminator_behind_the_vendor_id", "usb:1a2b\0"s, 0x1A2B, 0, "", 0, 0},
    {"terminator_behind_the_serial", "usb:1a2b:3c4d:SN0042\0"s, 0x1A2B, 0x3C4D, "SN0042\0"s, 0, 0},
    {"terminator_behind_the_device_number", "usb:1a2b:3c4d:2:5\0"s, 0x1A2B, 0x3C4D, "2", 2, 5},
    {"text_behind_terminators", "usb:1a2b\0g:3c4d\0g:2\0g:5\0g"s, 0x1A2B, 0x3C4D, "2\0g"s, 2, 5},
    {"terminator_before_the_ids", "usb:\0001a2b:\0003c4d"s, 0, 0, "", 0, 0},
    {"empty", "", 0, 0, "", 0, 0},
    {"prefix_only", "usb:", 0, 0, "", 0, 0},
    {"prefix_without_colon", "usb", 0, 0, "", 0, 0},
    {"longer_prefix", "usbx:1a2b:3c4d", 0, 0, "", 0, 0},
    {"prefix_not_at_the_start", " usb:1a2b:3c4d", 0, 0, "", 0, 0},
    {"empty_field_3", "usb:1a2b:3c4d::5", 0x1A2B, 0x3C4D, "", 0, 5},
    {"colons_at_the_end", "usb:1a2b:3c4d::", 0x1A2B, 0x3C4D, "", 0, 0},
    {"colon_behind_the_bus_number", "usb:1a2b:3c4d:2:", 0x1A2B, 0x3C4D, "2", 0, 0},
    {"bus_number_beyond_8_bits", "usb:1a2b:3c4d:100:1", 0x1A2B, 0x3C4D, "100", 0, 1},
    {"bus_and_device_that_are_no_numbers", "usb:1a2b:3c4d:x:y", 0x1A2B, 0x3C4D, "x", 0, 0},
    {"bus_and_device_that_begin_as_numbers", "usb:1a2b:3c4d:2x:5.", 0x1A2B, 0x3C4D, "2x", 2, 5},
    {"sixth_field", "usb:1a2b:3c4d:2:5:9", 0x1A2B, 0x3C4D, "2", 2, 5},
    {"serial_with_blanks", "usb:1a2b:3c4d: S N ", 0x1A2B, 0x3C4D, " S N ", 0, 0},
};

class udi_test : public testing::TestWithParam<example> {};

TEST_P(udi_test, get_vid_reads_field_1)
{
    EXPECT_EQ(get_vid(GetParam().address), GetParam().vendor_id);
}

TEST_P(udi_test, get_pid_reads_field_2)
{
    EXPECT_EQ(get_pid(GetParam().address), GetParam().product_id);
}

TEST_P(udi_test, get_device_serial_reads_field_3)
{
    EXPECT_EQ(get_device_serial(GetParam().address), GetParam().serial);
}

TEST_P(udi_test, get_bus_number_reads_field_3_when_there_is_a_field_4)
{
    EXPECT_EQ(get_bus_number(GetParam().address), GetParam().bus_number);
}

TEST_P(udi_test, get_device_number_reads_field_4)
{
    EXPECT_EQ(get_device_number(GetParam().address), GetParam().device_number);
}

TEST_P(udi_test, text_is_kept_as_it_came)
{
    EXPECT_EQ(udi(GetParam().address).text, GetParam().address);
}

TEST_P(udi_test, is_valid_when_both_ids_could_be_read)
{
    EXPECT_EQ(udi(GetParam().address).is_valid(), GetParam().vendor_id != 0 && GetParam().product_id != 0);
}

INSTANTIATE_TEST_SUITE_P(of, udi_test, testing::ValuesIn(kUdis),
                         [](const auto& chosen) { return chosen.param.name; });

} // namespace
