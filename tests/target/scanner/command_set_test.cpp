#include "target/scanner/command_set.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/pages.h"

using namespace virtual_scanner;

namespace {

std::vector<bytes> example_lines(const std::string& label)
{
    return support::bytes_behind(label, support::read_file(COMMANDS_PAGE));
}

bytes plain(const block& from)
{
    return {from.begin(), from.end()};
}

bytes pattern(std::uint32_t first, std::uint32_t length)
{
    bytes made(length);
    for (std::uint32_t index = 0; index < length; ++index)
        made[index] = pattern_byte(first + index);
    return made;
}

} // namespace

TEST(command_set, encodes_the_command_of_the_worked_example)
{
    const auto lines = example_lines("OUT");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(plain(encode(command{command_code::read_pattern, 7, 4, 0})), lines[0]);
}

TEST(command_set, encodes_the_answer_of_the_worked_example)
{
    const auto lines = example_lines("IN");
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(plain(encode(answer{command_code::read_pattern, 7, answer_status::ok, 4})), lines[0]);
}

TEST(command_set, makes_the_pattern_of_the_worked_example)
{
    const auto lines = example_lines("IN");
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(pattern(0, 4), lines[1]);
}

TEST(command_set, decodes_what_it_encodes)
{
    command decoded{};
    ASSERT_TRUE(decode(encode(command{command_code::echo, 0xBEEF, 0x01020304, 0xA0B0C0D0}), decoded));
    EXPECT_EQ(decoded.code, command_code::echo);
    EXPECT_EQ(decoded.tag, 0xBEEF);
    EXPECT_EQ(decoded.argument, 0x01020304U);
    EXPECT_EQ(decoded.payload_length, 0xA0B0C0D0U);
}

TEST(command_set, does_not_take_an_answer_for_a_command)
{
    command decoded{};
    EXPECT_FALSE(decode(encode(answer{command_code::echo, 1, answer_status::ok, 0}), decoded));
}

TEST(command_set, pattern_has_no_two_packets_alike_within_64_kibibytes)
{
    for (std::uint32_t first = 0; first < 3 * 128; first += 41) {
        std::set<bytes> packets;
        for (std::uint32_t packet = first; packet < first + 128; ++packet)
            packets.insert(pattern(packet * 512, 512));
        ASSERT_EQ(packets.size(), 128U) << "from packet " << first;
    }
}

TEST(command_set, pattern_has_no_two_pieces_of_64_kibibytes_alike)
{
    std::set<bytes> pieces;
    for (std::uint32_t piece = 0; piece < 256; ++piece)
        pieces.insert(pattern(piece * 65536, 65536));
    EXPECT_EQ(pieces.size(), 256U);
}

TEST(command_set, checksum_is_the_well_known_one)
{
    const std::string text = "123456789";
    EXPECT_EQ(crc32({text.begin(), text.end()}), 0xCBF43926U);
}
