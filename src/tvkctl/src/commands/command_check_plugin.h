#pragma once

#include "tvkctl/src/commands/cli.h"

namespace tarvik::tvkctl {

/// Adds `tvkctl check-plugin`.
void add_check_plugin_command(CLI::App& app, cli& shared);

} // namespace tarvik::tvkctl
