#pragma once

#include "tvkctl/src/cli.h"

namespace tvkctl {

/// Adds `tvkctl list`.
void add_list_command(CLI::App& app, cli& shared);

} // namespace tvkctl
