#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/process/deadline.h"
#include "common/process/exit_status.h"
#include "front_end/src/bytes.h"

namespace tarvik::tvkctl {

/// How much the scripted device moves in each transfer: all that was asked for, half of it, or nothing.
enum class transfer_script { all, half, nothing };

/// What a trial does with a plugin, in this order.
enum class trial_step { start, load, ctor, writer, reader, dtor, unload, done };

/// The name of the function that is called in a step, or what is done in it: "interpreter_ctor", "unload".
const char* trial_step_name(trial_step step);

/// How far a trial goes: to load the plugin, see that the four functions are there, and unload it; or through
/// a whole session.
enum class trial_extent { load, session };

struct trial_plan {
    std::string path;
    trial_extent extent = trial_extent::session;
    transfer_script script = transfer_script::all;
    bytes answers = {};           ///< what the device gives first; behind it, a pattern
    bytes sent = bytes(16);       ///< what interpreter_writer gets, at least one byte
    int received = 512;           ///< bytes that interpreter_reader is to fill
    milliseconds timeout{10'000}; ///< for the whole trial
};

struct trial_call {
    trial_step step;
    int result; ///< what it returned; 0 for those that return nothing
    std::chrono::microseconds time;
};

struct trial_report {
    enum class outcome {
        completed,
        refused,      ///< interpreter_ctor returned 0
        not_loadable, ///< `words` are the loader's
        threw,        ///< an exception came out of `last`
        died,         ///< a crash or an exit in `last`
        hung          ///< `last` did not return in time
    };

    outcome end;
    trial_step last;               ///< that was begun
    exit_status status;            ///< of the process in which the plugin ran
    std::string place;             ///< where in the plugin it crashed or hung; empty when unknown
    std::string words;             ///< the loader's, or an explanation of the crash
    std::vector<trial_call> calls; ///< that returned

    std::vector<std::string> missing; ///< functions that the plugin lacks, which a whole session needs

    std::uint32_t reads = 0; ///< transfers that the plugin asked for
    std::uint32_t writes = 0;
    std::uint32_t bad_transfers = 0;    ///< of these, with a null buffer or a length below 1
    std::uint32_t late_transfers = 0;   ///< of these, after interpreter_dtor returned
    bool left_buffer_untouched = false; ///< though the reader reported success

    std::string output;            ///< the beginning of what it wrote to standard output
    std::uint64_t output_size = 0; ///< all of it
    std::string errors;            ///< the same for standard error
    std::uint64_t errors_size = 0;
    std::vector<std::string> threads;     ///< left when interpreter_dtor had returned
    std::vector<std::string> descriptors; ///< left open then
    bool has_left_processes = false;
};

/// Runs a plugin as far as the plan says in a process of its own, as tvkintif would, with a scripted device.
/// That process is gone on return, whatever the plugin did. Throws std::system_error when this machine
/// refuses a process or a pipe.
///
/// Threads: the calling process must have one only.
trial_report try_plugin(const trial_plan& plan);

} // namespace tarvik::tvkctl
