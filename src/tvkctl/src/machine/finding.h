#pragma once

#include <string>

#include "tvkctl/src/machine/exit_code.h"

namespace tarvik::tvkctl {

/// How one check came out. not_checked: what it needs is not there, and the advice says how to get it.
enum class verdict { good, warning, bad, not_checked };

/// As a word for programs: "good", "warning", "bad" or "not_checked".
const char* name_of(verdict came_out);

/// The result of one check.
struct finding {
    std::string check; ///< what was looked at, in a word or two
    verdict came_out;
    std::string evidence;           ///< what was seen
    std::string advice;             ///< a sentence on what to do next; empty when there is nothing to do
    exit_code code = exit_code::ok; ///< of the command, when this is the first bad finding
};

} // namespace tarvik::tvkctl
