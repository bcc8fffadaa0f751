#pragma once

#include "tvkctl/src/cli.h"

namespace tvkctl {

/// Adds `tvkctl run`.
void add_run_command(CLI::App& app, cli& shared);

} // namespace tvkctl
