#include "tvkctl/src/commands/exit_code.h"

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <vector>

#include "tvkctl/src/diagnosis/diagnosis.h"
#include "tvkctl/src/log/log_switch.h"
#include "tvkctl/src/machine/tool_error.h"
#include "tvkctl/src/plugin/plugin_cause.h"
#include "tvkctl/src/session/run_session.h"

namespace tarvik::tvkctl {

namespace {

struct exit_code_row {
    exit_code code;
    std::string meaning;
    std::vector<cause> causes = {}; ///< for which a command ends with it
};

constexpr int kFirstOfExplain = 20;

const std::vector<exit_code_row>& fixed_rows()
{
    static const std::vector<exit_code_row> rows = {
        {exit_code::ok, "done"},
        {exit_code::internal_error, "any other error"},
        {exit_code::usage, "invalid command line", {kBadStep}},
        {exit_code::input_file, "an input file cannot be read", {kInputFile}},
        {exit_code::output_file, "output cannot be written", {kOutputFile}},
        {exit_code::usb_unavailable, "the USB devices cannot be enumerated", {kUsbUnavailable}},
        {exit_code::start_failed, "tvkintif did not start or did not print a port"},
        {exit_code::connect_failed, "nothing listens on the port"},
        {exit_code::open_refused, "the open was answered with ng", {kOpenRefused}},
        {exit_code::request_refused, "a request was answered with ng or nak", {kRequestRefused}},
        {exit_code::connection_lost, "the connection ended in the middle of a session"},
        {exit_code::timed_out, "no answer in time"},
        {exit_code::bad_reply, "an answer that breaks the protocol"},
        {exit_code::program_failed, "tvkintif ended with a status other than 0", {kProgramFailed}},
        {exit_code::plugin_unreadable, "check-plugin: the file cannot be read", {plugin_cause::kUnreadable}},
        {exit_code::plugin_not_a_library,
         "check-plugin: not a whole ELF shared library",
         {plugin_cause::kNotALibrary}},
        {exit_code::plugin_wrong_machine,
         "check-plugin: built for another machine",
         {plugin_cause::kWrongMachine}},
        {exit_code::plugin_incomplete,
         "check-plugin: an entry point is missing",
         {plugin_cause::kIncomplete}},
        {exit_code::plugin_needs_missing,
         "check-plugin: a library, version or symbol that it needs is missing",
         {plugin_cause::kNeedsMissing}},
        {exit_code::plugin_not_loadable, "check-plugin: the loader refuses it", {plugin_cause::kNotLoadable}},
        {exit_code::plugin_crashed,
         "check-plugin: it crashed or ended the process",
         {plugin_cause::kCrashed}},
        {exit_code::plugin_hung, "check-plugin: a call did not return in time", {plugin_cause::kHung}},
        {exit_code::plugin_unclean,
         "check-plugin: it broke the contract or left a thread behind",
         {plugin_cause::kUnclean}},
        {exit_code::plugin_not_runnable_here,
         "check-plugin: it cannot be run on this machine",
         {plugin_cause::kNotRunnableHere}},
        {exit_code::log_is_off, "log: logging is off"},
        {exit_code::log_not_writable, "log: logging is on, but not for this user"},
        {exit_code::log_refused, "log: the directory cannot be trusted or changed", {kLogRefused}},
        {exit_code::log_missing, "log: there is no log of that day"},
        {exit_code::interrupted, "run: ended by Ctrl-C or SIGTERM", {kInterrupted}},
    };
    return rows;
}

std::vector<exit_code_row> all_rows()
{
    std::vector<exit_code_row> all = fixed_rows();
    for (const check& one : kChecks)
        all.push_back({exit_code_of(one), std::string("explain: ") + one.failure});
    std::sort(all.begin(), all.end(),
              [](const exit_code_row& one, const exit_code_row& other) { return one.code < other.code; });
    return all;
}

} // namespace

exit_code exit_code_of(cause why)
{
    for (const exit_code_row& row : fixed_rows())
        if (std::find(row.causes.begin(), row.causes.end(), why) != row.causes.end())
            return row.code;
    return exit_code::internal_error;
}

exit_code exit_code_of(const check& failed)
{
    return static_cast<exit_code>(kFirstOfExplain + failed.number);
}

exit_code exit_code_of(failure what)
{
    switch (what) {
    case failure::start_failed:
    case failure::exited_early:
    case failure::start_refused:
    case failure::bad_port_line:
        return exit_code::start_failed;
    case failure::connection_refused:
    case failure::connect_failed:
        return exit_code::connect_failed;
    case failure::timed_out:
        return exit_code::timed_out;
    case failure::end_of_stream:
    case failure::connection_lost:
        return exit_code::connection_lost;
    case failure::wrong_id:
    case failure::unexpected_reply:
        break;
    }
    return exit_code::bad_reply;
}

std::string exit_code_help()
{
    std::ostringstream text;
    text << "Exit status:\n";
    for (const exit_code_row& row : all_rows())
        text << std::setw(5) << static_cast<int>(row.code) << "  " << row.meaning << '\n';
    return text.str();
}

} // namespace tarvik::tvkctl
