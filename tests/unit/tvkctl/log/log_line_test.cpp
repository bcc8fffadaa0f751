#include "tvkctl/src/log/log_line.h"

#include <gtest/gtest.h>

namespace {

using tarvik::tvkctl::level_named;
using tarvik::tvkctl::log_filter;
using tarvik::tvkctl::log_level;
using tarvik::tvkctl::parse_log_line;

std::string line_of(const std::string& level)
{
    return "[10:23:45.45000][1234](1236)[" + level + "]text";
}

TEST(log_line_test, a_line_is_taken_apart)
{
    const auto line = parse_log_line("[10:23:45.45000][1234](1236)[INFO]usb ctor failer.");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->clock, "10:23:45.45000");
    EXPECT_EQ(line->process, 1234);
    EXPECT_EQ(line->thread, 1236);
    EXPECT_EQ(line->level, log_level::info);
    EXPECT_EQ(line->source, "");
    EXPECT_EQ(line->message, "usb ctor failer.");
}

TEST(log_line_test, the_verbose_form_has_a_source)
{
    const auto line = parse_log_line("[10:23:45.45000][1234](1236)[TRACE]main(93) End Run");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->level, log_level::trace);
    EXPECT_EQ(line->source, "main(93)");
    EXPECT_EQ(line->message, "End Run");
}

TEST(log_line_test, a_message_that_only_resembles_a_source_stays_whole)
{
    for (const char* message : {"read (93) End", "main(x) End", "main() End", "(93) End", "main(93)End"}) {
        const auto line = parse_log_line(std::string("[1][2](3)[INFO]") + message);
        ASSERT_TRUE(line);
        EXPECT_EQ(line->source, "");
        EXPECT_EQ(line->message, message);
    }
}

TEST(log_line_test, an_unknown_level_is_kept_as_text)
{
    const auto line = parse_log_line("[1][2](3)[]text");
    ASSERT_TRUE(line);
    EXPECT_FALSE(line->level);
    EXPECT_EQ(line->level_name, "");
}

TEST(log_line_test, a_text_without_a_header_is_not_parsed)
{
    for (const char* text : {"", "text", "[1]", "[1][x](3)[INFO]a", "[1][2](x)[INFO]a", "[1][2](3)INFO",
                             "[1][2][3][INFO]a", "[1][99999999999](3)[INFO]a"})
        EXPECT_FALSE(parse_log_line(text)) << text;
}

TEST(log_line_test, levels_have_names_in_any_case_and_numbers)
{
    EXPECT_EQ(level_named("TRACE"), log_level::trace);
    EXPECT_EQ(level_named("warning"), log_level::warning);
    EXPECT_EQ(level_named("4"), log_level::fatal);
    for (const char* text : {"", "5", "-1", "INFORMATION", "1 ", "01"})
        EXPECT_FALSE(level_named(text)) << text;
}

TEST(log_filter_test, lines_below_the_level_are_held_back)
{
    log_filter filter(log_level::warning);
    EXPECT_FALSE(filter.passes(line_of("INFO")));
    EXPECT_TRUE(filter.passes(line_of("WARNING")));
    EXPECT_TRUE(filter.passes(line_of("FATAL")));
}

TEST(log_filter_test, a_line_without_header_shares_the_fate_of_the_one_before)
{
    log_filter filter(log_level::warning);
    filter.passes(line_of("INFO"));
    EXPECT_FALSE(filter.passes("the rest of it"));
    filter.passes(line_of("ERROR"));
    EXPECT_TRUE(filter.passes("the rest of it"));
}

TEST(log_filter_test, an_unknown_level_passes_always)
{
    log_filter filter(log_level::fatal);
    EXPECT_TRUE(filter.passes(line_of("")));
}

} // namespace
