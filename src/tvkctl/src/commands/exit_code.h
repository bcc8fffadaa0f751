#pragma once

#include <string>

#include "front_end/src/front_end_error.h"
#include "tvkctl/src/machine/cause.h"

namespace tarvik::tvkctl {

struct check;

/// Exit statuses of tvkctl. Scripts rely on them: a number that was released keeps its meaning.
enum class exit_code : int {
    ok = 0,
    internal_error = 1,
    usage = 2,
    input_file = 3,
    output_file = 4,
    usb_unavailable = 5,

    start_failed = 10,
    connect_failed = 11,
    open_refused = 12,
    request_refused = 13,
    connection_lost = 14,
    timed_out = 15,
    bad_reply = 16,
    program_failed = 17,

    // 20 to 39: explain, one for each check: see kChecks

    // 40 to 69: check-plugin
    plugin_unreadable = 40,
    plugin_not_a_library = 41,
    plugin_wrong_machine = 42,
    plugin_incomplete = 43,
    plugin_needs_missing = 44,
    plugin_not_loadable = 45,
    plugin_crashed = 46,
    plugin_hung = 47,
    plugin_unclean = 48,
    plugin_not_runnable_here = 49,

    // 70 to 89: log
    log_is_off = 70,
    log_not_writable = 71,
    log_refused = 72,
    log_missing = 73,

    interrupted = 130,
};

/// What a command ends with for this cause of an error or of a failed check; internal_error where
/// no row of the table has the cause.
exit_code exit_code_of(cause why);
/// When a check of explain fails.
exit_code exit_code_of(const check& failed);
/// When a step between front-end and program fails.
exit_code exit_code_of(failure what);

/// All of them with their meanings, one line for each.
std::string exit_code_help();

} // namespace tarvik::tvkctl
