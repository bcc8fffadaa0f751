#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tvkctl/src/commands/command_error.h"
#include "tvkctl/src/commands/exit_code.h"
#include "tvkctl/src/machine/host.h"
#include "tvkctl/src/terminal/console.h"

namespace CLI {
class App;
}

namespace tarvik::tvkctl {

/// What the commands share while one command line is worked on.
struct cli {
    console& io;
    const host& machine;
    bool is_json = false;              ///< --json was given
    std::function<exit_code()> chosen; ///< the work of the command that was named
};

/// What a command says about itself.
struct command_text {
    std::string name;
    std::string summary;  ///< one line, in the list of commands
    std::string examples; ///< whole lines, shown below the options
};

/// Of the option --program, for the commands that have it.
constexpr const char* kProgramHelp =
    "Start this tvkintif; without it the one beside tvkctl, else the first in PATH";

/// Adds a command with the options that all have (--json). Commands add their own options to what is
/// returned, bound to an object that the work keeps alive:
///
///     auto wanted = std::make_shared<list_options>();
///     CLI::App& command = add_command(app, shared, {"list", ...}, [=, &shared] { return list(*wanted,
///     shared); }); command.add_flag("--all", wanted->all, "...");
///
/// The work throws command_error; tool_error, front_end_error and others are reported as well.
CLI::App& add_command(CLI::App& app, cli& shared, const command_text& text, std::function<exit_code()> work);

/// Adds every command to `app`.
void add_commands(CLI::App& app, cli& shared);

/// Works on one command line (without the program's own name) and returns the exit status.
exit_code run_cli(std::vector<std::string> arguments, console& io, const host& machine);

} // namespace tarvik::tvkctl
