#pragma once

#include "tvkctl/src/cli.h"

namespace tvkctl {

/// Adds `tvkctl explain`.
void add_explain_command(CLI::App& app, cli& shared);

} // namespace tvkctl
