#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>

#include "process/tvkctl/tvkctl_test.h"
#include "support/files.h"
#include "support/log_reader.h"
#include "support/private_paths.h"
#include "support/wait_until.h"

namespace fs = std::filesystem;

namespace process_test {

namespace {

using nlohmann::json;

using support::kPatience;

/// Local date in the form of strftime, some days from now.
std::string date(const char* form, int days = 0)
{
    const std::time_t moment = std::time(nullptr) + days * 86'400;
    std::tm local = {};
    localtime_r(&moment, &local);
    std::ostringstream text;
    text << std::put_time(&local, form);
    return text.str();
}

std::string line_of(const std::string& level, const std::string& message)
{
    return "[10:23:45.45000][1234](1236)[" + level + "]" + message + "\n";
}

class tvkctl_log_test : public tvkctl_test {
protected:
    static std::string file_of_day(int days = 0)
    {
        return support::kLogDirectory + "/tvkintif_" + date("%Y%m%d", days) + ".log";
    }
    static void append(const std::string& text, int days = 0)
    {
        std::ofstream(file_of_day(days), std::ios::app) << text;
    }

    void start_following(const std::vector<std::string>& more = {})
    {
        // Through a file: what follow writes is to be seen while it runs.
        std::string command = "exec \"$TVKCTL\" log follow";
        for (const std::string& option : more)
            command += " " + option;
        m_follower = std::make_unique<tarvik::child_process>(
            launch_of("/bin/bash", {"-c", command + " > followed.txt"}));
    }
    static bool has_followed(const std::string& text)
    {
        return support::wait_until(kPatience,
                                   [&] { return support::read_file(scratch("followed.txt")) == text; });
    }
    void end_following()
    {
        m_follower->signal(SIGTERM);
        EXPECT_EQ(m_follower->wait_for_exit(kPatience), tarvik::exit_status::killed_by(SIGTERM));
    }

    tvkctl_result run_as_nobody(const std::string& arguments)
    {
        const tvkctl_result result = run_in_shell("exec " + as_nobody("\"$TVKCTL\" " + arguments));
        if (result.status == 127)
            []() { GTEST_SKIP() << "needs root and setpriv to run as another user"; }();
        return result;
    }

    std::unique_ptr<tarvik::child_process> m_follower;
};

TEST_F(tvkctl_log_test, off_is_reported_with_its_reason_and_70)
{
    const tvkctl_result result = run({"log"});
    EXPECT_EQ(result.status, 70);
    EXPECT_EQ(result.out, "Logging is off: /tmp/velnor/tvkintif does not exist\n"
                          "Turn it on with: tvkctl log on.\n");
    EXPECT_EQ(result.err, "");
}

TEST_F(tvkctl_log_test, on_is_reported_with_its_level_and_place)
{
    support::make_log_directory(2);
    const tvkctl_result result = run({"log"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "Logging is on: WARNING and above\n"
                          "  directory  /tmp/velnor/tvkintif, owner root, mode 0755\n"
                          "  settings   /tmp/velnor/tvkintif/setting.ini\n"
                          "  today      " +
                              file_of_day() + " (nothing yet)\n");
}

TEST_F(tvkctl_log_test, a_directory_of_root_is_reported_to_other_users_with_71)
{
    support::make_log_directory();
    const tvkctl_result result = run_as_nobody("log");
    if (IsSkipped())
        return;
    EXPECT_EQ(result.status, 71);
    EXPECT_EQ(result.out.substr(0, result.out.find('\n')),
              "Logging is on, but not for this user: /tmp/velnor/tvkintif is not writable by nobody");
    EXPECT_NE(result.out.find("Have root hand it over with: sudo tvkctl log on --for nobody.\n"),
              std::string::npos);
}

TEST_F(tvkctl_log_test, a_directory_of_another_user_is_off_with_its_remedy)
{
    support::make_log_directory();
    ASSERT_EQ(chown(support::kLogDirectory.c_str(), 65534, 65534), 0);
    EXPECT_EQ(run({"log"}).out,
              "Logging is off: /tmp/velnor/tvkintif belongs neither to root nor to this user\n"
              "See who put it there (ls -ld /tmp/velnor/tvkintif) and have root remove it.\n");
}

TEST_F(tvkctl_log_test, json_has_the_state)
{
    support::make_log_directory(1);
    const json document = json::parse(run({"log", "--json"}).out);
    EXPECT_EQ(document, json({{"on", true},
                              {"written_for_this_user", true},
                              {"why_not", nullptr},
                              {"level", "INFO"},
                              {"directory", "/tmp/velnor/tvkintif"},
                              {"owner", "root"},
                              {"mode", "0755"},
                              {"settings", "/tmp/velnor/tvkintif/setting.ini"},
                              {"file", file_of_day()},
                              {"file_exists", false},
                              {"done", json::array()}}));
}

TEST_F(tvkctl_log_test, the_program_heeds_what_on_and_off_set)
{
    const std::vector<std::string> session = {"run", "usb:1a2b:3c4d", "query 1"};
    EXPECT_EQ(run({"log", "on", "--level", "error"}).status, 0);
    run(session);
    EXPECT_EQ(support::raw_log(), "");
    EXPECT_EQ(run({"log", "on", "--level", "info"}).status, 0);
    run(session);
    const std::string logged = support::raw_log();
    EXPECT_NE(logged.find("[INFO]open usb:1a2b:3c4d\n"), std::string::npos);
    EXPECT_EQ(run({"log", "off"}).status, 0);
    run(session);
    EXPECT_EQ(support::raw_log(), logged);
}

TEST_F(tvkctl_log_test, off_says_what_it_did)
{
    support::make_log_directory();
    append(line_of("INFO", "kept"));
    EXPECT_EQ(run({"log", "off"}).out,
              "set loglevel = 5 in /tmp/velnor/tvkintif/setting.ini; the logs stay\n"
              "programs that are running keep logging until they end\n"
              "Logging is off: /tmp/velnor/tvkintif/setting.ini sets a loglevel above that of FATAL\n"
              "  directory  /tmp/velnor/tvkintif, owner root, mode 0755\n"
              "  settings   /tmp/velnor/tvkintif/setting.ini\n"
              "  today      " +
                  file_of_day() +
                  "\n"
                  "Turn it on with: tvkctl log on.\n");
}

TEST_F(tvkctl_log_test, purge_removes_the_logs)
{
    support::make_log_directory();
    append(line_of("INFO", "lost"));
    EXPECT_EQ(run({"log", "off", "--purge"}).status, 0);
    EXPECT_FALSE(fs::exists(support::kLogDirectory));
}

TEST_F(tvkctl_log_test, a_link_in_place_of_the_directory_is_refused_with_72)
{
    fs::create_directory_symlink(scratch("."), support::kLogDirectory);
    const tvkctl_result result = run({"log", "on"});
    EXPECT_EQ(result.status, 72);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "tvkctl: /tmp/velnor/tvkintif is not a directory but a file or a symbolic "
              "link. Find out who put it there (ls -ld /tmp/velnor/tvkintif) and have it removed.\n");
    fs::remove(support::kLogDirectory);
}

TEST_F(tvkctl_log_test, on_for_a_user_lets_that_users_programs_log)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can hand the log over";
    EXPECT_EQ(run({"log", "on", "--for", "nobody"}).status, 0);
    const tvkctl_result seen_by_nobody = run_as_nobody("log");
    if (IsSkipped())
        return;
    EXPECT_EQ(seen_by_nobody.status, 0);
    EXPECT_NE(seen_by_nobody.out.find("owner nobody, mode 0755"), std::string::npos) << seen_by_nobody.out;
}

TEST_F(tvkctl_log_test, show_prints_the_lines_of_a_day_from_a_level_on)
{
    support::make_log_directory();
    const std::string today =
        line_of("INFO", "one") + "and more\n" + line_of("WARNING", "two") + line_of("ERROR", "three");
    append(line_of("INFO", "old"), -1);
    append(today);
    EXPECT_EQ(run({"log", "show"}).out, today);
    EXPECT_EQ(run({"log", "show", "--level", "WARNING"}).out,
              line_of("WARNING", "two") + line_of("ERROR", "three"));
    EXPECT_EQ(run({"log", "show", "--date", date("%Y-%m-%d", -1)}).out, line_of("INFO", "old"));
}

TEST_F(tvkctl_log_test, show_lets_no_control_byte_through)
{
    support::make_log_directory();
    append(line_of("INFO", "open usb:\033[2J\a"));
    EXPECT_EQ(run({"log", "show"}).out, line_of("INFO", "open usb:\\x1b[2J\\x07"));
}

TEST_F(tvkctl_log_test, show_writes_lines_as_json)
{
    support::make_log_directory();
    append(line_of("INFO", "main(93) one") + "and more\n");
    const json document = json::parse(run({"log", "show", "--json"}).out);
    EXPECT_EQ(document, json({{"date", date("%Y-%m-%d")},
                              {"files",
                               {{{"file", file_of_day()},
                                 {"lines",
                                  {{{"clock", "10:23:45.45000"},
                                    {"process", 1234},
                                    {"thread", 1236},
                                    {"level", "INFO"},
                                    {"source", "main(93)"},
                                    {"message", "one"}},
                                   {{"message", "and more"}}}}}}}}));
}

TEST_F(tvkctl_log_test, a_day_without_log_is_73_and_names_the_newest_or_tells_how_to_get_one)
{
    const std::string complaint =
        "tvkctl: there is no log of " + date("%Y-%m-%d") + " in /tmp/velnor/tvkintif. ";
    EXPECT_EQ(run({"log", "show"}).err, complaint + "Turn it on with: tvkctl log on.\n");
    support::make_log_directory();
    append(line_of("INFO", "old"), -2);
    const std::string day = date("%Y-%m-%d", -2);
    const tvkctl_result result = run({"log", "show"});
    EXPECT_EQ(result.status, 73);
    EXPECT_EQ(result.err,
              complaint + "The newest is that of " + day + ": tvkctl log show --date " + day + ".\n");
}

TEST_F(tvkctl_log_test, a_log_that_cannot_be_read_is_3)
{
    support::make_log_directory();
    append(line_of("INFO", "secret"));
    ASSERT_EQ(chmod(file_of_day().c_str(), 0600), 0);
    const tvkctl_result result = run_as_nobody("log show");
    if (IsSkipped())
        return;
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.err, "tvkctl: " + file_of_day() + " cannot be read by nobody. Try it with sudo.\n");
}

TEST_F(tvkctl_log_test, follow_begins_with_the_last_lines_and_goes_on)
{
    support::make_log_directory();
    std::string expected;
    for (int i = 1; i <= 12; ++i) {
        const std::string line = line_of("INFO", "line " + std::to_string(i));
        append(line);
        expected += i > 2 ? line : "";
    }
    start_following();
    EXPECT_TRUE(has_followed(expected));
    append(line_of("INFO", "new"));
    EXPECT_TRUE(has_followed(expected + line_of("INFO", "new")));
    end_following();
}

TEST_F(tvkctl_log_test, follow_goes_on_after_midnight)
{
    std::string all = line_of("INFO", "one");
    support::make_log_directory();
    append(all);
    start_following();
    EXPECT_TRUE(has_followed(all));
    for (const char* message : {"two", "three"}) {
        append(line_of("INFO", message), 1);
        EXPECT_TRUE(has_followed(all += line_of("INFO", message)));
    }
    end_following();
}

TEST_F(tvkctl_log_test, follow_filters_by_level_and_writes_json_line_by_line)
{
    support::make_log_directory();
    start_following({"--level", "ERROR", "--json"});
    append(line_of("INFO", "one") + line_of("ERROR", "two"));
    EXPECT_TRUE(
        has_followed("{\"clock\":\"10:23:45.45000\",\"process\":1234,\"thread\":1236,\"level\":\"ERROR\","
                     "\"message\":\"two\"}\n"));
    end_following();
}

TEST_F(tvkctl_log_test, follow_ends_with_the_directory)
{
    support::make_log_directory();
    append(line_of("INFO", "one"));
    start_following();
    EXPECT_TRUE(has_followed(line_of("INFO", "one")));
    append(line_of("INFO", "two"));
    EXPECT_TRUE(has_followed(line_of("INFO", "one") + line_of("INFO", "two")));
    fs::remove_all(support::kLogDirectory);
    EXPECT_EQ(m_follower->wait_for_exit(kPatience), tarvik::exit_status::exited(70));
    EXPECT_EQ(m_follower->standard_error(),
              "tvkctl: /tmp/velnor/tvkintif is gone: logging was turned off. Turn it on with: tvkctl "
              "log on.\n");
}

TEST_F(tvkctl_log_test, follow_ends_when_what_it_writes_to_is_full)
{
    support::make_log_directory();
    append(line_of("INFO", "one"));
    const tvkctl_result result = run_in_shell("exec \"$TVKCTL\" log follow >/dev/full");
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.err,
              "tvkctl: standard output cannot be written. Look for a full disk or a closed reader.\n");
}

TEST_F(tvkctl_log_test, follow_without_directory_is_70)
{
    const tvkctl_result result = run({"log", "follow"});
    EXPECT_EQ(result.status, 70);
    EXPECT_EQ(result.out, "");
}

TEST_F(tvkctl_log_test, bad_options_are_usage_errors_on_one_line)
{
    const std::vector<std::vector<std::string>> all = {
        {"log", "sideways"},
        {"log", "on", "--level", "LOUD"},
        {"log", "show", "--date", "yesterday"},
        {"log", "on", "--for", "no such user"},
        {"log", "off", "--level", "INFO"},
        {"log", "on", "--purge"},
        {"log", "--date", "2026-11-15"},
        {"log", "show", "--for", "nobody"},
    };
    for (const auto& arguments : all) {
        const tvkctl_result result = run(arguments);
        EXPECT_EQ(result.status, 2) << arguments.back();
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
    EXPECT_FALSE(fs::exists(support::kLogDirectory));
}

} // namespace

} // namespace process_test
