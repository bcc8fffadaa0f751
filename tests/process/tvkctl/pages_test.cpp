// What pages show of tvkctl: each part that is made by it is made again and compared. scripts/pages renews
// them.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <functional>
#include <map>
#include <regex>

#include "common/process/unique_fd.h"
#include "process/tvkctl/explain_test.h"
#include "process/tvkctl/usb_paths.h"
#include "support/expect_on_page.h"
#include "support/files.h"
#include "support/log_reader.h"
#include "support/plugin_files.h"
#include "support/private_paths.h"

namespace fs = std::filesystem;

namespace process_test {

namespace {

using support::expect_on_page;
using support::page_part;

const std::string kGuide = SOURCE_FOLDER "/docs/tvkctl.md";
const std::string kManPage = SOURCE_FOLDER "/docs/tvkctl.1";
const std::string kTroubleshooting = SOURCE_FOLDER "/docs/troubleshooting.md";

std::string replaced(std::string text, const std::string& what, const std::string& by)
{
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size())
        text.replace(at, what.size(), by);
    return text;
}

/// What stands between two markers.
std::string between(const std::string& text, const std::string& from, const std::string& to)
{
    const std::size_t begin = text.find(from);
    const std::size_t end = text.find(to, begin + from.size());
    return begin == std::string::npos ? "" : text.substr(begin + from.size(), end - begin - from.size());
}

using row = std::vector<std::string>;

/// The groups of every match, behind the whole of it.
std::vector<row> all_matches(const std::string& text, const std::string& pattern)
{
    const std::regex expression(pattern);
    std::vector<row> all;
    for (std::sregex_iterator match(text.begin(), text.end(), expression), end; match != end; ++match)
        all.emplace_back(match->begin(), match->end());
    return all;
}

/// The examples that this machine can play; an ARM machine plays the others.
std::vector<page_part> all_examples()
{
    std::vector<page_part> all = support::examples_of(kTroubleshooting);
    for (page_part& part : support::examples_of(kGuide))
        if (part.name != "check-plugin")
            all.push_back(std::move(part));
    return all;
}

std::string name_of_example(const testing::TestParamInfo<page_part>& info)
{
    std::string name = fs::path(info.param.page).stem().string() + "_" + info.param.name;
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
    return name;
}

/// The commands of a page on the machine that its section describes. A section without a machine here fails.
class pages : public explain_test, public testing::WithParamInterface<page_part> {
protected:
    void SetUp() override
    {
        explain_test::SetUp();
        with_bus("device scanner 1a2b:3c4d serial SN0042\n  place 1 1 1\n");
        // The dialogue of the bus is written by whoever runs.
        fs::permissions(fs::path(scratch("x")).parent_path(), fs::perms::all);
    }

    /// The machine of the guide: its scanner has names and belongs to root.
    void arrange_guide()
    {
        with_bus("device scanner 1a2b:3c4d serial SN0042\n  manufacturer Tarvik\n  product Virtual scanner\n"
                 "  place 1 1 1\n");
        make_node(1, 1, 0, 0664);
        m_isOrdinaryUser = true;
    }

    void arrange(const std::string& section)
    {
        const std::map<std::string, std::function<void()>> machines = {
            {"list", [&] { arrange_guide(); }},
            {"run", [&] { with_bus("device scanner 1a2b:3c4d\ntransfer scanner 81 bytes 00414243\n"); }},
            {"explain", [&] { arrange_guide(); }},
            {"log", [] { support::make_log_directory(); }},
            {"When all is well", [] {}},
            {"The address", [] {}},
            {"The device is not on the bus",
             [&] { with_bus("device scanner 1a2b:3c4e serial SN0042\n  place 1 1 1\n"); }},
            {"Another device than the one that is meant", [] {}},
            {"This user may not open it",
             [&] {
                 make_node(1, 1, 0, 0600);
                 m_isOrdinaryUser = true;
             }},
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
            {"The log", [] {}},
        };
        const auto found = machines.find(section);
        ASSERT_NE(found, machines.end()) << "no machine for the section \"" << section << "\"";
        found->second();
    }

    /// As if it had run on an ordinary machine.
    static std::string as_on_the_page(std::string output)
    {
        output = replaced(output, kTvkintifPath, "/usr/bin/tvkintif");
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
        command = std::regex_replace(command, std::regex("^(sudo )?tvkctl$"), "\"$TVKCTL\"");
        command = replaced(command, "/opt/other/tvkintif", scratch("program"));
        if (m_isOrdinaryUser)
            command = as_nobody(command);
        return as_on_the_page(run_in_shell("(" + command + ") 2>&1").out);
    }

    bool m_isOrdinaryUser = false;
    tarvik::unique_fd m_held;
};

TEST_P(pages, show_what_is_printed)
{
    arrange(GetParam().name);
    if (m_isOrdinaryUser && geteuid() != 0)
        GTEST_SKIP() << "only root can run a command as another user";
    std::string made;
    for (const std::string& command : support::commands_of(GetParam()))
        made += "$ " + command + "\n" + output_of(command);
    m_held.reset();
    expect_on_page(GetParam(), made);
}

INSTANTIATE_TEST_SUITE_P(docs, pages, testing::ValuesIn(all_examples()), name_of_example);

/// What is made from the help of tvkctl.
class pages_of_help : public tvkctl_test {
protected:
    std::string help(const std::vector<std::string>& command = {})
    {
        std::vector<std::string> arguments = command;
        arguments.emplace_back("--help");
        return run(arguments).out;
    }

    static std::string in_man_page(std::string text)
    {
        text = replaced(std::move(text), "\\", "\\e");
        return replaced(std::move(text), "-", "\\-");
    }

    static std::string man_row(const std::string& term, const std::string& operands,
                               const std::string& meaning)
    {
        const std::string head = operands.empty()
                                     ? ".B " + in_man_page(term)
                                     : ".BI \"" + in_man_page(term) + " \" \"" + in_man_page(operands) + "\"";
        return ".TP\n" + head + "\n" + in_man_page(meaning) + "\n";
    }

    /// The options that every command has, or the others of one command.
    std::string man_rows_of_options(const std::string& command, bool is_common)
    {
        const char* pattern =
            R"((?:^|\n)  ((?:-[a-z],)?--[a-z-]+)(?: ([A-Z]+))?[^\n]*?(?:  +|\n {10,})([^\n]+))";
        std::string rows;
        for (const row& found : all_matches(between(help({command}), "Options:\n", "\n\n"), pattern)) {
            const std::string option = replaced(found[1], ",", ", ");
            const bool is_of_all = option == "-h, --help" || option == "--json";
            if (is_of_all == is_common)
                rows += man_row(option, found[2], found[3]);
        }
        return rows;
    }

    std::vector<row> statuses() { return all_matches(help(), "\n +([0-9]+)  ([^\n]+)"); }
};

TEST_F(pages_of_help, man_page_has_the_options_of_every_command)
{
    expect_on_page(support::part_named("options", kManPage), man_rows_of_options("list", true));
    for (const row& command : all_matches(between(help(), "Subcommands:", "\n\n"), "\n  ([a-z-]+)"))
        expect_on_page(support::part_named("options of " + command[1], kManPage),
                       man_rows_of_options(command[1], false));
}

TEST_F(pages_of_help, man_page_has_the_steps_of_run)
{
    const std::string steps = between(help({"run"}), "leaves it alone:", "\nA file name");
    const char* pattern = R"(\n  ([a-z]+) (\S+(?: \S+)*)  +([^\n]+(?:\n {10,}[^\n]+)*))";
    std::string rows;
    for (const row& found : all_matches(steps, pattern))
        rows += man_row(found[1], found[2], std::regex_replace(found[3], std::regex("\n +"), "\n"));
    expect_on_page(support::part_named("steps", kManPage), rows);
}

TEST_F(pages_of_help, man_page_has_the_exit_statuses)
{
    std::string rows;
    for (const row& found : statuses())
        rows += man_row(found[1], "", found[2]);
    expect_on_page(support::part_named("exit statuses", kManPage), rows);
}

TEST_F(pages_of_help, guide_has_the_exit_statuses)
{
    std::string rows = "| status | meaning |\n|---|---|\n";
    for (const row& found : statuses())
        rows += "| " + found[1] + " | " + found[2] + " |\n";
    expect_on_page(support::part_named("exit statuses", kGuide), rows);
}

TEST_F(pages_of_help, troubleshooting_has_the_checks_in_their_order)
{
    std::string rows = "| check | what is wrong when it fails | exit status |\n|---|---|---|\n";
    const std::string checks = between(help({"explain"}), "when one fails:", "\n\n");
    for (const row& found : all_matches(checks, "\n +([0-9]+)  ([a-z]+) +([^\n]+)"))
        rows += "| " + found[2] + " | " + found[3] + " | " + found[1] + " |\n";
    expect_on_page(support::part_named("checks", kTroubleshooting), rows);
}

} // namespace

} // namespace process_test
