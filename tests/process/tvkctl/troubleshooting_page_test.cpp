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

const std::string page = support::read_file(SOURCE_FOLDER "/docs/troubleshooting.md");

/// The commands of a section of docs/troubleshooting.md on the machine that it describes.
class troubleshooting_page_test : public explain_test,
                                  public testing::WithParamInterface<support::page_example> {
protected:
    void SetUp() override
    {
        explain_test::SetUp();
        with_bus("device scanner 1a2b:3c4d serial SN0042\n  place 1 1 1\n");
    }

    /// Makes the machine of a section out of one where all is well.
    void arrange(const std::string& section)
    {
        const auto all_is_well = [] {};
        const std::map<std::string, std::function<void()>> machines = {
            {"When all is well", all_is_well},
            {"The address", all_is_well},
            {"The device is not on the bus",
             [&] { with_bus("device scanner 1a2b:3c4e serial SN0042\n  place 1 1 1\n"); }},
            {"Another device than the one that is meant", all_is_well},
            {kUserWithoutRights, [&] { make_node(1, 1, 0, 0600); }},
            {"No interface that could be used",
             [&] {
                 with_bus("device printer 1a2b:3c4d\n  place 1 1 1\n  configuration 1\n"
                          "  interface 0 07 02\n  endpoint 81\n  endpoint 02\n");
             }},
            {"A kernel driver has it", [] { bind_driver("1-1:1.0", "usblp"); }},
            {"Another process has it",
             [&] {
                 bind_driver("1-1:1.0", "usbfs");
                 m_held = tarvik::unique_fd(open(node().c_str(), O_RDWR | O_CLOEXEC));
             }},
            {"The plugin is missing", [] { support::remove_plugins(); }},
            {"The plugin cannot be loaded", [&] { with_plugin("plugin_needing_absent_library"); }},
            {"The program does not start", [&] { program_that("echo -1"); }},
            {"The open is refused, and there is no log", [&] { with_plugin("plugin_refusing"); }},
            {"The open is refused, and the log tells why",
             [&] {
                 support::make_log_directory();
                 with_plugin("plugin_refusing");
             }},
            {"The log", all_is_well},
        };
        const auto found = machines.find(section);
        ASSERT_NE(found, machines.end()) << "no machine for this section";
        found->second();
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
    std::string output_of(std::string command)
    {
        command = std::regex_replace(command, std::regex("^(sudo )?tvkctl "), "\"$TVKCTL\" ");
        command = replaced(command, "/opt/other/tvkintif", scratch("program"));
        if (GetParam().heading == kUserWithoutRights)
            command = as_nobody(command);
        return as_on_the_page(run_in_shell("(" + command + ") 2>&1").out);
    }

    static constexpr const char* kUserWithoutRights = "This user may not open it";

private:
    tarvik::unique_fd m_held;
};

TEST_P(troubleshooting_page_test, shows_what_its_commands_print)
{
    if (GetParam().heading == kUserWithoutRights && geteuid() != 0)
        GTEST_SKIP() << "only root can run a command as another user";
    // The dialogue of the bus is written by whoever runs.
    ASSERT_EQ(chmod(fs::path(scratch("x")).parent_path().c_str(), 0777), 0);
    arrange(GetParam().heading);
    std::string real;
    for (const std::string& command : support::commands_of(GetParam()))
        real += "$ " + command + "\n" + output_of(command);
    EXPECT_EQ(real, GetParam().text);
}

std::string name_of_section(const testing::TestParamInfo<support::page_example>& section)
{
    return std::regex_replace(section.param.heading, std::regex("[^A-Za-z0-9]+"), "_");
}

INSTANTIATE_TEST_SUITE_P(, troubleshooting_page_test, testing::ValuesIn(support::examples_of(page)),
                         name_of_section);

using troubleshooting_page_statuses = tvkctl_test;

TEST_F(troubleshooting_page_statuses, are_those_of_the_help)
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
