#include "tvkctl/src/terminal/console.h"

#include <gtest/gtest.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tvkctl/src/terminal/hex_dump.h"
#include "tvkctl/src/terminal/numbers.h"
#include "tvkctl/src/terminal/progress_line.h"
#include "tvkctl/src/terminal/text_table.h"

namespace tarvik::tvkctl {

namespace {

using std::chrono::milliseconds;

class console_test : public testing::Test {
protected:
    std::ostringstream out;
    std::ostringstream err;
    console plain{{out, false, false}, {err, false, false}};
    console colourful{{out, true, true}, {err, true, true}};
};

TEST_F(console_test, errors_and_warnings_are_one_line_each_whatever_they_quote)
{
    plain.error("a.raw cannot be written: no space", "Look for a full disk.");
    plain.error("got a\nb\033[2Jc\n");
    plain.warning("two devices");
    EXPECT_EQ(err.str(), "tvkctl: a.raw cannot be written: no space. Look for a full disk.\n"
                         "tvkctl: got a b [2Jc\n"
                         "tvkctl: warning: two devices\n");
}

TEST_F(console_test, errors_are_coloured_only_where_colours_are_shown)
{
    colourful.error("no");
    EXPECT_EQ(err.str(), "\033[1;31mtvkctl: no\033[0m\n");
}

TEST_F(console_test, text_is_coloured_in_its_style_only_where_colours_are_shown)
{
    EXPECT_EQ(plain.styled(style::good, "x"), "x");
    EXPECT_EQ(colourful.styled(style::good, "x"), "\033[32mx\033[0m");
    EXPECT_EQ(colourful.styled(style::plain, "x"), "x");
    EXPECT_EQ(colourful.styled(style::bold, "x"), "\033[1mx\033[0m");
    EXPECT_EQ(colourful.styled(style::dim, "x"), "\033[2mx\033[0m");
    EXPECT_EQ(colourful.styled(style::warning, "x"), "\033[33mx\033[0m");
    EXPECT_EQ(colourful.styled(style::bad, "x"), "\033[1;31mx\033[0m");
}

TEST_F(console_test, json_with_broken_utf8_is_still_json)
{
    plain.write({{"serial", "\xff"}});
    EXPECT_EQ(out.str(), "{\n  \"serial\": \"\xEF\xBF\xBD\"\n}\n");
}

TEST_F(console_test, a_table_aligns_its_columns)
{
    text_table table({"UDI", "NAME"});
    table.add({{"usb:1a2b:3c4d"}, {"a"}});
    table.add({{"-"}, {"b"}});
    table.write(plain);
    EXPECT_EQ(out.str(), "UDI            NAME\nusb:1a2b:3c4d  a\n-              b\n");
}

TEST_F(console_test, a_table_does_not_let_a_device_write_to_the_terminal)
{
    text_table table({"NAME"});
    table.add({{"a\033[2Jb\xC3"}});
    table.write(plain);
    EXPECT_EQ(out.str(), "NAME\na?[2Jb?\n");
}

TEST_F(console_test, colours_do_not_shift_the_columns)
{
    text_table table({"A", "B"});
    table.add({{"x", style::good}, {"y"}});
    table.write(colourful);
    EXPECT_EQ(out.str(), "\033[1mA\033[0m  \033[1mB\033[0m\n\033[32mx\033[0m  y\n");
}

class hex_dump_test : public testing::Test {
protected:
    std::ostringstream out;
    hex_dump dump{out};
};

TEST_F(hex_dump_test, shows_offset_bytes_and_text)
{
    dump.add("0123456789abcdef\x1b\xff");
    dump.finish();
    EXPECT_EQ(out.str(), "00000000  30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  |0123456789abcdef|\n"
                         "00000010  1b ff                                            |..|\n");
}

TEST_F(hex_dump_test, shows_the_same_whatever_the_pieces_and_nothing_for_nothing)
{
    dump.finish();
    for (const char* piece : {"0", "123456789abcde", "", "fg"})
        dump.add(piece);
    dump.finish();
    EXPECT_EQ(out.str(), "00000000  30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  |0123456789abcdef|\n"
                         "00000010  67                                               |g|\n");
}

TEST_F(hex_dump_test, begins_again_after_its_end)
{
    for (const char* piece : {"a", "b"}) {
        dump.add(piece);
        dump.finish();
    }
    EXPECT_EQ(out.str(), "00000000  61                                               |a|\n"
                         "00000000  62                                               |b|\n");
}

class progress_line_test : public testing::Test {
protected:
    /// A clock that stands still until a test moves it.
    progress_line::clock clock()
    {
        return [this] { return std::chrono::steady_clock::time_point(m_now); };
    }
    void pass(milliseconds time) { m_now += time; }

    std::ostringstream err;

private:
    milliseconds m_now{0};
};

TEST_F(progress_line_test, says_nothing_about_what_takes_less_than_a_second)
{
    progress_line line(err, 100, clock());
    pass(milliseconds(999));
    line.add(50);
    EXPECT_EQ(err.str(), "");
}

TEST_F(progress_line_test, tells_bytes_rate_and_time_left_after_a_second)
{
    progress_line line(err, 3 * 1024 * 1024, clock());
    pass(milliseconds(2000));
    line.add(1024 * 1024);
    EXPECT_EQ(err.str(), "\r\033[K1.0 MiB of 3.0 MiB, 512.0 KiB/s, 4 s left");
}

TEST_F(progress_line_test, waits_a_moment_between_two_looks)
{
    progress_line line(err, 100, clock());
    pass(milliseconds(1000));
    line.add(10);
    const std::string before = err.str();
    pass(milliseconds(199));
    line.add(10);
    EXPECT_EQ(err.str(), before);
}

TEST_F(progress_line_test, wipes_itself_out_at_the_end)
{
    {
        progress_line line(err, 100, clock());
        pass(milliseconds(1000));
        line.add(100);
        err.str("");
    }
    EXPECT_EQ(err.str(), "\r\033[K");
}

TEST(numbers, sizes_are_decimal_or_hexadecimal_with_or_without_a_unit_up_to_a_limit)
{
    EXPECT_EQ(parse_size("512"), 512U);
    EXPECT_EQ(parse_size("0x200"), 512U);
    EXPECT_EQ(parse_size("64KiB"), 65536U);
    EXPECT_EQ(parse_size("0x2GiB"), 2147483648U);
    EXPECT_EQ(parse_size("18446744073709551615"), 18446744073709551615U);
    for (const char* text : {"18446744073709551616", "17179869184GiB", "", "KiB", "-1", "+1", " 1", "1 ",
                             "1.5MiB", "0x", "1kib", "1KB", "12a"})
        EXPECT_EQ(parse_size(text), std::nullopt) << text;
    EXPECT_EQ(parse_number("65535", 65535), 65535U);
    EXPECT_EQ(parse_number("65536", 65535), std::nullopt);
}

TEST(numbers, an_invalid_duration_is_refused)
{
    for (const char* text : {"", ".", "s", "ms", "1m", "1e3", "-1", "nan", "0x1", "..1", "1..", "1.2.3"})
        EXPECT_EQ(parse_duration(text), std::nullopt) << text;
    EXPECT_EQ(parse_duration(std::string(400, '9')), std::nullopt);
}

TEST(numbers, sizes_for_people_have_a_fitting_unit)
{
    EXPECT_EQ(size_text(1), "1 byte");
    EXPECT_EQ(size_text(1023), "1023 bytes");
    EXPECT_EQ(size_text(1536), "1.5 KiB");
    EXPECT_EQ(size_text(3ULL << 30U), "3.0 GiB");
}

} // namespace

} // namespace tarvik::tvkctl
