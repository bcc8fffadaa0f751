#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <deque>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "support/bytes.h"
#include "support/files.h"
#include "support/pages.h"
#include "target/scanner/test_chart.h"
#include "tvkintif/src/interpreter.h"

namespace {

using support::bytes;

constexpr std::uint32_t kResolution = 300;
constexpr std::uint32_t kLinePixels = 2481; // no multiple of anything that the plugin takes at once
constexpr std::uint32_t kSheetLines = 3507;
constexpr std::uint32_t kSheetCommand = 7;
constexpr std::uint32_t kReadLinesCommand = 8;
constexpr std::uint32_t kScanCommand = 256;

/// The device that the plugin talks to: takes every write, unless told to stall, and gives what was put in.
class scripted_device {
public:
    static int read(void* buffer, int length)
    {
        return current->give(static_cast<unsigned char*>(buffer), length);
    }
    static int write(void* buffer, int length)
    {
        return current->take(static_cast<unsigned char*>(buffer), length);
    }

    /// The bytes of one transfer; none of them: the transfer stalls.
    void will_give(bytes transfer) { m_transfers.push_back(std::move(transfer)); }
    void will_take_at_most(int length) { m_mostTaken = length; }
    void will_stall_next_write() { m_stallsNextWrite = true; }

    const std::vector<bytes>& taken() const { return m_taken; }
    bool has_given_all() const { return m_transfers.empty(); }

    static scripted_device* current;

private:
    int give(unsigned char* buffer, int length)
    {
        if (m_transfers.empty())
            return 0;
        bytes& transfer = m_transfers.front();
        const auto count = std::min(static_cast<std::ptrdiff_t>(transfer.size()), std::ptrdiff_t{length});
        std::copy_n(transfer.begin(), count, buffer);
        transfer.erase(transfer.begin(), transfer.begin() + count);
        if (transfer.empty())
            m_transfers.pop_front();
        return static_cast<int>(count);
    }

    int take(const unsigned char* buffer, int length)
    {
        if (std::exchange(m_stallsNextWrite, false))
            return 0;
        const int count = std::min(length, m_mostTaken);
        m_taken.emplace_back(buffer, buffer + count);
        return count;
    }

    std::deque<bytes> m_transfers;
    std::vector<bytes> m_taken;
    bool m_stallsNextWrite = false;
    int m_mostTaken = std::numeric_limits<int>::max();
};

scripted_device* scripted_device::current = nullptr;

struct area {
    std::uint32_t left, top, width, height;
};

bytes with_numbers(bytes made, const std::vector<std::uint32_t>& numbers)
{
    for (const std::uint32_t number : numbers)
        for (unsigned int shift = 0; shift < 32; shift += 8)
            made.push_back(static_cast<unsigned char>((number >> shift) & 0xFFU));
    return made;
}

bytes block(char kind, std::uint32_t code, std::uint32_t third, std::uint32_t length)
{
    // All of them carry tag 7.
    return with_numbers({'V', 'S', static_cast<unsigned char>(kind), '1'}, {code | 7U << 16U, third, length});
}

bytes sheet_request()
{
    return block('C', kSheetCommand, kResolution, 0);
}

bytes lines_request(const area& wanted)
{
    return with_numbers(block('C', kReadLinesCommand, kResolution, 8), {wanted.top, wanted.height});
}

bytes scan_request(const area& wanted)
{
    return with_numbers(block('C', kScanCommand, kResolution, 16),
                        {wanted.left, wanted.top, wanted.width, wanted.height});
}

unsigned char pixel(std::uint32_t line, std::uint32_t column)
{
    const std::uint32_t position = line * kLinePixels + column;
    return static_cast<unsigned char>(position * 7 + (position >> 8U) * 13 + (position >> 16U) * 29);
}

bytes picture_of(const area& wanted)
{
    bytes picture;
    for (std::uint32_t line = wanted.top; line < wanted.top + wanted.height; ++line)
        for (std::uint32_t column = wanted.left; column < wanted.left + wanted.width; ++column)
            picture.push_back(pixel(line, column));
    return picture;
}

class sample_plugin : public testing::Test {
protected:
    void SetUp() override
    {
        scripted_device::current = &m_device;
        ASSERT_NE(m_plugin.ctor(scripted_device::read, scripted_device::write), 0);
    }

    bool send(bytes data) { return m_plugin.write(data.data(), static_cast<int>(data.size())) != 0; }

    /// Nothing when the plugin failed.
    bytes receive(std::uint32_t count)
    {
        bytes data(count);
        return m_plugin.read(data.data(), static_cast<int>(count)) != 0 ? data : bytes{};
    }

    void device_will_tell_sheet()
    {
        m_device.will_give(block('A', kSheetCommand, 0, 8));
        m_device.will_give(with_numbers({}, {kLinePixels, kSheetLines}));
    }

    /// The device's side of a scan.
    void device_will_give_lines_of(const area& wanted)
    {
        device_will_tell_sheet();
        m_device.will_give(block('A', kReadLinesCommand, 0, wanted.height * kLinePixels));
        m_device.will_give(picture_of({0, wanted.top, kLinePixels, wanted.height}));
    }

    void start_scan(const area& wanted)
    {
        device_will_give_lines_of(wanted);
        ASSERT_TRUE(send(scan_request(wanted)));
        ASSERT_EQ(receive(16), block('A', kScanCommand, 0, wanted.width * wanted.height));
    }

    interpreter m_plugin{SAMPLE_PLUGIN_PATH};
    scripted_device m_device;
};

std::vector<bytes> example_lines(const std::string& label)
{
    return support::bytes_behind(label, support::read_file(SAMPLE_COMMANDS_PAGE));
}

const bytes kIdentify = block('C', 1, 0, 0);

} // namespace

TEST_F(sample_plugin, refuses_to_start_without_a_way_to_the_device)
{
    EXPECT_EQ(m_plugin.ctor(nullptr, scripted_device::write), 0);
    EXPECT_EQ(m_plugin.ctor(scripted_device::read, nullptr), 0);
}

TEST_F(sample_plugin, refuses_what_is_too_long_for_its_lengths)
{
    EXPECT_EQ(m_plugin.read(nullptr, INT_MIN), 0);
    EXPECT_EQ(m_plugin.write(nullptr, INT_MIN), 0);
    EXPECT_EQ(m_device.taken(), std::vector<bytes>());
}

TEST_F(sample_plugin, passes_everything_but_a_whole_scan_request_on_unchanged)
{
    bytes part_of_a_request = scan_request({0, 0, 1, 1});
    part_of_a_request.pop_back();
    const std::vector<bytes> all{kIdentify, {1, 2, 3}, part_of_a_request};
    for (const bytes& each : all)
        EXPECT_TRUE(send(each));
    EXPECT_EQ(m_device.taken(), all);
}

TEST_F(sample_plugin, gathers_an_answer_that_comes_in_several_transfers)
{
    m_device.will_give({1, 2});
    m_device.will_give({3});
    m_device.will_give({4, 5});
    EXPECT_EQ(receive(5), (bytes{1, 2, 3, 4, 5}));
}

TEST_F(sample_plugin, fails_a_receive_when_a_transfer_brings_nothing)
{
    m_device.will_give({1, 2});
    EXPECT_EQ(receive(5), bytes{});
}

TEST_F(sample_plugin, sends_the_rest_after_a_transfer_that_took_less_than_all)
{
    m_device.will_take_at_most(10);
    EXPECT_TRUE(send(kIdentify));
    EXPECT_EQ(m_device.taken(), (std::vector<bytes>{{kIdentify.begin(), kIdentify.begin() + 10},
                                                    {kIdentify.begin() + 10, kIdentify.end()}}));
}

TEST_F(sample_plugin, fails_a_send_that_stalls_and_passes_the_next_one_on)
{
    m_device.will_stall_next_write();
    EXPECT_FALSE(send(kIdentify));
    EXPECT_TRUE(send(kIdentify));
    EXPECT_EQ(m_device.taken(), std::vector<bytes>{kIdentify});
}

TEST_F(sample_plugin, fails_a_receive_that_stalls_and_gives_the_answer_to_the_next_one)
{
    m_device.will_give({});
    m_device.will_give({1, 2});
    EXPECT_EQ(receive(2), bytes{});
    EXPECT_EQ(receive(2), (bytes{1, 2}));
}

TEST_F(sample_plugin, gives_the_pixels_of_the_area_and_asks_for_no_more_lines_than_it_has)
{
    const area wanted{10, 20, 30, 40};
    start_scan(wanted);
    EXPECT_EQ(m_device.taken(), (std::vector<bytes>{sheet_request(), lines_request(wanted)}));
    EXPECT_EQ(receive(wanted.width * wanted.height), picture_of(wanted));
    EXPECT_TRUE(m_device.has_given_all());
}

TEST_F(sample_plugin, gives_a_picture_in_pieces_of_any_size)
{
    const area wanted{1, 3, 50, 20};
    start_scan(wanted);
    bytes picture;
    for (const std::uint32_t piece : {1U, 7U, 492U, 500U}) {
        const bytes got = receive(piece);
        picture.insert(picture.end(), got.begin(), got.end());
    }
    EXPECT_EQ(picture, picture_of(wanted));
}

TEST_F(sample_plugin, scans_the_whole_sheet_and_its_last_pixel)
{
    for (const area wanted :
         {area{0, 0, kLinePixels, kSheetLines}, area{kLinePixels - 1, kSheetLines - 1, 1, 1}}) {
        start_scan(wanted);
        EXPECT_TRUE(receive(wanted.width * wanted.height) == picture_of(wanted)) << wanted.width << " wide";
    }
}

class area_beyond_the_sheet : public sample_plugin, public testing::WithParamInterface<area> {};

TEST_P(area_beyond_the_sheet, is_refused_before_the_device_begins_a_scan)
{
    device_will_tell_sheet();
    EXPECT_TRUE(send(scan_request(GetParam())));
    EXPECT_EQ(receive(16), block('A', kScanCommand, 2, 0));
    EXPECT_EQ(m_device.taken(), std::vector<bytes>{sheet_request()});
}

INSTANTIATE_TEST_SUITE_P(, area_beyond_the_sheet,
                         testing::Values(area{0, 0, 0, 1}, area{0, 0, 1, 0}, // without width, without height
                                         area{1, 0, kLinePixels, 1}, area{0, 1, 1, kSheetLines},
                                         area{0xFFFFFFFFU, 0xFFFFFFFFU, 2, 2})); // the sums overflow

TEST_F(sample_plugin, refuses_to_give_more_than_is_left_and_loses_nothing)
{
    const area wanted{0, 0, 4, 1};
    start_scan(wanted);
    EXPECT_EQ(receive(5), bytes{});
    EXPECT_EQ(receive(4), picture_of(wanted));
}

TEST_F(sample_plugin, scans_in_spite_of_stalls_of_the_command_and_of_the_answer)
{
    m_device.will_stall_next_write();
    m_device.will_give({});
    start_scan({0, 0, 4, 1});
}

TEST_F(sample_plugin, scans_in_spite_of_a_stall_of_the_answer_that_lines_follow)
{
    device_will_tell_sheet();
    m_device.will_give({});
    m_device.will_give(block('A', kReadLinesCommand, 0, kLinePixels));
    m_device.will_give(picture_of({0, 0, kLinePixels, 1}));
    EXPECT_TRUE(send(scan_request({0, 0, 4, 1})));
    EXPECT_EQ(receive(16), block('A', kScanCommand, 0, 4));
}

TEST_F(sample_plugin, fails_a_scan_when_the_device_does_not_answer)
{
    EXPECT_FALSE(send(scan_request({0, 0, 4, 1})));
}

TEST_F(sample_plugin, refuses_a_resolution_that_the_device_does_not_have)
{
    m_device.will_give(block('A', kSheetCommand, 2, 0));
    EXPECT_TRUE(send(scan_request({0, 0, 4, 1})));
    EXPECT_EQ(receive(16), block('A', kScanCommand, 2, 0));
}

TEST_F(sample_plugin, fails_a_scan_when_the_device_answers_the_request_for_lines_with_anything_else)
{
    for (const bytes& answer : {block('A', kReadLinesCommand, 1, 0),               // a refusal
                                block('A', kReadLinesCommand, 0, kLinePixels - 1), // another number of them
                                block('A', 4, 0, kLinePixels)}) {                  // to another command
        device_will_tell_sheet();
        m_device.will_give(answer);
        EXPECT_FALSE(send(scan_request({0, 0, 4, 1}))) << support::hex(answer);
    }
}

TEST_F(sample_plugin, fails_a_receive_when_the_device_falls_silent_in_a_picture)
{
    device_will_tell_sheet();
    m_device.will_give(block('A', kReadLinesCommand, 0, 20 * kLinePixels));
    m_device.will_give(picture_of({0, 0, kLinePixels, 8}));
    ASSERT_TRUE(send(scan_request({0, 0, 1, 20})));
    ASSERT_EQ(receive(16).size(), 16U);
    EXPECT_EQ(receive(20), bytes{});
}

TEST_F(sample_plugin, leaves_nothing_of_the_last_line_in_the_device)
{
    start_scan({0, 0, 1, 27}); // the last line begins in one piece and ends in the next
    ASSERT_EQ(receive(27).size(), 27U);
    EXPECT_TRUE(m_device.has_given_all()) << "the next answer would be old pixels";
}

TEST_F(sample_plugin, drops_the_rest_of_a_picture_when_the_next_command_comes)
{
    start_scan({0, 0, 4, 100});
    ASSERT_EQ(receive(4).size(), 4U);
    EXPECT_TRUE(send(kIdentify));
    EXPECT_TRUE(m_device.has_given_all()) << "the answer to the command would be old pixels";
    EXPECT_EQ(m_device.taken().back(), kIdentify);
}

TEST_F(sample_plugin, leaves_nothing_in_the_device_when_it_is_stopped_in_a_picture)
{
    start_scan({0, 0, 4, 100});
    m_plugin.dtor();
    EXPECT_TRUE(m_device.has_given_all());
}

TEST_F(sample_plugin, starts_afresh_when_it_was_not_stopped)
{
    start_scan({0, 0, 4, 100});
    scripted_device other;
    scripted_device::current = &other;
    ASSERT_NE(m_plugin.ctor(scripted_device::read, scripted_device::write), 0);
    other.will_give({1, 2});
    EXPECT_EQ(receive(2), (bytes{1, 2}));
}

TEST_F(sample_plugin, does_what_the_worked_example_says)
{
    const auto sent = example_lines("send");
    const auto received = example_lines("receive");
    const auto given = example_lines("IN");
    ASSERT_EQ(sent.size(), 1U);
    ASSERT_EQ(received.size(), 2U);
    ASSERT_EQ(given.size(), 3U);
    for (const bytes& each : given)
        m_device.will_give(each);
    const virtual_scanner::test_chart chart(75);
    const auto first = chart.pixels().begin() + static_cast<std::ptrdiff_t>(chart.width());
    m_device.will_give({first, first + 2 * static_cast<std::ptrdiff_t>(chart.width())});
    EXPECT_TRUE(send(sent[0]));
    EXPECT_EQ(receive(16), received[0]);
    EXPECT_EQ(receive(8), received[1]);
    EXPECT_EQ(m_device.taken(), example_lines("OUT"));
}
