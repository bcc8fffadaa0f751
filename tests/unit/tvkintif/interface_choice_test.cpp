#include "tvkintif/src/interface_choice.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <utility>
#include <vector>

namespace {

constexpr usb_endpoint kBulkIn = {0x81, 2};
constexpr usb_endpoint kBulkOut = {0x02, 2};

usb_setting setting(int interface, std::vector<usb_endpoint> endpoints = {kBulkIn, kBulkOut})
{
    return {interface, 0, 0xFF, 0, 0xFF, std::move(endpoints)};
}

interface_choice choose(std::vector<usb_setting> settings)
{
    return choose_interface({1, std::move(settings)});
}

std::vector<setting_flaw> flaws_of(const interface_choice& choice)
{
    std::vector<setting_flaw> all;
    for (const passed_over_setting& each : choice.passed_over)
        all.push_back(each.flaw);
    return all;
}

using flaws = std::vector<setting_flaw>;

TEST(interface_choice, tells_where_the_interface_stands_and_its_endpoints)
{
    usb_setting only = setting(4, {{0x83, 2}, {0x05, 2}});
    only.alternate = 3;
    const interface_choice choice = choose_interface({2, {only}});

    ASSERT_TRUE(choice.used);
    EXPECT_EQ(choice.used->configuration, 2);
    EXPECT_EQ(choice.used->number, 4);
    EXPECT_EQ(choice.used->alternate, 3);
    EXPECT_EQ(choice.used->bulk_in, 0x83);
    EXPECT_EQ(choice.used->bulk_out, 0x05);
    EXPECT_TRUE(choice.passed_over.empty());
}

TEST(interface_choice, takes_the_first_that_fits_and_tells_those_before_it_alone)
{
    const interface_choice choice = choose({setting(7, {kBulkIn}), setting(8), setting(9), setting(10, {})});

    ASSERT_TRUE(choice.used);
    EXPECT_EQ(choice.used->number, 8);
    ASSERT_EQ(choice.passed_over.size(), 1U);
    EXPECT_EQ(choice.passed_over[0].setting.interface_number, 7);
}

TEST(interface_choice, of_a_configuration_without_settings_is_none)
{
    const interface_choice choice = choose({});

    EXPECT_FALSE(choice.used);
    EXPECT_TRUE(choice.passed_over.empty());
}

TEST(interface_choice, passes_over_other_classes_and_protocols)
{
    usb_setting printer = setting(0);
    printer.interface_class = 0x07;
    usb_setting other_protocol = setting(0);
    other_protocol.interface_protocol = 0;
    const interface_choice choice = choose({printer, other_protocol});

    EXPECT_FALSE(choice.used);
    EXPECT_EQ(flaws_of(choice),
              (flaws{setting_flaw::not_vendor_specific, setting_flaw::not_vendor_specific}));
}

TEST(interface_choice, does_not_look_at_the_subclass)
{
    usb_setting odd = setting(0);
    odd.interface_subclass = 0x5A;

    EXPECT_TRUE(choose({odd}).used);
}

TEST(interface_choice, tells_which_endpoint_is_missing)
{
    const interface_choice choice = choose({setting(0, {kBulkIn}), setting(0, {kBulkOut}), setting(0, {})});

    EXPECT_FALSE(choice.used);
    EXPECT_EQ(flaws_of(choice),
              (flaws{setting_flaw::no_bulk_out, setting_flaw::no_bulk_in, setting_flaw::no_bulk_endpoint}));
}

TEST(interface_choice, takes_of_each_direction_the_last_bulk_endpoint)
{
    const interface_choice choice = choose({setting(0, {{0x81, 2}, {0x02, 2}, {0x83, 2}, {0x04, 2}})});

    ASSERT_TRUE(choice.used);
    EXPECT_EQ(choice.used->bulk_in, 0x83);
    EXPECT_EQ(choice.used->bulk_out, 0x04);
}

TEST(interface_choice, does_not_count_endpoints_of_other_transfer_types)
{
    const interface_choice choice = choose({setting(0, {{0x81, 0}, {0x82, 1}, {0x83, 3}, kBulkOut})});

    EXPECT_EQ(flaws_of(choice), flaws{setting_flaw::no_bulk_in});
}

TEST(interface_choice, reads_the_transfer_type_from_the_low_two_bits_of_the_attributes)
{
    const interface_choice choice = choose({setting(0, {{0x81, 0xFE}, {0x02, 0x06}, {0x83, 0x07}})});

    ASSERT_TRUE(choice.used);
    EXPECT_EQ(choice.used->bulk_in, 0x81);
    EXPECT_EQ(choice.used->bulk_out, 0x02);
}

} // namespace
