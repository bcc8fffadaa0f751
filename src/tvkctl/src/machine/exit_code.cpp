#include "tvkctl/src/machine/exit_code.h"

#include <iomanip>
#include <sstream>

namespace tarvik::tvkctl {

const std::vector<exit_code_entry>& exit_code_table()
{
    static const std::vector<exit_code_entry> table = {
        {exit_code::ok, "done"},
        {exit_code::internal_error, "any other error"},
        {exit_code::usage, "invalid command line"},
        {exit_code::input_file, "an input file cannot be read"},
        {exit_code::output_file, "output cannot be written"},
        {exit_code::usb_unavailable, "the USB devices cannot be enumerated"},
        {exit_code::start_failed, "tvkintif did not start or did not print a port"},
        {exit_code::connect_failed, "nothing listens on the port"},
        {exit_code::open_refused, "the open was answered with ng"},
        {exit_code::request_refused, "a request was answered with ng or nak"},
        {exit_code::connection_lost, "the connection ended in the middle of a session"},
        {exit_code::timed_out, "no answer in time"},
        {exit_code::bad_reply, "an answer that breaks the protocol"},
        {exit_code::program_failed, "tvkintif ended with a status other than 0"},
        {exit_code::bad_address, "explain: the address cannot be used"},
        {exit_code::device_absent, "explain: no such device on the bus"},
        {exit_code::no_rights, "explain: this user may not open the device"},
        {exit_code::no_interface, "explain: the device has no interface that the program could use"},
        {exit_code::device_busy, "explain: another process has claimed the device"},
        {exit_code::plugin_unusable, "explain: the plugin is missing or cannot be loaded"},
        {exit_code::program_unusable, "explain: tvkintif does not start or takes no connection"},
        {exit_code::open_fails, "explain: every check passes, but the open or the close fails"},
        {exit_code::plugin_unreadable, "check-plugin: the file cannot be read"},
        {exit_code::plugin_not_a_library, "check-plugin: not a whole ELF shared library"},
        {exit_code::plugin_wrong_machine, "check-plugin: built for another machine"},
        {exit_code::plugin_incomplete, "check-plugin: an entry point is missing"},
        {exit_code::plugin_needs_missing,
         "check-plugin: a library, version or symbol that it needs is missing"},
        {exit_code::plugin_not_loadable, "check-plugin: the loader refuses it"},
        {exit_code::plugin_crashed, "check-plugin: it crashed or ended the process"},
        {exit_code::plugin_hung, "check-plugin: a call did not return in time"},
        {exit_code::plugin_unclean, "check-plugin: it broke the contract or left a thread behind"},
        {exit_code::plugin_not_runnable_here, "check-plugin: it cannot be run on this machine"},
        {exit_code::log_is_off, "log: logging is off"},
        {exit_code::log_not_writable, "log: logging is on, but not for this user"},
        {exit_code::log_refused, "log: the directory cannot be trusted or changed"},
        {exit_code::log_missing, "log: there is no log of that day"},
        {exit_code::interrupted, "run: ended by Ctrl-C or SIGTERM"},
    };
    return table;
}

exit_code exit_code_of(failure cause)
{
    switch (cause) {
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
    for (const exit_code_entry& entry : exit_code_table())
        text << std::setw(5) << static_cast<int>(entry.code) << "  " << entry.meaning << '\n';
    return text.str();
}

} // namespace tarvik::tvkctl
