#pragma once

#include "tvkctl/src/commands/cli.h"

namespace tarvik::tvkctl {

/// Adds `tvkctl run`.
void add_run_command(CLI::App& app, cli& shared);

} // namespace tarvik::tvkctl
