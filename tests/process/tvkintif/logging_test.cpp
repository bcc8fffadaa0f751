// What switches logging on, what the levels let through, and what a line looks like.

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <ctime>
#include <filesystem>

#include "process/tvkintif/program_test.h"
#include "support/log_reader.h"

namespace fs = std::filesystem;

namespace process_test {

class logging : public program_test {
protected:
    /// A session that has lines at INFO and at ERROR.
    void run_with_errors()
    {
        with_mishap("fail setsockopt " + std::to_string(ENOPROTOOPT) + " 1000");
        start_connected();
        close();
    }

    static std::vector<std::string> log_files()
    {
        std::vector<std::string> names;
        for (const fs::directory_entry& entry : fs::directory_iterator(support::log_directory))
            if (entry.path().filename() != "setting.ini")
                names.push_back(entry.path().filename());
        return names;
    }

    void expect_level(const std::string& settings, const lines& expected)
    {
        with_settings(settings);
        run_with_errors();
        expect_end();
        expect_log(expected);
    }

    /// The end of a process that has copied its whole log to standard error.
    void expect_end_with_copy()
    {
        program().wait_for_exit(kPatience);
        ASSERT_NE(support::raw_log(), "");
        expect_end({0, {}, support::raw_log()});
    }

    void expect_verbose(const std::string& settings)
    {
        with_settings(settings);
        run_with_errors();
        expect_end_with_copy();
        EXPECT_EQ(support::source_of(support::log_lines().front().message), "transceiver");
    }
};

namespace {

const lines error = {"ERROR ERROR: setsockopt failed"};
const lines errors_alone = error + error + error;

lines errors_and_info()
{
    return error + announced + error + error + told_to_close;
}

std::string today()
{
    const std::time_t now = std::time(nullptr);
    char date[16] = {};
    std::strftime(date, sizeof date, "%Y%m%d", std::localtime(&now));
    return date;
}

/// The text with each digit made a 0.
std::string shape_of(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; }, '0');
    return text;
}

} // namespace

TEST_F(logging, without_the_directory_nothing_is_logged_or_made)
{
    with_no_log_directory();
    run_with_errors();
    expect_end();
    EXPECT_FALSE(fs::exists(support::log_directory));
}

TEST_F(logging, directory_alone_means_level_info)
{
    run_with_errors();
    expect_end();
    expect_log(errors_and_info());
}

TEST_F(logging, file_in_place_of_the_directory_keeps_logging_off)
{
    with_no_log_directory();
    fs::copy_file("/proc/self/comm", support::log_directory);
    run_with_errors();
    expect_end();
    EXPECT_TRUE(fs::is_regular_file(support::log_directory));
}

TEST_F(logging, file_is_named_after_the_program_and_the_day)
{
    const std::string before = today();
    start_connected();
    close();
    expect_end();
    const std::vector<std::string> files = log_files();
    ASSERT_EQ(files.size(), before == today() ? 1U : files.size()); // two when midnight passes
    EXPECT_EQ(files.front(),
              "tvkintif_" + (before == today() ? before : files.front().substr(9, 8)) + ".log");
}

TEST_F(logging, line_begins_with_clock_process_thread_and_level)
{
    start_connected();
    close();
    expect_end();
    const support::log_line first = support::log_lines().front();
    EXPECT_EQ(first.process, std::to_string(pid()));
    EXPECT_EQ(first.thread, std::to_string(pid()));
    EXPECT_EQ(first.level, "INFO");
    EXPECT_EQ(first.message, "port = 0");
    const std::string whole =
        "[" + first.clock + "][" + first.process + "](" + first.thread + ")[INFO]port = 0\n";
    EXPECT_EQ(support::raw_log().substr(0, whole.size()), whole);
}

TEST_F(logging, clock_is_hours_minutes_seconds_and_the_second_times_a_thousand)
{
    start_connected();
    close();
    expect_end();
    for (const support::log_line& line : support::log_lines()) {
        const int second = std::stoi(line.clock.substr(6, 2));
        const std::string fraction = second == 0 ? "0000" : std::to_string(second * 1000);
        EXPECT_EQ(shape_of(line.clock.substr(0, 9)), "00:00:00.") << line.clock;
        EXPECT_LT(std::stoi(line.clock.substr(0, 2)), 24) << line.clock;
        EXPECT_LT(std::stoi(line.clock.substr(3, 2)), 60) << line.clock;
        EXPECT_LT(second, 60) << line.clock;
        EXPECT_EQ(line.clock.substr(9), fraction) << line.clock;
    }
}

TEST_F(logging, every_line_ends_in_a_newline)
{
    start_connected();
    close();
    expect_end();
    const std::string log = support::raw_log();
    EXPECT_EQ(static_cast<std::size_t>(std::count(log.begin(), log.end(), '\n')),
              (announced + told_to_close).all().size());
    EXPECT_EQ(log.back(), '\n');
}

TEST_F(logging, second_run_appends_to_the_first)
{
    start_connected();
    close();
    expect_end();
    hang_up();
    start_connected();
    close();
    expect_end();
    expect_log(announced + told_to_close + announced + told_to_close);
}

TEST_F(logging, level_0_names_the_source_of_each_line)
{
    with_log_level(0);
    start_connected();
    close();
    expect_end_with_copy();
    lines sources;
    lines messages;
    for (const support::log_line& line : support::log_lines()) {
        sources += {support::source_of(line.message)};
        messages += {line.level + " " + support::without_source(line.message)};
    }
    EXPECT_EQ(messages.text(), (announced + told_to_close).text());
    EXPECT_EQ(sources.text(), lines({"main", "ipc_connection", "ipc_connection", "ipc_connection", "dispatch",
                                     "dispatch", "dispatch", "main", "main"})
                                  .text());
}

TEST_F(logging, level_0_copies_every_line_to_standard_error)
{
    expect_verbose("loglevel=0\n");
}

TEST_F(logging, level_1_writes_info_and_above)
{
    expect_level("loglevel=1\n", errors_and_info());
}

TEST_F(logging, level_2_leaves_info_out)
{
    expect_level("loglevel=2\n", errors_alone);
}

TEST_F(logging, level_3_writes_errors)
{
    expect_level("loglevel=3\n", errors_alone);
}

TEST_F(logging, level_4_leaves_errors_out_and_makes_no_file)
{
    expect_level("loglevel=4\n", {});
    EXPECT_TRUE(log_files().empty());
}

TEST_F(logging, level_5_writes_nothing_and_makes_no_file)
{
    expect_level("loglevel=5\n", {});
    EXPECT_TRUE(log_files().empty());
}

TEST_F(logging, level_above_those_known_writes_nothing)
{
    expect_level("loglevel=99\n", {});
}

TEST_F(logging, key_may_be_in_capitals_and_blanks_are_trimmed)
{
    expect_verbose(" \t LogLevel\t =  0 \r\n");
}

TEST_F(logging, negative_level_means_0)
{
    expect_verbose("loglevel=-3\n");
}

TEST_F(logging, level_that_is_no_number_means_0)
{
    expect_verbose("loglevel=abc\n");
}

TEST_F(logging, number_ends_at_the_first_other_character)
{
    expect_level("loglevel=2abc\n", errors_alone);
}

TEST_F(logging, first_of_two_levels_counts)
{
    expect_level("loglevel=3\nloglevel=1\n", errors_alone);
}

TEST_F(logging, level_without_a_value_is_skipped)
{
    expect_level("loglevel=\nloglevel=3\n", errors_alone);
}

TEST_F(logging, settings_without_a_level_keep_logging_off)
{
    expect_level("loglevel=\nother=1\n", {});
    EXPECT_TRUE(log_files().empty());
}

TEST_F(logging, empty_settings_keep_logging_off)
{
    expect_level("", {});
}

TEST_F(logging, line_without_an_equals_sign_is_skipped)
{
    expect_level("loglevel\nloglevel=3\n", errors_alone);
}

TEST_F(logging, commented_level_does_not_count)
{
    expect_level("#loglevel=1\n;loglevel=1\nloglevel=3\n", errors_alone);
}

TEST_F(logging, last_line_needs_no_newline)
{
    expect_level("[log]\nname=a=b\nloglevel = 3", errors_alone);
}

TEST_F(logging, file_that_cannot_be_opened_drops_the_lines_and_their_copies)
{
    with_log_level(0);
    const std::string file = support::log_directory + "/tvkintif_" + today() + ".log";
    fs::create_directory(file); // a directory cannot be appended to, not even by root
    start_connected();
    open();
    close();
    expect_end();
    EXPECT_TRUE(fs::is_empty(file));
}

TEST_F(logging, replies_are_the_same_without_it)
{
    with_no_log_directory();
    start_connected();
    open();
    tell(recv_request(3));
    expect_reply(ok_reply(device_bytes(3)));
    tell(frame(2, 8, 1));
    expect_reply(nak_reply(2));
    close();
    expect_end();
}

} // namespace process_test
