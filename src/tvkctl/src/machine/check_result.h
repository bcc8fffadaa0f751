#pragma once

#include <string>
#include <vector>

#include "tvkctl/src/machine/advice.h"
#include "tvkctl/src/machine/cause.h"

namespace tarvik::tvkctl {

/// How a check came out. not_checked: what it needs is not there, and the advice says how to get it.
enum class outcome { ok, warning, failed, not_checked };

/// For people and programs alike: "ok", "warning", "failed", "not checked".
const char* name_of(outcome came_out);

/// The result of one check.
struct check_result {
    outcome came_out = outcome::ok;
    cause why = {};                         ///< none when all is well
    std::string summary = {};               ///< what was seen, in one line
    std::vector<std::string> evidence = {}; ///< more of it
    std::vector<advice> next = {};          ///< what to try, in this order
    std::string check = {};                 ///< what was looked at, in a word or two
};

} // namespace tarvik::tvkctl
