#pragma once

#include "tvkctl/src/cli.h"

namespace tvkctl {

/// Adds `tvkctl log`.
void add_log_command(CLI::App& app, cli& shared);

} // namespace tvkctl
