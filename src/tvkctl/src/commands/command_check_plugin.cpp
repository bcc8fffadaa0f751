#include "tvkctl/src/commands/command_check_plugin.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "tvkctl/src/commands/check_report.h"
#include "tvkctl/src/machine/tool_error.h"
#include "tvkctl/src/plugin/elf_file.h"
#include "tvkctl/src/plugin/plugin_cause.h"
#include "tvkctl/src/plugin/plugin_check.h"
#include "tvkctl/src/plugin/plugin_trial.h"
#include "tvkctl/src/plugin/trial_verdict.h"
#include "tvkctl/src/session/run_steps.h"
#include "tvkctl/src/terminal/numbers.h"

namespace tarvik::tvkctl {

namespace {

constexpr const char* kCheckPluginSummary = "Examine a plugin file, and run it with a scripted device";
constexpr const char* kCheckPluginExamples =
    R"(  tvkctl check-plugin libqvintZ4.so
      reads the file without loading it and judges it for the armhf machine
  tvkctl check-plugin libqvintZ4.so --sysroot /srv/armhf
      looks at the libraries of that machine as well
  tvkctl check-plugin ./mine.so --run
      judges it for this machine, then loads and calls it three times: with a
      device that moves all bytes, half of them, and none
  tvkctl check-plugin ./mine.so --run --answer @identify.bin --send '1b 45'
      gives it its own device's answer, and a command that it understands

The plugin runs in a process of its own; --run is still no protection against
a plugin that means harm. Bytes are written as for tvkctl run: hexadecimal,
"TEXT" or @FILE.)";

/// glibc of the Debian 12 that the armhf machine has.
constexpr const char* kArmhfGlibc = "2.36";
constexpr std::uint64_t kMostBytes = 64U << 20U; // a trial is not a load test

struct script_row {
    transfer_script script;
    const char* name;  ///< for programs
    const char* title; ///< for people
};
constexpr std::array<script_row, 3> kScripts = {{
    {transfer_script::all, "all", "run with a device that moves all bytes"},
    {transfer_script::half, "half", "run with a device that moves half of the bytes"},
    {transfer_script::nothing, "nothing", "run with a device that moves nothing"},
}};

struct check_plugin_options {
    std::string file;
    std::string machine; ///< "armhf", "native" or empty
    std::string sysroot;
    std::string glibc = kArmhfGlibc;
    bool is_run = false;
    std::string answer;
    std::string sent;
    std::string received;
    std::string timeout;
};

/// The checks of one kind, below one heading.
struct section {
    std::string name;
    std::string title;
    std::vector<check_result> results;
};

plugin_target target_of(const check_plugin_options& options)
{
    const bool is_native = options.machine.empty() ? options.is_run : options.machine == "native";
    if (is_native && !options.sysroot.empty())
        throw usage_error("--sysroot cannot be used with a plugin that is judged for this machine",
                          "Leave it out, or add --for armhf.");
    if (options.glibc.find_first_not_of("0123456789.") != std::string::npos || options.glibc.empty())
        throw usage_error("invalid version " + in_quotes(options.glibc) + " for --glibc",
                          "Write it as 2.36.");
    return is_native ? native_target() : armhf_target(options.sysroot, options.glibc);
}

cause cause_of(elf_error::reason why)
{
    return why == elf_error::reason::unreadable ? plugin_cause::kUnreadable : plugin_cause::kNotALibrary;
}

std::string advice_for(elf_error::reason why)
{
    switch (why) {
    case elf_error::reason::unreadable:
        return "Check the name and the rights of the file.";
    case elf_error::reason::not_elf:
        return "Give the shared library that the linker produced.";
    case elf_error::reason::damaged:
        break;
    }
    return "Copy or build it again.";
}

elf_file read_plugin(const std::string& path)
{
    try {
        return read_elf_file(path);
    } catch (const elf_error& error) {
        throw tool_error(cause_of(error.why()), error.what(), {advice_for(error.why())});
    }
}

bytes bytes_of(const char* option, const std::string& text)
{
    std::vector<run_step> steps;
    try {
        steps = {parse_step("send " + text)};
    } catch (const step_error& error) {
        throw usage_error(std::string(option) + ": " + error.what(), "Write '1b 45', '\"TEXT\"' or @FILE.");
    }
    load_files(steps);
    return std::get<send_step>(steps.front().what).items.front().literal;
}

int count_of(const std::string& text)
{
    const auto count = parse_size(text);
    if (!count || *count == 0 || *count > kMostBytes)
        throw usage_error("invalid size " + in_quotes(text) + " for --recv", "Write 1 to 64MiB.");
    return static_cast<int>(*count);
}

milliseconds timeout_of(const std::string& text)
{
    const auto time = parse_duration(text);
    if (!time || time->count() == 0)
        throw usage_error("invalid time " + in_quotes(text) + " for --timeout",
                          std::string("Write ") + kTimeForms + ".");
    return *time;
}

trial_plan plan_of(const check_plugin_options& options)
{
    trial_plan plan;
    plan.path = options.file;
    if (!options.answer.empty())
        plan.answers = bytes_of("--answer", options.answer);
    if (!options.sent.empty())
        plan.sent = bytes_of("--send", options.sent);
    if (!options.received.empty())
        plan.received = count_of(options.received);
    if (!options.timeout.empty())
        plan.timeout = timeout_of(options.timeout);
    return plan;
}

/// What keeps a plugin from being run at all; empty when nothing does.
std::vector<check_result> obstacles(const elf_file& file, const std::vector<check_result>& results)
{
    const elf_identity here = own_identity();
    if (!here.accepts(file.identity))
        return {{outcome::failed,
                 plugin_cause::kNotRunnableHere,
                 file.identity.text() + "; tvkctl itself is " + here.text(),
                 {},
                 {"Run it on its own machine."},
                 "run"}};
    const auto is_fatal = [](const check_result& result) {
        return result.why == plugin_cause::kIncomplete || result.why == plugin_cause::kNotALibrary;
    };
    if (std::any_of(results.begin(), results.end(), is_fatal))
        return {{outcome::not_checked,
                 cause{"not_runnable"},
                 "a file like this cannot be run",
                 {},
                 {"Correct what failed above."},
                 "run"}};
    return {};
}

/// Reads the plan even when nothing is run: a bad option is reported in any case.
std::vector<section> examine(const check_plugin_options& options, const plugin_target& target,
                             trial_plan plan)
{
    const elf_file file = read_plugin(options.file);
    std::vector<section> sections = {{"file", "", check_plugin(file, target)}};
    if (!options.is_run)
        return sections;
    if (auto found = obstacles(file, sections.front().results); !found.empty()) {
        sections.push_back({"run", "run", std::move(found)});
        return sections;
    }
    for (const script_row& row : kScripts) {
        plan.script = row.script;
        sections.push_back({row.name, row.title, judge_trial(plan, try_plugin(plan))});
    }
    return sections;
}

void show(const section& shown, console& io)
{
    constexpr std::size_t check_width = 20; // two blanks behind the longest name, "interpreter_reader"
    if (!shown.title.empty())
        io.out() << '\n' << io.styled(style::bold, shown.title) << '\n';
    for (const check_result& result : shown.results)
        print(result, check_width, io);
}

json as_json(const section& shown)
{
    json checks = json::array();
    for (const check_result& result : shown.results)
        checks.push_back(to_json(result));
    return {{"name", shown.name}, {"checks", std::move(checks)}};
}

const check_result* first_failed(const std::vector<section>& sections)
{
    for (const section& part : sections)
        for (const check_result& result : part.results)
            if (result.came_out == outcome::failed)
                return &result;
    return nullptr;
}

void show_all(const std::vector<section>& sections, const std::string& file, const plugin_target& target,
              console& io)
{
    io.out() << io.styled(style::bold, file) << ", judged for " << target.name << " (" << target.loader.text()
             << ")\n";
    for (const section& part : sections)
        show(part, io);
}

void write_json(const std::vector<section>& sections, const std::string& file, const plugin_target& target,
                console& io)
{
    const check_result* failed = first_failed(sections);
    json parts = json::array();
    for (const section& part : sections)
        parts.push_back(as_json(part));
    io.write(
        {{"file", file},
         {"for", target.name},
         {"machine", target.loader.text()},
         {"ok", failed == nullptr},
         {"exit_status", static_cast<int>(failed == nullptr ? exit_code::ok : exit_code_of(failed->why))},
         {"sections", std::move(parts)}});
}

exit_code check_file(const check_plugin_options& options, cli& shared)
{
    const plugin_target target = target_of(options);
    const auto sections = examine(options, target, plan_of(options));
    if (shared.is_json)
        write_json(sections, options.file, target, shared.io);
    else
        show_all(sections, options.file, target, shared.io);
    if (const check_result* failed = first_failed(sections))
        throw tool_error(failed->why, options.file + ": " + failed->check + ": " + failed->summary,
                         failed->next);
    return exit_code::ok;
}

} // namespace

void add_check_plugin_command(CLI::App& app, cli& shared)
{
    auto options = std::make_shared<check_plugin_options>();
    const trial_plan usual;
    CLI::App& command = add_command(app, shared, {"check-plugin", kCheckPluginSummary, kCheckPluginExamples},
                                    [options, &shared] { return check_file(*options, shared); });
    command.add_option("FILE", options->file, "The plugin, a shared library")->required();
    command
        .add_option("--for", options->machine,
                    "Judge it for the machine that tvkintif is made for, or for this one; armhf unless --run "
                    "is given")
        ->type_name("MACHINE")
        ->check(CLI::IsMember({"armhf", "native"}));
    command
        .add_option("--sysroot", options->sysroot,
                    "Folder with the files of the armhf machine, to look up its libraries")
        ->type_name("FOLDER")
        ->check(CLI::ExistingDirectory);
    command.add_option("--glibc", options->glibc, "Version of the C library that the armhf machine has")
        ->type_name("VERSION")
        ->capture_default_str();
    command.add_flag("--run", options->is_run, "Load it in a process of its own and call it");
    command
        .add_option("--answer", options->answer,
                    "What the scripted device gives first, written as for tvkctl run")
        ->type_name("BYTES");
    command
        .add_option("--send", options->sent,
                    "What interpreter_writer gets, " + std::to_string(usual.sent.size()) +
                        " zeros without it")
        ->type_name("BYTES");
    command
        .add_option("--recv", options->received,
                    "Bytes that interpreter_reader is to fill, " + std::to_string(usual.received) +
                        " without it")
        ->type_name("SIZE");
    command
        .add_option("--timeout", options->timeout,
                    "Time for each of the three runs, " + std::to_string(usual.timeout.count() / 1000) +
                        " s without it")
        ->type_name("TIME");
}

} // namespace tarvik::tvkctl
