#include "tvkctl/src/session/run_steps.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "common/text/text.h"
#include "support/caught_error.h"
#include "support/private_paths.h"
#include "tvkctl/src/machine/tool_error.h"
#include "tvkctl/src/terminal/numbers.h"

namespace tarvik::tvkctl {

namespace {

bytes sent_by(const std::string& text)
{
    std::vector<run_step> steps = {parse_step(text)};
    load_files(steps);
    return std::get<send_step>(steps.front().what).items.front().literal;
}

recv_step received_by(const std::string& text)
{
    return std::get<recv_step>(parse_step(text).what);
}

/// The complaint about a step.
std::string complaint_about(const std::string& text)
{
    try {
        parse_step(text);
    } catch (const step_error& reason) {
        return reason.what();
    }
    return "none";
}

/// A file that is gone at the end of the test.
class file_of_a_test {
public:
    explicit file_of_a_test(const std::string& content) { std::ofstream(path()) << content; }
    ~file_of_a_test() { std::remove(path().c_str()); }
    static std::string path() { return support::kLogRoot + "/sent by a test.bin"; }
};

TEST(run_steps, send_takes_bytes_and_texts_in_their_order_up_to_a_comment)
{
    EXPECT_EQ(sent_by("send 1b 45 0A0b 0xFF00"), (bytes{0x1b, 0x45, 0x0a, 0x0b, 0xff, 0x00}));
    EXPECT_EQ(sent_by(R"(send "a b\n\r\t\0\\\"\x7f")"),
              (bytes{'a', ' ', 'b', '\n', '\r', '\t', 0, '\\', '"', 0x7f}));
    EXPECT_EQ(sent_by("send 01\"A\"02"), (bytes{1, 'A', 2}));
    EXPECT_EQ(sent_by("send \"\""), bytes{}); // on purpose
    EXPECT_EQ(sent_by("send 01 # 02"), bytes{1});
    EXPECT_EQ(sent_by("send \"#\""), bytes{'#'});
}

TEST(run_steps, send_takes_the_content_of_a_file)
{
    SUPPORT_REQUIRE_PRIVATE_PATHS();
    const file_of_a_test file("xyz");
    EXPECT_EQ(sent_by("send 01 @\"" + file.path() + "\" 02"), (bytes{1, 'x', 'y', 'z', 2}));
}

TEST(run_steps, recv_takes_a_size_and_a_file_to_replace_or_append_to)
{
    EXPECT_EQ(received_by("recv 2MiB").size, 2U * 1024 * 1024);
    EXPECT_EQ(received_by("recv 512").file, ""); // to be shown
    EXPECT_EQ(received_by("recv 0x10>scan.raw").file, "scan.raw");
    EXPECT_EQ(received_by("recv 0x10 > scan.raw").file, "scan.raw");
    EXPECT_EQ(received_by("recv 1 > \"my scan.raw\"").file, "my scan.raw");
    EXPECT_FALSE(received_by("recv 1 > a").is_appended);
    EXPECT_TRUE(received_by("recv 1 >> a").is_appended);
}

TEST(run_steps, query_takes_a_selector)
{
    EXPECT_EQ(std::get<query_step>(parse_step("query 0x2").what).selector, 2U);
}

TEST(run_steps, sleep_takes_seconds_and_milliseconds)
{
    EXPECT_EQ(std::get<sleep_step>(parse_step("sleep 0.5").what).time.count(), 500);
    EXPECT_EQ(std::get<sleep_step>(parse_step("sleep 20ms").what).time.count(), 20);
}

TEST(run_steps, a_step_keeps_its_text_as_written)
{
    EXPECT_EQ(parse_step("recv  512").text, "recv  512");
}

const std::string kSizes = kSizeForms;
const std::string kTimes = std::string(kTimeForms) + ", at most a day";

struct bad_step {
    const char* name;
    const char* text;
    std::string complaint;
};

class bad_steps : public testing::TestWithParam<bad_step> {};

TEST_P(bad_steps, get_a_complaint_that_says_what_is_wrong)
{
    EXPECT_EQ(complaint_about(GetParam().text), GetParam().complaint);
}

INSTANTIATE_TEST_SUITE_P(
    run_steps, bad_steps,
    testing::Values(
        bad_step{"empty", "", "a step begins with what to do"},
        bad_step{"only_a_comment", " # nothing", "a step begins with what to do"},
        bad_step{"quoted_verb", "\"send\" 01", "a step begins with what to do"},
        bad_step{"unknown_verb", "write 01", "unknown step \"write\""},
        bad_step{"send_nothing", "send",
                 "there is nothing to send; put the whole step in quotes: 'send 01 02'"},
        bad_step{"odd_digits", "send 123", "\"123\" has an odd number of hexadecimal digits; a byte has two"},
        bad_step{"no_digits", "send xyz", "\"xyz\" is not hexadecimal, \"TEXT\" or @FILE"},
        bad_step{"bare_prefix", "send 0x", "\"0x\" is not hexadecimal, \"TEXT\" or @FILE"},
        bad_step{"open_quote", "send \"abc", "a text lacks its closing \""},
        bad_step{"bad_escape", R"(send "\q")", R"(in a text, \ must be followed by n, r, t, 0, \, " or xHH)"},
        bad_step{"escape_at_the_end", R"(send "\)",
                 R"(in a text, \ must be followed by n, r, t, 0, \, " or xHH)"},
        bad_step{"bad_hex_escape", R"(send "\x4")", R"(\x must be followed by two hexadecimal digits)"},
        bad_step{"file_without_name", "send @", "@ must be followed by the name of a file"},
        bad_step{"send_to_a_file", "send 01 > a", "send receives nothing that could go to a file"},
        bad_step{"recv_nothing", "recv",
                 "expected the number of bytes and nothing else; put the whole step in quotes"},
        bad_step{"recv_zero", "recv 0", "invalid size \"0\"; write " + kSizes},
        bad_step{"recv_negative", "recv -1", "invalid size \"-1\"; write " + kSizes},
        bad_step{"recv_unknown_unit", "recv 1MB", "invalid size \"1MB\"; write " + kSizes},
        bad_step{"recv_too_large", "recv 0x10000000000000000",
                 "invalid size \"0x10000000000000000\"; write " + kSizes},
        bad_step{"recv_two_sizes", "recv 1 2",
                 "expected the number of bytes and nothing else; put the whole step in quotes"},
        bad_step{"arrow_without_name", "recv 1 >",
                 "> must be followed by one file name; put a name with blanks in \"\""},
        bad_step{"arrow_with_two_names", "recv 1 > my scan.raw",
                 "> must be followed by one file name; put a name with blanks in \"\""},
        bad_step{"query_nothing", "query",
                 "expected a selector and nothing else; put the whole step in quotes"},
        bad_step{"query_too_large", "query 4294967296",
                 "invalid selector \"4294967296\"; write a number of 32 bits, such as 1 or 0x1"},
        bad_step{"sleep_backwards", "sleep -1", "invalid time \"-1\"; write " + kTimes},
        bad_step{"sleep_of_two_points", "sleep 1.2.3", "invalid time \"1.2.3\"; write " + kTimes},
        bad_step{"sleep_for_years", "sleep 86401", "invalid time \"86401\"; write " + kTimes}),
    [](const auto& which) { return which.param.name; });

TEST(run_steps, help_has_forms_and_meanings_in_columns)
{
    const auto lines = split(step_help(), '\n');
    EXPECT_EQ(lines[0].substr(0, 29), "  send ITEM...        ITEM is");
    EXPECT_EQ(lines[1].find_first_not_of(' '), lines[0].find("ITEM is"));
}

TEST(run_steps, a_script_has_one_step_a_line)
{
    std::istringstream script("# calibration\n\nsend 01\n  recv 2 # two\r\n");
    const auto steps = read_script(script, "a");
    ASSERT_EQ(steps.size(), 2U);
    EXPECT_EQ(steps[1].text, "  recv 2 # two");
}

TEST(run_steps, a_bad_line_of_a_script_is_named)
{
    std::istringstream script("send 01\n\nrecv x\n");
    const auto error = support::caught<tool_error>([&] { read_script(script, "a.steps"); });
    EXPECT_EQ(std::string(error.what()), "a.steps:3, \"recv x\": invalid size \"x\"; write " + kSizes);
}

TEST(run_steps, a_missing_file_to_send_is_an_unreadable_input)
{
    const auto error = support::caught<tool_error>([] { sent_by("send @/nonexistent"); });
    EXPECT_EQ(error.why().word, kInputFile.word);
}

TEST(run_steps, a_file_without_content_is_not_sent)
{
    SUPPORT_REQUIRE_PRIVATE_PATHS();
    const file_of_a_test file("");
    EXPECT_THROW(sent_by("send @\"" + file.path() + "\""), tool_error);
}

} // namespace

} // namespace tarvik::tvkctl
