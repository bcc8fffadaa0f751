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
    case tool_step::show_log:
        return "tvkctl log show";
    case tool_step::purge_log:
        return "tvkctl log off --purge";
    case tool_step::none:
        break;
    }
    return "";
}

std::string typed(const advice& what)
{
    return command_of(what.step) + (what.parameter.empty() ? "" : " " + shell_word(what.parameter));
}

} // namespace

std::string text_of(const advice& what)
{
    if (what.step == tool_step::none)
        return what.text;
    return typed(what) + (what.text.empty() ? "" : "   # " + what.text);
}

std::string sentences_of(const std::vector<advice>& all)
{
    std::string text;
    for (const advice& what : all)
        text += (text.empty() ? "" : " ") +
                (what.step == tool_step::none ? what.text : what.text + ": " + typed(what) + ".");
    return text;
}

} // namespace tarvik::tvkctl
