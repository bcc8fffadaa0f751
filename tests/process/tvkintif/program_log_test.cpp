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

class program_log : public program_test {
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

    /// The end of a process that has copied its whole log to standard error.
    void expect_end_with_copy()
    {
        program().wait_for_exit(kPatience);
        ASSERT_NE(support::raw_log(), "");
        expect_end({0, {}, support::raw_log()});
    }
};

namespace {

const lines error = {"ERROR ERROR: setsockopt failed"};

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

TEST_F(program_log, without_the_directory_nothing_is_logged_or_made)
{
    with_no_log_directory();
    run_with_errors();
    expect_end();
    EXPECT_FALSE(fs::exists(support::log_directory));
}

TEST_F(program_log, directory_alone_means_level_info)
{
    run_with_errors();
    expect_end();
    expect_log(errors_and_info());
}

TEST_F(program_log, file_in_place_of_the_directory_keeps_logging_off)
{
    with_no_log_directory();
    fs::copy_file("/proc/self/comm", support::log_directory);
    run_with_errors();
    expect_end();
    EXPECT_TRUE(fs::is_regular_file(support::log_directory));
}

TEST_F(program_log, file_is_named_after_the_program_and_the_day)
{
    const std::string before = today();
    start_connected();
    close_and_expect_end();
    const std::vector<std::string> files = log_files();
    ASSERT_EQ(files.size(), before == today() ? 1U : files.size()); // two when midnight passes
    EXPECT_EQ(files.front(),
              "tvkintif_" + (before == today() ? before : files.front().substr(9, 8)) + ".log");
}

TEST_F(program_log, line_begins_with_clock_process_thread_and_level)
{
    start_connected();
    close_and_expect_end();
    const support::log_line first = support::log_lines().front();
    EXPECT_EQ(first.process, std::to_string(pid()));
    EXPECT_EQ(first.thread, std::to_string(pid()));
    EXPECT_EQ(first.level, "INFO");
    EXPECT_EQ(first.message, "port = 0");
    const std::string whole =
        "[" + first.clock + "][" + first.process + "](" + first.thread + ")[INFO]port = 0\n";
    EXPECT_EQ(support::raw_log().substr(0, whole.size()), whole);
}

TEST_F(program_log, clock_is_hours_minutes_seconds_and_the_second_times_a_thousand)
{
    start_connected();
    close_and_expect_end();
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

TEST_F(program_log, every_line_ends_in_a_newline)
{
    start_connected();
    close_and_expect_end();
    const std::string log = support::raw_log();
    EXPECT_EQ(static_cast<std::size_t>(std::count(log.begin(), log.end(), '\n')),
              (announced + told_to_close).all().size());
    EXPECT_EQ(log.back(), '\n');
}

TEST_F(program_log, second_run_appends_to_the_first)
{
    start_connected();
    close_and_expect_end();
    hang_up();
    start_connected();
    close_and_expect_end();
    expect_log(announced + told_to_close + announced + told_to_close);
}

TEST_F(program_log, level_0_names_the_source_of_each_line)
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

struct setting {
    const char* name;
    const char* text; ///< of setting.ini
    enum class effect { copies, all, errors, nothing } writes;
};

void PrintTo(const setting& each, std::ostream* out)
{
    *out << each.name;
}

class each_setting : public program_log, public testing::WithParamInterface<setting> {};

TEST_P(each_setting, has_its_effect)
{
    with_settings(GetParam().text);
    run_with_errors();
    switch (GetParam().writes) {
    case setting::effect::copies:
        expect_end_with_copy();
        EXPECT_EQ(support::source_of(support::log_lines().front().message), "transceiver");
        return;
    case setting::effect::all:
        expect_end();
        expect_log(errors_and_info());
        return;
    case setting::effect::errors:
        expect_end();
        expect_log(error + error + error);
        return;
    case setting::effect::nothing:
        expect_end();
        EXPECT_EQ(log_files(), std::vector<std::string>());
        return;
    }
}

INSTANTIATE_TEST_SUITE_P(
    , each_setting,
    testing::Values(
        setting{"level_0", "loglevel=0\n", setting::effect::copies},
        setting{"level_1", "loglevel=1\n", setting::effect::all},
        setting{"level_2", "loglevel=2\n", setting::effect::errors},
        setting{"level_3", "loglevel=3\n", setting::effect::errors},
        setting{"level_4", "loglevel=4\n", setting::effect::nothing},
        setting{"level_5", "loglevel=5\n", setting::effect::nothing},
        setting{"level_99", "loglevel=99\n", setting::effect::nothing},
        setting{"negative_level", "loglevel=-3\n", setting::effect::copies},
        setting{"level_that_is_no_number", "loglevel=abc\n", setting::effect::copies},
        setting{"number_with_letters_behind_it", "loglevel=2abc\n", setting::effect::errors},
        setting{"capitals_and_blanks", " \t LogLevel\t =  0 \r\n", setting::effect::copies},
        setting{"first_of_two_levels", "loglevel=3\nloglevel=1\n", setting::effect::errors},
        setting{"level_after_one_without_a_value", "loglevel=\nloglevel=3\n", setting::effect::errors},
        setting{"level_after_one_without_an_equals_sign", "loglevel\nloglevel=3\n", setting::effect::errors},
        setting{"level_after_comments", "#loglevel=1\n;loglevel=1\nloglevel=3\n", setting::effect::errors},
        setting{"last_line_without_a_newline", "[log]\nname=a=b\nloglevel = 3", setting::effect::errors},
        setting{"no_level", "loglevel=\nother=1\n", setting::effect::nothing},
        setting{"empty_file", "", setting::effect::nothing}),
    [](const auto& test) { return test.param.name; });

TEST_F(program_log, file_that_cannot_be_opened_drops_the_lines_and_their_copies)
{
    with_log_level(0);
    const std::string file = support::log_directory + "/tvkintif_" + today() + ".log";
    fs::create_directory(file); // a directory cannot be appended to, not even by root
    start_connected();
    open();
    close_and_expect_end();
    EXPECT_TRUE(fs::is_empty(file));
}

TEST_F(program_log, replies_are_the_same_without_it)
{
    with_no_log_directory();
    start_connected();
    open();
    expect_answer(recv_request(3), ok_reply(device_bytes(3)));
    expect_answer(frame(2, 8, 1), nak_reply(2));
    close_and_expect_end();
}

} // namespace process_test
