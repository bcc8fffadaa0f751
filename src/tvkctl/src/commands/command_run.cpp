#include "tvkctl/src/commands/command_run.h"

#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>

#include "front_end/src/bytes.h"
#include "tvkctl/src/machine/udi.h"
#include "tvkctl/src/session/run_report.h"
#include "tvkctl/src/session/run_session.h"
#include "tvkctl/src/session/run_steps.h"
#include "tvkctl/src/terminal/numbers.h"

namespace tarvik::tvkctl {

namespace {

constexpr const char* kRunSummary = "Open a scanner, send bytes to it and receive bytes from it";
constexpr const char* kRunExamples =
    R"(  tvkctl run usb:1a2b:3c4d 'send 1b 45' 'recv 64'
      sends two bytes and shows the 64 that come
  tvkctl run usb:1a2b:3c4d:SN0042 'send "SCAN" 0d0a @head.bin' 'recv 2MiB > scan.raw'
      puts text, bytes and a file together; writes what comes to a file
  tvkctl run usb:1a2b:3c4d --script calibrate.steps -v
      takes the steps from a file, one a line, and tells how long each takes
  tvkctl run usb:1a2b:3c4d --connect 40001 'query 1'
      uses a tvkintif that is already running

Steps, each in quotes of its own so that the shell leaves it alone:
)";
constexpr const char* kStepRules =
    R"(A file name with blanks stands in "". # begins a comment. The first step that
fails ends the session; what was received until then is kept.)";

constexpr const char* kUdiForms = "An address is usb:VENDOR:PRODUCT or usb:VENDOR:PRODUCT:SERIAL, with "
                                  "hexadecimal ids; tvkctl list shows them.";

struct run_options {
    std::string udi;
    std::vector<std::string> steps;
    std::string script;
    std::string chunk;
    std::string timeout;
    std::string port;
    std::string program;
    bool is_verbose = false;
};

std::optional<std::uint32_t> parse_chunk(const std::string& text)
{
    if (text.empty())
        return std::nullopt;
    const auto size = parse_size(text);
    if (!size || *size == 0 || *size > std::numeric_limits<std::uint32_t>::max())
        throw usage_error("invalid size " + in_quotes(text) + " for --chunk",
                          std::string("Write ") + kSizeForms + ", less than 4GiB.");
    return static_cast<std::uint32_t>(*size);
}

milliseconds parse_timeout(const std::string& text)
{
    if (text.empty())
        return kRequestTimeout;
    const auto time = parse_duration(text);
    if (!time || time->count() == 0)
        throw usage_error("invalid time " + in_quotes(text) + " for --timeout",
                          std::string("Write ") + kTimeForms + ".");
    return *time;
}

std::optional<int> parse_port(const std::string& text)
{
    constexpr std::uint64_t largest = 65535;
    if (text.empty())
        return std::nullopt;
    const auto port = parse_number(text, largest);
    if (!port || *port == 0)
        throw usage_error("invalid port " + in_quotes(text) + " for --connect",
                          "Give the number that the program printed when it started.");
    return static_cast<int>(*port);
}

std::vector<run_step> read_script_file(const std::string& name)
{
    if (name == "-")
        return read_script(std::cin, "standard input");
    std::ifstream script(name);
    std::vector<run_step> steps = read_script(script, name);
    if (!script.is_open() || script.bad())
        throw command_error(exit_code::input_file, name + " cannot be read",
                            "Check the name after --script.");
    return steps;
}

std::vector<run_step> steps_of(const run_options& options)
{
    if (!options.script.empty() && !options.steps.empty())
        throw usage_error("steps are given both by --script and as arguments", "Leave one of them out.");
    std::vector<run_step> steps =
        options.script.empty() ? parse_steps(options.steps) : read_script_file(options.script);
    if (steps.empty())
        throw usage_error("no steps are given", "Give some, such as 'recv 512', or a file with --script.");
    load_files(steps);
    return steps;
}

std::string program_of(const run_options& options, const host& machine)
{
    std::string program = options.program.empty() ? machine.program : options.program;
    if (program.empty() && options.port.empty())
        throw command_error(exit_code::start_failed, "no tvkintif is beside tvkctl or in PATH",
                            "Say where it is with --program.");
    return program;
}

session_plan plan_of(const run_options& options, const host& machine)
{
    if (!udi(options.udi).is_valid())
        throw usage_error("invalid scanner address " + in_quotes(options.udi), kUdiForms);
    session_plan plan;
    plan.udi = options.udi;
    plan.port = parse_port(options.port);
    plan.program = program_of(options, machine);
    plan.chunk = parse_chunk(options.chunk);
    plan.timeout = parse_timeout(options.timeout);
    plan.steps = steps_of(options);
    return plan;
}

exit_code run(const run_options& options, cli& shared)
{
    const session_plan plan = plan_of(options, shared.machine);
    const auto report =
        shared.is_json ? json_report(shared.io, plan.udi) : text_report(shared.io, options.is_verbose);
    run_session(plan, *report);
    return exit_code::ok;
}

} // namespace

void add_run_command(CLI::App& app, cli& shared)
{
    const auto options = std::make_shared<run_options>();
    const std::string examples = kRunExamples + step_help() + kStepRules;
    CLI::App& command = add_command(app, shared, {"run", kRunSummary, examples},
                                    [=, &shared] { return run(*options, shared); });
    command.add_option("UDI", options->udi, "Address of the scanner, as tvkctl list shows it")->required();
    command.add_option("STEP", options->steps, "What to do, in this order (see below)");
    command
        .add_option("--script", options->script,
                    "Take the steps from this file, one per line; - is standard input")
        ->type_name("FILE");
    command
        .add_option("--chunk", options->chunk,
                    "Most bytes of one request; without it a receive asks for " +
                        std::to_string(kReceiveChunk / 1024) + "KiB" + " at a time and a send goes out whole")
        ->type_name("SIZE");
    command
        .add_option("--timeout", options->timeout,
                    "Longest wait for each answer, " + std::to_string(kRequestTimeout.count() / 1000) + " s" +
                        " without it")
        ->type_name("TIME");
    auto* port = command
                     .add_option("--connect", options->port,
                                 "Use the tvkintif that is waiting on this port; it ends with the session")
                     ->type_name("PORT");
    command.add_option("--program", options->program, kProgramHelp)->type_name("FILE")->excludes(port);
    command.add_flag("-v,--verbose", options->is_verbose, "Show how long each step takes");
}

} // namespace tarvik::tvkctl
