#include "target/scanner/test_chart.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include "target/scanner/command_set.h"
#include "target/scanner/font.h"

using namespace virtual_scanner;

namespace {

/// The chart at 100 dots per inch, where a hundredth of an inch is a pixel.
const test_chart& chart()
{
    static const test_chart drawn(100);
    return drawn;
}

int pixel(std::uint32_t x, std::uint32_t y)
{
    return chart().pixels()[std::size_t{y} * chart().width() + x];
}

/// How many pixels from this one on, going this way, have one grey.
int run_length(std::uint32_t x, std::uint32_t y, std::uint32_t dx, std::uint32_t dy)
{
    int length = 1;
    while (pixel(x + dx * static_cast<std::uint32_t>(length), y + dy * static_cast<std::uint32_t>(length)) ==
           pixel(x, y))
        ++length;
    return length;
}

bytes output_of(const char* shell_command)
{
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(shell_command, "r"), ::pclose);
    bytes output;
    bytes piece(65536);
    while (pipe != nullptr && !std::feof(pipe.get())) {
        const std::size_t length = std::fread(piece.data(), 1, piece.size(), pipe.get());
        output.insert(output.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(length));
    }
    return output;
}

} // namespace

TEST(test_chart, is_as_large_as_an_a4_sheet)
{
    const test_chart fine(300);
    EXPECT_EQ(fine.width(), 2481U);
    EXPECT_EQ(fine.height(), 3507U);
    EXPECT_EQ(fine.pixels().size(), 2481U * 3507U);
}

TEST(test_chart, has_its_lowest_and_highest_resolution_and_none_beyond)
{
    EXPECT_FALSE(test_chart::can_have(74));
    EXPECT_TRUE(test_chart::can_have(75));
    EXPECT_TRUE(test_chart::can_have(300));
    EXPECT_FALSE(test_chart::can_have(301));
}

TEST(test_chart, has_black_pixels_all_along_its_edges)
{
    for (std::uint32_t x = 0; x < chart().width(); ++x)
        ASSERT_EQ(pixel(x, 0) + pixel(x, chart().height() - 1), 0) << x;
    for (std::uint32_t y = 0; y < chart().height(); ++y)
        ASSERT_EQ(pixel(0, y) + pixel(chart().width() - 1, y), 0) << y;
}

TEST(test_chart, has_diagonals_that_meet_the_corners)
{
    constexpr int kLightGrey = 208;
    EXPECT_EQ(pixel(21, 30), kLightGrey);
    EXPECT_EQ(pixel(chart().width() - 22, 30), kLightGrey);
    EXPECT_EQ(pixel(chart().width() - 23, chart().height() - 31), kLightGrey);
}

TEST(test_chart, has_a_mark_at_every_inch_of_its_edges)
{
    for (std::uint32_t inch = 1; inch <= 8; ++inch)
        EXPECT_EQ(run_length(inch * 100, 0, 0, 1), 20) << inch;
    for (std::uint32_t inch = 1; inch <= 11; ++inch)
        EXPECT_EQ(run_length(0, inch * 100, 1, 0), 20) << inch;
}

TEST(test_chart, has_a_ramp_from_black_to_white_and_back)
{
    constexpr std::uint32_t kLeft = 61; // inside the frame
    constexpr std::uint32_t kRight = 765;
    EXPECT_EQ(pixel(kLeft, 160), 0);
    EXPECT_EQ(pixel(kRight, 160), 254);
    EXPECT_EQ(pixel(kLeft, 240), 255);
    EXPECT_EQ(pixel(kRight, 240), 1);
    for (std::uint32_t x = kLeft; x < kRight; ++x)
        ASSERT_TRUE(pixel(x + 1, 160) - pixel(x, 160) == 0 || pixel(x + 1, 160) - pixel(x, 160) == 1) << x;
}

TEST(test_chart, has_sixteen_steps_of_grey)
{
    for (std::uint32_t step = 0; step < 16; ++step)
        EXPECT_EQ(pixel(60 + 707 * (2 * step + 1) / 32, 295), static_cast<int>(step) * 17) << step;
}

TEST(test_chart, has_lines_of_one_two_and_three_pixels_both_ways_and_aslant)
{
    for (std::uint32_t thickness = 1; thickness <= 3; ++thickness) {
        const std::uint32_t top = 375 + (thickness - 1) * 115;
        const int expected = static_cast<int>(thickness);
        EXPECT_EQ(run_length(115, top, 1, 0), expected) << "lines down";
        EXPECT_EQ(pixel(115, top), pixel(115, top + 50)) << "lines down";
        EXPECT_EQ(run_length(280, top, 0, 1), expected) << "lines across";
        EXPECT_EQ(pixel(280, top), pixel(330, top)) << "lines across";
        EXPECT_EQ(run_length(445, top, 1, 0), expected) << "lines that rise";
        EXPECT_EQ(pixel(445, top + 50), pixel(495, top)) << "lines that rise";
        EXPECT_EQ(pixel(610, top), pixel(660, top + 50)) << "lines that fall";
    }
}

TEST(test_chart, has_the_letters_of_its_title)
{
    constexpr std::uint32_t kScale = 5;
    const std::string title = "VIRTUAL SCANNER";
    for (std::uint32_t letter = 0; letter < title.size(); ++letter)
        for (std::uint32_t row = 0; row < kGlyphHeight; ++row)
            for (std::uint32_t column = 0; column < kGlyphWidth; ++column) {
                const std::uint32_t x = 60 + (letter * 6 + column) * kScale;
                const bool is_ink = pixel(x, 55 + row * kScale) == 0;
                ASSERT_EQ(is_ink, glyph_of(title[letter])[row][column] == '#') << title[letter];
            }
}

TEST(test_chart, has_a_star_of_72_rays_black_and_white)
{
    constexpr std::uint32_t kCentre = 60 + 105;
    constexpr std::uint32_t kMiddle = 740 + 105;
    constexpr std::uint32_t kHalfSide = 70; // of the square along which the rays are counted
    int changes = 0;
    int before = pixel(kCentre - kHalfSide, kMiddle - kHalfSide);
    const auto look = [&](std::uint32_t x, std::uint32_t y) {
        changes += pixel(x, y) != before ? 1 : 0;
        before = pixel(x, y);
    };
    for (std::uint32_t step = 0; step < 2 * kHalfSide; ++step)
        look(kCentre - kHalfSide + step, kMiddle - kHalfSide);
    for (std::uint32_t step = 0; step < 2 * kHalfSide; ++step)
        look(kCentre + kHalfSide, kMiddle - kHalfSide + step);
    for (std::uint32_t step = 0; step < 2 * kHalfSide; ++step)
        look(kCentre + kHalfSide - step, kMiddle + kHalfSide);
    for (std::uint32_t step = 0; step <= 2 * kHalfSide; ++step)
        look(kCentre - kHalfSide, kMiddle + kHalfSide - step);
    EXPECT_EQ(changes, 72);
}

TEST(test_chart, has_rings_that_become_finer)
{
    constexpr std::uint32_t kCentre = 290 + 105;
    constexpr std::uint32_t kMiddle = 740 + 105;
    const int inner = run_length(kCentre, kMiddle, 1, 0);
    const int next = run_length(kCentre + static_cast<std::uint32_t>(inner), kMiddle, 1, 0);
    EXPECT_EQ(inner, 17);
    EXPECT_EQ(next, 7);
}

TEST(test_chart, is_what_the_picture_in_the_readme_shows)
{
    if (std::system("command -v pngtopnm >/dev/null") != 0)
        GTEST_SKIP() << "pngtopnm is missing: run scripts/setup";
    const std::string head = "P5\n827 1169\n255\n";
    bytes expected(head.begin(), head.end());
    expected.insert(expected.end(), chart().pixels().begin(), chart().pixels().end());
    EXPECT_TRUE(output_of("pngtopnm " README_PICTURE) == expected)
        << "scan the chart at 100 dpi again, and copy it over " << README_PICTURE;
}

TEST(test_chart, has_the_same_bytes_on_every_machine)
{
    for (const auto& [resolution, checksum] :
         {std::pair(75U, 78220787U), std::pair(150U, 3489792956U), std::pair(300U, 1951549156U)})
        EXPECT_EQ(crc32(test_chart(resolution).pixels()), checksum) << resolution;
}
