#pragma once

#include <cstddef>

#include "tvkctl/src/machine/check_result.h"
#include "tvkctl/src/terminal/console.h"

namespace tarvik::tvkctl {

/// Shows a person the result of a check, at once: the next one may take a while. `name_width` is that of the
/// column with the names of the checks.
void print(const check_result& result, std::size_t name_width, console& io);

/// The same for programs.
json to_json(const check_result& result);

} // namespace tarvik::tvkctl
