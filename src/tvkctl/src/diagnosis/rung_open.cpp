#include <tarvik/interpreter.h>

#include <algorithm>
#include <array>
#include <ctime>

#include "common/process/front_end_error.h"
#include "tvkctl/src/diagnosis/rungs.h"
#include "tvkctl/src/log/log_line.h"
#include "tvkctl/src/log/log_switch.h"
#include "tvkctl/src/machine/udi.h"
#include "tvkintif/src/models.h"

namespace tarvik::tvkctl {

namespace {

/// What the log says when an open fails, and what that calls for.
struct hint {
    const char* message; ///< how it begins
    const char* next;
};
constexpr std::array<hint, 4> kHints = {{
    {"usb ctor failer.",
     "the plugin itself refused to start: see that its firmware files are in " TARVIK_FIRMWARE_DIR
     " and that lid and transport lock of the scanner are open"},
    {"usb_transceiver set_bulk_endpoints fails",
     "the device was opened, but its interface was not to be had: end what else uses it"},
    {"usb_transceiver open fails",
     "the device vanished or refused to be opened: unplug it and plug it in again"},
    {"interpreter load fails",
     "the plugin could not be loaded by the program, though it could by tvkctl: see that "
     "both are started with the same environment"},
}};

/// Lines about the connection to the front-end; in the story of an open they only are in the way.
bool is_about_connection(const std::string& message)
{
    return message.rfind("ipc connection ", 0) == 0 || message.rfind("transferred ", 0) == 0;
}

/// What this process logged, without headers.
std::vector<std::string> story_of(pid_t process, log_tail& news)
{
    std::vector<std::string> story;
    news.take_new([&](const std::string& text) {
        const auto line = parse_log_line(text);
        if (line && line->process == process && !is_about_connection(line->message))
            story.push_back(line->message);
    });
    return story;
}

std::vector<std::string> hints_for(const std::vector<std::string>& story)
{
    for (const hint& one : kHints)
        for (const std::string& message : story)
            if (message.rfind(one.message, 0) == 0)
                return {one.next};
    return {};
}

/// How to have the reason logged next time.
std::vector<std::string> way_to_the_log(const situation& where)
{
    const log_state state = look_at_log(where.log, std::time(nullptr));
    const std::string again = "tvkctl explain " + shell_word(where.udi) + "   # then tells the reason";
    if (!state.is_on())
        return {"tvkctl log on", again};
    if (!state.may_write)
        return {"sudo tvkctl log on --for " + user_of(geteuid()).name, again};
    if (*state.least > log_level::info)
        return {"tvkctl log on --level INFO", again};
    return {};
}

std::string why_no_story(const situation& where)
{
    const log_state state = look_at_log(where.log, std::time(nullptr));
    if (state.reaches_file() && *state.least <= log_level::info)
        return state.file + " got no line of it: see whether its disk is full";
    if (state.reaches_file())
        return std::string("the reason is logged at INFO, and the log takes only ") + name_of(*state.least) +
               " and above";
    return "the log would tell the reason, but " + why_not_logged(state, where.log);
}

/// Adds what the log tells of a failure. The program must have ended, so that all of it is there.
rung_result with_story(rung_result result, situation& where, pid_t process)
{
    const std::vector<std::string> story = story_of(process, *where.news);
    if (story.empty()) {
        result.evidence.push_back(why_no_story(where));
        const auto way = way_to_the_log(where);
        result.next.insert(result.next.end(), way.begin(), way.end());
        return result;
    }
    result.evidence.push_back("the log tells:");
    for (const std::string& message : story)
        result.evidence.push_back("    " + message);
    const auto hints = hints_for(story);
    result.next.insert(result.next.end(), hints.begin(), hints.end());
    return result;
}

std::string plugin_of(const situation& where)
{
    return lib_path(plugin_name(where.device->product_id));
}

rung_result refused()
{
    return {verdict::bad, "refused", "the open is answered with ng"};
}

rung_result broken_off(const front_end_error& error, const situation& where)
{
    return {verdict::bad,
            error.cause() == failure::timed_out ? "timed_out" : "broken_off",
            error.what(),
            {},
            {"tvkctl check-plugin --run " + plugin_of(where)}};
}

rung_result bad_end(const exit_status& status, const situation& where)
{
    return {verdict::bad,
            "bad_end",
            "the scanner was opened, but when it was closed the program ended with " + status.text(),
            {},
            {"tvkctl check-plugin --run " + plugin_of(where)}};
}

rung_result open_and_close(situation& where)
{
    front_end& program = *where.program;
    if (!program.open(where.udi)) {
        program.finish();
        return refused();
    }
    program.close();
    const auto status = program.finish();
    if (status != exit_status::exited(0))
        return bad_end(*status, where);
    return {verdict::good, "", "the scanner was opened and closed again"};
}

} // namespace

rung_result look_at_open(situation& where)
{
    const pid_t process = where.program->process().pid();
    rung_result result;
    try {
        result = open_and_close(where);
    } catch (const front_end_error& error) {
        result = broken_off(error, where);
    }
    where.program.reset(); // ends it, should it still run
    return result.came_out == verdict::bad ? with_story(std::move(result), where, process) : result;
}

} // namespace tarvik::tvkctl
