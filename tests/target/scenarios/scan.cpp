// Scans of the test chart: the sample plugin makes them of several transfers, so that what a front-end gets
// has passed through all parts, and is compared with a chart drawn here.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "target/scanner/test_chart.h"
#include "target/scenarios/scanner_session.h"

using virtual_scanner::bytes;
using virtual_scanner::command_code;
using virtual_scanner::fault_kind;
using virtual_scanner::test_chart;

namespace {

constexpr std::uint32_t kResolution = 75;
constexpr std::size_t kBlockSize = virtual_scanner::kBlockSize;
/// The plugin's own command, which the scanner does not know.
constexpr auto kScan = static_cast<command_code>(256);

struct area {
    std::uint32_t left, top, width, height;
};

class scan : public target::scanner_session {
protected:
    area sheet() const { return {0, 0, m_chart.width(), m_chart.height()}; }

    void open_plain()
    {
        plug_in("plain");
        open(kByIds);
    }

    static bytes request(const area& wanted)
    {
        bytes numbers;
        for (const std::uint32_t number : {wanted.left, wanted.top, wanted.width, wanted.height}) {
            const bytes four = virtual_scanner::little_endian(number);
            numbers.insert(numbers.end(), four.begin(), four.end());
        }
        return encoded(kScan, kResolution, numbers);
    }

    void expect_announced(const area& wanted)
    {
        EXPECT_EQ(answer_block(kScan), wanted.width * wanted.height);
    }

    void start_scan(const area& wanted)
    {
        send(request(wanted));
        expect_announced(wanted);
    }

    bytes receive_in_pieces(std::size_t length, std::uint32_t piece)
    {
        bytes all;
        while (all.size() < length) {
            const auto left = static_cast<std::uint32_t>(length - all.size());
            const bytes next = receive(std::min(piece, left));
            if (next.empty())
                break; // and the failure is told already
            all.insert(all.end(), next.begin(), next.end());
        }
        return all;
    }

    bytes part_of_chart(const area& wanted) const
    {
        bytes part;
        for (std::uint32_t y = wanted.top; y < wanted.top + wanted.height; ++y) {
            const unsigned char* first = &m_chart.pixels()[std::size_t{y} * m_chart.width() + wanted.left];
            part.insert(part.end(), first, first + wanted.width);
        }
        return part;
    }

    void expect_picture(const bytes& picture, const area& wanted) const
    {
        const bytes expected = part_of_chart(wanted);
        ASSERT_EQ(picture.size(), expected.size());
        EXPECT_EQ(std::mismatch(picture.begin(), picture.end(), expected.begin()).first - picture.begin(),
                  picture.end() - picture.begin())
            << "the position of the first pixel that is wrong";
    }

    void expect_scanned(const area& wanted)
    {
        start_scan(wanted);
        expect_picture(receive(wanted.width * wanted.height), wanted);
    }

    /// A session in which the first transfer of this direction stalls.
    void expect_scanned_in_spite_of(fault_kind stall, const std::string& direction)
    {
        const area wanted{0, 500, sheet().width, 10};
        open_plain();
        arm(stall);
        send_past_a_stall(request(wanted), direction, kBlockSize);
        expect_announced(wanted);
        expect_picture(receive(wanted.width * wanted.height), wanted);
        close();
    }

private:
    const test_chart m_chart{kResolution};
};

} // namespace

TEST_F(scan, gives_the_whole_chart_in_requests_of_an_odd_size)
{
    constexpr std::uint32_t kOddSize = 100'003;
    open_plain();
    start_scan(sheet());
    expect_picture(receive_in_pieces(sheet().width * sheet().height, kOddSize), sheet());
    close();
}

TEST_F(scan, gives_a_picture_that_the_scanner_knows_by_its_checksum)
{
    const area wanted{0, 400, sheet().width, 30};
    open_plain();
    start_scan(wanted);
    command(command_code::checksum, 0, receive(wanted.width * wanted.height));
    EXPECT_EQ(answer_to(command_code::checksum),
              virtual_scanner::little_endian(virtual_scanner::crc32(part_of_chart(wanted))));
    close();
}

TEST_F(scan, gives_an_area_of_the_chart)
{
    open_plain();
    expect_scanned({333, 55, 101, 797});
    close();
}

TEST_F(scan, gives_single_pixels_of_every_edge)
{
    open_plain();
    for (const area& wanted : {area{0, 0, 1, 1}, area{sheet().width - 1, 0, 1, sheet().height},
                               area{0, sheet().height - 1, sheet().width, 1}})
        expect_scanned(wanted);
    close();
}

TEST_F(scan, survives_a_stall_of_the_scanners_first_answer)
{
    expect_scanned_in_spite_of(fault_kind::stall_in, "read");
}

TEST_F(scan, survives_a_stall_of_the_first_command_to_the_scanner)
{
    expect_scanned_in_spite_of(fault_kind::stall_out, "write");
}

TEST_F(scan, begins_again_after_one_that_was_broken_off)
{
    open_plain();
    start_scan(sheet());
    EXPECT_EQ(receive(10'000).size(), 10'000U);
    expect_scanned({0, 700, sheet().width, 100});
    close();
}

TEST_F(scan, begins_again_in_the_session_after_one_that_was_closed_in_a_picture)
{
    open_plain();
    start_scan(sheet());
    EXPECT_EQ(receive(10'000).size(), 10'000U);
    close();
    open(kByIds);
    expect_scanned({0, 700, sheet().width, 100});
    close();
}
