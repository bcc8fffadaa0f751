#pragma once

#include "tvkctl/src/commands/cli.h"

namespace tarvik::tvkctl {

/// Adds `tvkctl list`.
void add_list_command(CLI::App& app, cli& shared);

} // namespace tarvik::tvkctl
