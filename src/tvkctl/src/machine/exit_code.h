#pragma once

#include <string>
#include <vector>

#include "front_end/src/front_end_error.h"

namespace tarvik::tvkctl {

/// Exit statuses of tvkctl. Scripts decide by them: a number that was released keeps its meaning.
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

    // 20 to 39: explain, one for each check
    bad_address = 20,
    device_absent = 21,
    no_rights = 22,
    no_interface = 23,
    device_busy = 24,
    plugin_unusable = 25,
    program_unusable = 26,
    open_fails = 27,

    // 40 to 49: check-plugin
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

    // 50 to 59: log
    log_is_off = 50,
    log_not_writable = 51,
    log_refused = 52,
    log_missing = 53,

    interrupted = 130,
};

/// A row of the table that --help, the man page and docs/tvkctl.md show.
struct exit_code_entry {
    exit_code code;
    const char* meaning;
};

/// All of them, in ascending order.
const std::vector<exit_code_entry>& exit_code_table();

/// What a failed step between front-end and program ends a command with.
exit_code exit_code_of(failure cause);

/// The table as text, one line a code.
std::string exit_code_help();

} // namespace tarvik::tvkctl
