// What switches logging on, and which lines the whole program then writes.

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
        for (const fs::directory_entry& entry : fs::directory_iterator(support::kLogDirectory))
            if (entry.path().filename() != "setting.ini")
                names.push_back(entry.path().filename());
        return names;
    }
};

namespace {

const lines kError = {"ERROR ERROR: setsockopt failed"};

std::string today()
{
    const std::time_t now = std::time(nullptr);
    char date[16] = {};
    std::strftime(date, sizeof date, "%Y%m%d", std::localtime(&now));
    return date;
}

} // namespace

TEST_F(program_log, without_the_directory_nothing_is_logged_or_made)
{
    with_no_log_directory();
    run_with_errors();
    expect_end();
    EXPECT_FALSE(fs::exists(support::kLogDirectory));
}

TEST_F(program_log, directory_alone_means_level_info)
{
    run_with_errors();
    expect_end();
    expect_log(kError + kAnnounced + kError + kError + kToldToClose);
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

TEST_F(program_log, second_run_appends_to_the_first)
{
    start_connected();
    close_and_expect_end();
    hang_up();
    start_connected();
    close_and_expect_end();
    expect_log(kAnnounced + kToldToClose + kAnnounced + kToldToClose);
}

TEST_F(program_log, level_0_names_the_source_of_each_line_and_copies_it_to_standard_error)
{
    with_log_level(0);
    start_connected();
    close();
    program().wait_for_exit(kPatience);
    expect_end({0, {}, support::raw_log()});
    lines sources;
    lines messages;
    for (const support::log_line& line : support::log_lines()) {
        sources += {support::source_of(line.message)};
        messages += {line.level + " " + support::without_source(line.message)};
    }
    EXPECT_EQ(messages.text(), (kAnnounced + kToldToClose).text());
    EXPECT_EQ(sources.text(), lines({"main", "ipc_connection", "ipc_connection", "ipc_connection", "dispatch",
                                     "dispatch", "dispatch", "main", "main"})
                                  .text());
}

TEST_F(program_log, level_3_leaves_errors_alone_and_no_copy)
{
    with_log_level(3);
    run_with_errors();
    expect_end();
    expect_log(kError + kError + kError);
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
