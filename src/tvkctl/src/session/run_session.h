#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "front_end/src/front_end.h"
#include "tvkctl/src/machine/cause.h"
#include "tvkctl/src/session/run_report.h"
#include "tvkctl/src/session/run_steps.h"

namespace tarvik::tvkctl {

struct session_plan {
    std::string udi;
    std::string program;                    ///< to start
    std::optional<int> port = {};           ///< of a running one, instead of starting one
    std::optional<std::uint32_t> chunk;     ///< the most that a request moves; nullopt: see kReceiveChunk
    milliseconds timeout = kRequestTimeout; ///< of each request
    std::vector<run_step> steps;            ///< with their files loaded
};

/// Unless told otherwise a receive asks for this much at a time, so that it shows progress and a failure
/// late in it loses little. Sends go out whole.
constexpr std::uint32_t kReceiveChunk = 65536;

// What ends a session early, besides errors of the front-end library and of files.
inline constexpr cause kOpenRefused{"open_refused"};
inline constexpr cause kRequestRefused{"request_refused"};
inline constexpr cause kProgramFailed{"program_failed"}; ///< it ended with another status than 0
inline constexpr cause kInterrupted{"interrupted"};

/// Runs one session from start to end. Throws tool_error or front_end_error for whatever goes wrong, after
/// the report was told; received bytes have then been handed on, and the message says where they are.
void run_session(const session_plan& plan, run_report& report);

} // namespace tarvik::tvkctl
