#pragma once

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "front_end/src/bytes.h"
#include "tvkctl/src/machine/cause.h"

namespace tarvik::tvkctl {

// What `tvkctl run` can do in a session. One step is one text: a verb with its operands, as step_help()
// tells. A file name with blanks stands in quotes, with the same escapes as text. '#' where a word could
// begin starts a comment.

/// A part of what is sent: bytes as they are, or those of a file.
struct send_item {
    std::string file; ///< empty: `literal` counts
    bytes literal;
};

struct send_step {
    std::vector<send_item> items;
};

struct recv_step {
    std::uint64_t size;
    std::string file; ///< empty: to be shown
    bool is_appended;
};

struct query_step {
    std::uint32_t selector;
};

struct sleep_step {
    std::chrono::milliseconds time;
};

struct run_step {
    std::string text; ///< as it was written
    std::variant<send_step, recv_step, query_step, sleep_step> what;
};

/// A step that cannot be understood; what() says why, without saying which step it is.
class step_error : public std::invalid_argument {
public:
    using invalid_argument::invalid_argument;
};

/// Reads one step. Throws step_error.
run_step parse_step(const std::string& text);

/// All steps and what they mean, a line or more for each. A new one needs a row in the table that this is
/// made from, a type in run_step, and what carries it out in run_session.cpp.
std::string step_help();

inline constexpr cause kBadStep{"bad_step"}; ///< a step that cannot be understood

/// Reads the steps of a command line. Throws tool_error (kBadStep) that names the step.
std::vector<run_step> parse_steps(const std::vector<std::string>& texts);

/// Reads a script, one step a line, without empty lines and comments. Throws tool_error (kBadStep) with
/// `name` and the line's number.
std::vector<run_step> read_script(std::istream& script, const std::string& name);

/// Reads the files that the steps send, so that a missing one shows before a session begins; afterwards each
/// send has one item, its bytes. Throws tool_error (kInputFile), also for a file without content.
void load_files(std::vector<run_step>& steps);

} // namespace tarvik::tvkctl
