#include "tvkctl/src/commands/cli.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <utility>

#include "front_end/src/bytes.h"
#include "front_end/src/front_end_error.h"
#include "tvkctl/src/commands/advice_text.h"
#include "tvkctl/src/commands/command_check_plugin.h"
#include "tvkctl/src/commands/command_explain.h"
#include "tvkctl/src/commands/command_list.h"
#include "tvkctl/src/commands/command_log.h"
#include "tvkctl/src/commands/command_run.h"
#include "tvkctl/src/machine/tool_error.h"

namespace tarvik::tvkctl {

namespace {

constexpr const char* kDescription =
    "Lists scanners, and drives and examines tvkintif, the program that serves them.";

/// Does the work and turns whatever it throws into one line and a status.
exit_code do_work(cli& shared)
{
    try {
        return shared.chosen();
    } catch (const command_error& error) {
        shared.io.error(error.what(), error.advice());
        return error.code();
    } catch (const tool_error& error) {
        shared.io.error(error.what(), sentences_of(error.next()));
        return exit_code_of(error.why());
    } catch (const front_end_error& error) {
        shared.io.error(error.what(), error.advice());
        return exit_code_of(error.cause());
    } catch (const std::exception& error) {
        shared.io.error(error.what());
        return exit_code::internal_error;
    }
}

/// --help and --version are answers, everything else is a complaint.
exit_code tell(const CLI::ParseError& problem, const CLI::App& app, console& io)
{
    if (problem.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
        app.exit(problem, io.out(), io.err());
        return exit_code::ok;
    }
    const std::vector<CLI::App*> named = app.get_subcommands();
    const bool is_unknown = named.empty() && !app.remaining().empty();
    io.error(is_unknown ? "unknown command " + in_quotes(app.remaining().front()) : problem.what(),
             "See tvkctl " + (named.empty() ? "" : named.front()->get_name() + " ") + "--help.");
    return exit_code::usage;
}

/// A result that a full disk cut off must not pass for complete.
exit_code after_flushing(console& io, exit_code code)
{
    if (io.out().flush() || code != exit_code::ok)
        return code;
    io.error("standard output cannot be written", "Look for a full disk or a closed reader.");
    return exit_code::output_file;
}

} // namespace

CLI::App& add_command(CLI::App& app, cli& shared, const command_text& text, std::function<exit_code()> work)
{
    CLI::App* command = app.add_subcommand(text.name, text.summary);
    command->footer("Examples:\n" + text.examples);
    command->add_flag("--json", shared.is_json, "Write the result as JSON");
    command->callback([&shared, work = std::move(work)] { shared.chosen = work; });
    return *command;
}

void add_commands(CLI::App& app, cli& shared)
{
    add_list_command(app, shared);
    add_run_command(app, shared);
    add_explain_command(app, shared);
    add_check_plugin_command(app, shared);
    add_log_command(app, shared);
}

exit_code run_cli(std::vector<std::string> arguments, console& io, const host& machine)
{
    cli shared{io, machine, false, {}};
    CLI::App app(kDescription, "tvkctl");
    app.set_version_flag("--version", TVKCTL_VERSION, "Print the version");
    app.require_subcommand(1);
    app.footer(exit_code_help());
    add_commands(app, shared);
    std::reverse(arguments.begin(), arguments.end()); // the order in which the parser takes them
    try {
        app.parse(std::move(arguments));
    } catch (const CLI::ParseError& problem) {
        return after_flushing(io, tell(problem, app, io));
    }
    return after_flushing(io, do_work(shared));
}

} // namespace tarvik::tvkctl
