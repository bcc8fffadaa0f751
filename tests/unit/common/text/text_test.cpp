#include "common/text/text.h"

#include <gtest/gtest.h>

namespace tarvik {

namespace {

using parts = std::vector<std::string>;

TEST(text, hexadecimal_is_as_long_as_it_has_to_be)
{
    EXPECT_EQ(hexadecimal(0x1a2b), "1a2b");
    EXPECT_EQ(hexadecimal(0), "0");
}

TEST(text, hexadecimal_is_filled_with_zeros)
{
    EXPECT_EQ(hexadecimal(0xa, 4), "000a");
    EXPECT_EQ(hexadecimal(0, 2), "00");
}

TEST(text, hexadecimal_that_is_longer_than_asked_for_is_whole)
{
    EXPECT_EQ(hexadecimal(0xfedcba9876543210, 2), "fedcba9876543210");
}

TEST(text, only_one_is_singular)
{
    EXPECT_EQ(count_of(0, "byte"), "0 bytes");
    EXPECT_EQ(count_of(1, "byte"), "1 byte");
    EXPECT_EQ(count_of(2, "byte"), "2 bytes");
}

TEST(text, parts_stand_between_separators)
{
    EXPECT_EQ(split("a:b", ':'), (parts{"a", "b"}));
    EXPECT_EQ(split("a", ':'), (parts{"a"}));
    EXPECT_EQ(split("", ':'), parts{});
}

TEST(text, a_part_can_be_empty_but_for_the_last)
{
    EXPECT_EQ(split(":a::b:", ':'), (parts{"", "a", "", "b"}));
}

TEST(text, a_number_has_digits_and_nothing_else)
{
    EXPECT_TRUE(is_number("0123456789"));
    for (const char* other : {"", "1a", " 1", "-1", "0x1"})
        EXPECT_FALSE(is_number(other)) << other;
}

TEST(text, control_bytes_become_their_numbers)
{
    EXPECT_EQ(harmless("a\x1b[2J\n\x7f", keep::all_but_control), "a\\x1b[2J\\x0a\\x7f");
}

TEST(text, letters_of_all_languages_and_tabs_can_be_kept)
{
    EXPECT_EQ(harmless("\t\xc3\xa4", keep::all_but_control), "\t\xc3\xa4");
    EXPECT_EQ(harmless("\t\xc3\xa4 ", keep::ascii), "\\x09\\xc3\\xa4 ");
}

TEST(text, a_substitute_can_stand_for_each_byte)
{
    EXPECT_EQ(harmless("a\x1b\xc3\xa4", keep::ascii, "?"), "a???");
}

} // namespace

} // namespace tarvik
