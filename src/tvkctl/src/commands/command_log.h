#pragma once

#include "tvkctl/src/commands/cli.h"

namespace tarvik::tvkctl {

/// Adds `tvkctl log`.
void add_log_command(CLI::App& app, cli& shared);

} // namespace tarvik::tvkctl
