#pragma once

#include <string>
#include <utility>

namespace tarvik::tvkctl {

/// What the tool itself can do for a person. How that is typed is for the commands to say.
enum class tool_step {
    none,
    list_devices,
    list_all_devices,
    explain,         ///< parameter: the address
    explain_as_root, ///< parameter: the address
    check_plugin,    ///< parameter: the file
    run_plugin,      ///< parameter: the file
    turn_log_on,
    turn_log_on_for, ///< parameter: the user
    log_more,        ///< at INFO, where a failed open tells its reason
    show_log,
    purge_log,
};

/// What a person can do next: in words, as a shell takes it, or with a step of the tool.
struct advice {
    advice(const char* words) : text(words) {}
    advice(std::string words) : text(std::move(words)) {}
    advice(tool_step what, std::string of = {}, std::string words = {})
        : text(std::move(words)), step(what), parameter(std::move(of))
    {
    }

    std::string text; ///< with a step: what it is good for; may be empty
    tool_step step = tool_step::none;
    std::string parameter = {};
};

} // namespace tarvik::tvkctl
