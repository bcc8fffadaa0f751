#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <regex>

#include "common/process/unique_fd.h"
#include "process/tvkctl/explain_test.h"
#include "process/tvkctl/usb_paths.h"
#include "support/files.h"
#include "support/log_reader.h"
#include "support/page_examples.h"
#include "support/plugin_files.h"
#include "support/private_paths.h"

namespace fs = std::filesystem;

namespace process_test {

namespace {

std::string replaced(std::string text, const std::string& what, const std::string& by)
{
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size())
        text.replace(at, what.size(), by);
    return text;
}

/// The commands of docs/troubleshooting.md on the machines that it describes. A section without a machine
/// here fails.
class troubleshooting_page_test : public explain_test {
protected:
    void SetUp() override
    {
        explain_test::SetUp();
        with_bus("device scanner 1a2b:3c4d serial SN0042\n  place 1 1 1\n");
    }

    /// Makes the machine of a section; whether its user is an ordinary one.
    bool arrange(const std::string& section)
    {
        const std::map<std::string, std::function<bool()>> machines = {
            {"When all is well", [] { return false; }},
            {"The address", [] { return false; }},
            {"The device is not on the bus",
             [&] {
                 with_bus("device scanner 1a2b:3c4e serial SN0042\n  place 1 1 1\n");
                 return false;
             }},
            {"Another device than the one that is meant", [] { return false; }},
            {"This user may not open it",
             [&] {
                 make_node(1, 1, 0, 0600);
                 return true;
             }},
            {"No interface that could be used",
             [&] {
                 with_bus("device printer 1a2b:3c4d\n  place 1 1 1\n  configuration 1\n"
                          "  interface 0 07 02\n  endpoint 81\n  endpoint 02\n");
                 return false;
             }},
            {"A kernel driver has it",
             [] {
                 bind_driver("1-1:1.0", "usblp");
                 return false;
             }},
            {"Another process has it",
             [&] {
                 bind_driver("1-1:1.0", "usbfs");
                 m_held = tarvik::unique_fd(open(node().c_str(), O_RDWR | O_CLOEXEC));
                 return false;
             }},
            {"The plugin is missing",
             [] {
                 support::remove_plugins();
                 return false;
             }},
            {"The plugin cannot be loaded",
             [&] {
                 with_plugin("plugin_needing_absent_library");
                 return false;
             }},
            {"The program does not start",
             [&] {
                 program_that("echo -1");
                 return false;
             }},
            {"The open is refused, and there is no log",
             [&] {
                 with_plugin("plugin_refusing");
                 return false;
             }},
            {"The open is refused, and the log tells why",
             [&] {
                 support::make_log_directory();
                 with_plugin("plugin_refusing");
                 return false;
             }},
            {"The log", [] { return false; }},
        };
        const auto found = machines.find(section);
        if (found == machines.end())
            ADD_FAILURE() << "no machine for the section \"" << section << "\"";
        return found != machines.end() && found->second();
    }

    /// As if it had run on an ordinary machine.
    static std::string as_on_the_page(std::string output)
    {
        output = replaced(output, tvkintif_path, "/usr/bin/tvkintif");
        output = replaced(output, scratch("program"), "/opt/other/tvkintif");
        output = replaced(output, fs::path(plugin_file()).parent_path(),
                          "/usr/lib/arm-linux-gnueabihf/tarvik/libexec");
        output = replaced(output, "tvkctl_tests", "front-end");
        output = replaced(output, std::to_string(getpid()), "4711");
        output = std::regex_replace(output, std::regex("GROUP=\"[^\"]*\""), "GROUP=\"scanner\"");
        output = std::regex_replace(output, std::regex("usermod -aG [^ ]* "), "usermod -aG scanner ");
        output = std::regex_replace(output, std::regex(" +\n"), "\n");
        return std::regex_replace(output, std::regex("_[0-9]{8}\\.log"), "_20261115.log");
    }

    /// What a command of the page prints, on both streams.
    std::string output_of(std::string command, bool is_ordinary_user)
    {
        command = std::regex_replace(command, std::regex("^(sudo )?tvkctl "), "\"$TVKCTL\" ");
        command = replaced(command, "/opt/other/tvkintif", scratch("program"));
        if (is_ordinary_user)
            command = as_nobody(command);
        return as_on_the_page(run_in_shell("(" + command + ") 2>&1").out);
    }

    void expect_true(const support::page_example& shown)
    {
        SCOPED_TRACE(shown.heading);
        const bool is_ordinary_user = arrange(shown.heading);
        std::string real;
        for (const std::string& command : support::commands_of(shown))
            real += "$ " + command + "\n" + output_of(command, is_ordinary_user);
        EXPECT_EQ(shown.text, real);
        m_held.reset();
    }

    const std::string page = support::read_file(SOURCE_FOLDER "/docs/troubleshooting.md");
    tarvik::unique_fd m_held;
};

TEST_F(troubleshooting_page_test, every_command_prints_what_the_page_shows)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "one of the commands is run as another user, for which this test must be root";
    // The dialogue of the bus is written by whoever runs.
    ASSERT_EQ(chmod(fs::path(scratch("x")).parent_path().c_str(), 0777), 0);
    const std::vector<support::page_example> examples = support::examples_of(page);
    EXPECT_GE(examples.size(), 14U);
    for (const support::page_example& shown : examples) {
        expect_true(shown);
        SetUp(); // each section begins on a machine where all is well
        ASSERT_EQ(chmod(fs::path(scratch("x")).parent_path().c_str(), 0777), 0);
    }
}

TEST_F(troubleshooting_page_test, the_exit_status_of_each_check_is_on_the_page)
{
    const std::string help = run({"--help"}).out;
    const std::regex row("\n +(2[0-9])  explain: ([^\n]*)");
    int count = 0;
    for (std::sregex_iterator found(help.begin(), help.end(), row), end; found != end; ++found, ++count) {
        const std::string number = (*found)[1];
        const std::string meaning = (*found)[2];
        EXPECT_NE(page.find("| " + meaning + " | " + number + " |"), std::string::npos)
            << "no row for " << number << ", " << meaning;
    }
    EXPECT_EQ(count, 8);
}

} // namespace

} // namespace process_test
