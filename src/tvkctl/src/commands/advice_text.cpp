#include "tvkctl/src/commands/advice_text.h"

#include "tvkctl/src/machine/udi.h"

namespace tarvik::tvkctl {

namespace {

/// What is typed for it, before its parameter.
const char* command_of(tool_step step)
{
    switch (step) {
    case tool_step::list_devices:
        return "tvkctl list   # shows the addresses of the devices on the bus";
    case tool_step::list_all_devices:
        return "tvkctl list --all";
    case tool_step::explain:
        return "tvkctl explain";
    case tool_step::explain_as_root:
        return "sudo tvkctl explain";
    case tool_step::check_plugin:
        return "tvkctl check-plugin";
    case tool_step::run_plugin:
        return "tvkctl check-plugin --run";
    case tool_step::turn_log_on:
        return "tvkctl log on";
    case tool_step::turn_log_on_for:
        return "sudo tvkctl log on --for";
    case tool_step::log_more:
        return "tvkctl log on --level INFO";
    case tool_step::none:
        break;
    }
    return "";
}

} // namespace

std::string text_of(const advice& what)
{
    if (what.step == tool_step::none)
        return what.text;
    return command_of(what.step) + (what.parameter.empty() ? "" : " " + shell_word(what.parameter)) +
           (what.text.empty() ? "" : "   # " + what.text);
}

} // namespace tarvik::tvkctl
