#include <tarvik/interpreter.h>

#include <algorithm>
#include <array>
#include <ctime>

#include "front_end/src/front_end_error.h"
#include "tvkctl/src/diagnosis/diagnosis.h"
#include "tvkctl/src/log/log_line.h"
#include "tvkctl/src/log/log_switch.h"
#include "tvkintif/src/models.h"

namespace tarvik::tvkctl {

namespace {

/// What the log says when an open fails, and what helps then.
struct known_message {
    const char* beginning;
    const char* next;
};
constexpr std::array<known_message, 4> kKnownMessages = {{
    {"usb ctor failer.",
     "the plugin itself refused to start: see that its firmware files are in " TARVIK_FIRMWARE_DIR
     " and that lid and transport lock of the scanner are open"},
    {"usb_transceiver set_bulk_endpoints fails",
     "the device was opened, but its interface could not be claimed: end what else uses it"},
    {"usb_transceiver open fails",
     "the device vanished or refused to be opened: unplug it and plug it in again"},
    {"interpreter load fails",
     "the plugin could not be loaded by the program, though it could by tvkctl: see that "
     "both are started with the same environment"},
}};

/// Lines about the connection to the front-end; they say nothing of why an open failed.
bool is_about_connection(const std::string& message)
{
    return message.rfind("ipc connection ", 0) == 0 || message.rfind("transferred ", 0) == 0;
}

/// What this process logged, without headers.
std::vector<std::string> messages_of(pid_t process, log_tail& news)
{
    std::vector<std::string> messages;
    news.take_new([&](const std::string& text) {
        const auto line = parse_log_line(text);
        if (line && line->process == process && !is_about_connection(line->message))
            messages.push_back(line->message);
    });
    return messages;
}

std::vector<advice> advice_on(const std::vector<std::string>& messages)
{
    for (const known_message& one : kKnownMessages)
        for (const std::string& message : messages)
            if (message.rfind(one.beginning, 0) == 0)
                return {one.next};
    return {};
}

/// How to have the reason logged next time.
std::vector<advice> advice_on_logging(const check_context& context)
{
    const log_state state = look_at_log(context.log, std::time(nullptr));
    const advice again(tool_step::explain, context.udi, "then tells the reason");
    if (const std::string remedy = remedy_for_distrust(state); !remedy.empty())
        return {remedy};
    if (!state.is_on())
        return {tool_step::turn_log_on, again};
    if (!state.may_write)
        return {{tool_step::turn_log_on_for, user_of(geteuid()).name}, again};
    if (*state.least > log_level::info)
        return {tool_step::log_more, again};
    return {};
}

std::string why_not_told(const check_context& context)
{
    const log_state state = look_at_log(context.log, std::time(nullptr));
    if (state.reaches_file() && *state.least <= log_level::info)
        return state.file + " has no line of this open: check whether the disk is full";
    if (state.reaches_file())
        return std::string("the reason is logged at INFO, and the log takes only ") +
               level_name(*state.least) + " and above";
    return "the log would tell the reason, but " + why_not_logged(state, context.log);
}

/// Adds what the log tells of a failure. The program must have ended, so that all of it is there.
check_result with_log(check_result result, check_context& context, pid_t process)
{
    const std::vector<std::string> messages = messages_of(process, *context.news);
    if (messages.empty()) {
        result.evidence.push_back(why_not_told(context));
        const auto steps = advice_on_logging(context);
        result.next.insert(result.next.end(), steps.begin(), steps.end());
        return result;
    }
    result.evidence.push_back("the log tells:");
    for (const std::string& message : messages)
        result.evidence.push_back("    " + message);
    const auto steps = advice_on(messages);
    result.next.insert(result.next.end(), steps.begin(), steps.end());
    return result;
}

std::string plugin_of(const check_context& context)
{
    return lib_path(plugin_name(context.device->product_id));
}

check_result refused()
{
    return {outcome::failed, cause{"refused"}, "the open is answered with ng"};
}

check_result broken_off(const front_end_error& error, const check_context& context)
{
    return {outcome::failed,
            cause{error.cause() == failure::timed_out ? "timed_out" : "broken_off"},
            error.what(),
            {},
            {{tool_step::run_plugin, plugin_of(context)}}};
}

check_result bad_end(const exit_status& status, const check_context& context)
{
    return {outcome::failed,
            cause{"bad_end"},
            "the scanner was opened, but when it was closed the program ended with " + status.text(),
            {},
            {{tool_step::run_plugin, plugin_of(context)}}};
}

check_result open_and_close(check_context& context)
{
    front_end& program = *context.program;
    if (!program.open(context.udi)) {
        program.finish();
        return refused();
    }
    program.close();
    const auto status = program.finish();
    if (status != exit_status::exited(0))
        return bad_end(*status, context);
    return {outcome::ok, {}, "the scanner was opened and closed again"};
}

} // namespace

check_result check_open(check_context& context)
{
    const pid_t process = context.program->process().pid();
    check_result result;
    try {
        result = open_and_close(context);
    } catch (const front_end_error& error) {
        result = broken_off(error, context);
    }
    context.program.reset(); // ends it, should it still run
    return result.came_out == outcome::failed ? with_log(std::move(result), context, process) : result;
}

} // namespace tarvik::tvkctl
