#pragma once

#include "tvkctl/src/commands/cli.h"

namespace tarvik::tvkctl {

/// Adds `tvkctl explain`.
void add_explain_command(CLI::App& app, cli& shared);

} // namespace tarvik::tvkctl
