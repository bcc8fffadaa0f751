#include <algorithm>
#include <filesystem>
#include <iterator>
#include <regex>
#include <set>

#include "process/tvkctl/tvkctl_test.h"
#include "support/files.h"

namespace process_test {

namespace {

using names = std::set<std::string>;

const std::string kSourceFolder = SOURCE_FOLDER;

names all_matches(const std::string& text, const std::string& pattern)
{
    const std::regex expression(pattern);
    names found;
    for (std::sregex_iterator match(text.begin(), text.end(), expression), end; match != end; ++match)
        found.insert((*match)[1]);
    return found;
}

/// What stands between two markers; to the end when the second does not come.
std::string between(const std::string& text, const std::string& from, const std::string& to)
{
    const std::size_t begin = text.find(from);
    if (begin == std::string::npos)
        return {};
    const std::size_t end = text.find(to, begin + from.size());
    return text.substr(begin + from.size(), end == std::string::npos ? end : end - begin - from.size());
}

/// Help, man page, guide and completion tell the same.
class tvkctl_help_test : public tvkctl_test {
protected:
    std::string help(const std::string& command = {})
    {
        const tvkctl_result result = command.empty() ? run({"--help"}) : run({command, "--help"});
        EXPECT_EQ(result.status, 0) << result.err;
        return result.out;
    }

    names commands()
    {
        const names found = all_matches(between(help(), "Subcommands:\n", "\n\n"), "(?:^|\n)  ([a-z-]+) ");
        EXPECT_GE(found.size(), 2U);
        return found;
    }

    names options_of(const std::string& command)
    {
        return all_matches(between(help(command), "Options:\n", "\n\n"), "(?:^|\n)  (?:-[a-z],)?(--[a-z-]+)");
    }

    static std::string man_page() { return support::read_file(kSourceFolder + "/docs/tvkctl.1"); }

    /// What the completion offers for a command line whose cursor stands at its end.
    std::string completions_of(const std::string& line)
    {
        const tvkctl_result result = run_in_shell("source " + kSourceFolder +
                                                  "/src/tvkctl/completion/tvkctl\n"
                                                  "PATH=${TVKCTL%/*}:$PATH\n"
                                                  "COMP_LINE='" +
                                                  line +
                                                  "' COMP_POINT=${#COMP_LINE}\n"
                                                  "read -ra COMP_WORDS <<<\"$COMP_LINE\"\n"
                                                  "[[ $COMP_LINE == *' ' ]] && COMP_WORDS+=('')\n"
                                                  "COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n"
                                                  "_tvkctl\n"
                                                  "printf '%s\\n' \"${COMPREPLY[@]}\"\n");
        EXPECT_EQ(result.err, "");
        return result.out;
    }
};

TEST_F(tvkctl_help_test, man_page_guide_and_completion_have_every_command_and_no_other)
{
    const std::string guide = support::read_file(kSourceFolder + "/docs/tvkctl.md");
    EXPECT_EQ(all_matches(man_page(), R"(\n\.SS "tvkctl ([a-z-]+))"), commands());
    EXPECT_EQ(all_matches(guide, "\n\\| `tvkctl ([a-z-]+)"), commands());
    EXPECT_EQ(all_matches(completions_of("tvkctl "), "(?:^|\n)([a-z][a-z-]*)"), commands());
}

TEST_F(tvkctl_help_test, every_command_shows_examples_and_offers_json)
{
    for (const std::string& command : commands()) {
        EXPECT_NE(help(command).find("Examples:\n  tvkctl " + command), std::string::npos) << command;
        EXPECT_EQ(options_of(command).count("--json"), 1U) << command;
    }
}

TEST_F(tvkctl_help_test, the_version_is_a_number)
{
    EXPECT_TRUE(std::regex_match(run({"--version"}).out, std::regex("[0-9]+\\.[0-9]+\\.[0-9]+\n")));
}

TEST_F(tvkctl_help_test, commands_options_actions_and_addresses_behind_their_last_colon_are_completed)
{
    EXPECT_EQ(completions_of("tvkctl ru"), "run\n");
    EXPECT_EQ(completions_of("tvkctl run --chu"), "--chunk\n");
    EXPECT_EQ(completions_of("tvkctl log f"), "follow\n");
    EXPECT_EQ(completions_of("tvkctl run usb:1a2b:"), "3c4d\n");
}

TEST_F(tvkctl_help_test, every_option_of_every_command_is_offered)
{
    for (const std::string& command : commands())
        EXPECT_EQ(all_matches(completions_of("tvkctl " + command + " -"), "(?:^|\n)(--[a-z-]+)"),
                  options_of(command))
            << command;
}

TEST_F(tvkctl_help_test, what_a_shell_would_take_for_its_own_is_quoted_in_an_address_and_not_run)
{
    with_bus("device scanner 1a2b:3c4d serial A$(touch touched) B\n");
    EXPECT_EQ(completions_of("tvkctl run usb:1a2b:3c4d:"), "A\\$\\(touch\\ touched\\)\\ B\n");
    EXPECT_FALSE(std::filesystem::exists(scratch("touched")));
}

} // namespace

} // namespace process_test
