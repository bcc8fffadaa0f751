#pragma once

#include "tvkctl/src/cli.h"

namespace tvkctl {

/// Adds `tvkctl check-plugin`.
void add_check_plugin_command(CLI::App& app, cli& shared);

} // namespace tvkctl
